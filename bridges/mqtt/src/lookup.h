// Asks the name service for a host, which may take a long time and can't be ended: so in a thread
// that nobody has to wait for.
#ifndef ZELVO_MQTT_LOOKUP_H
#define ZELVO_MQTT_LOOKUP_H

#include <atomic>
#include <memory>
#include <string>

namespace zelvo_mqtt {

class Lookup {
public:
    // Begins, unless the one before still runs. An address needs none. Throws std::system_error.
    void begin(const std::string &host);
    bool done() const { return state_->done.load(); }
    // Of the last that is done: why the host is unknown; empty, it is known.
    std::string failure() const;

private:
    struct State {
        std::atomic<bool> done{true};
        std::atomic<int> error{0};
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

} // namespace zelvo_mqtt

#endif
