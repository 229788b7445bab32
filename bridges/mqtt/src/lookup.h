// Asks the name service for a host, which may take a long time and can't be ended: so in a thread
// that nobody has to wait for.
#ifndef ZELVO_MQTT_LOOKUP_H
#define ZELVO_MQTT_LOOKUP_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace zelvo_mqtt {

class Lookup {
public:
    // Begins, unless the one before still runs. Throws std::system_error.
    void begin(const std::string &host);
    bool done() const { return !state_ || state_->done; }
    // Of the last, which is done: the addresses in figures, in the order in which they are to be
    // tried, and where there are none, why.
    const std::vector<std::string> &addresses() const { return state_->addresses; }
    std::string failure() const;

private:
    struct State {
        std::atomic<bool> done{false};
        std::vector<std::string> addresses; // the next two: the thread's until it is done
        int error = 0;
        void ask(const std::string &host);
    };
    std::shared_ptr<State> state_; // null: none has begun
};

} // namespace zelvo_mqtt

#endif
