// Ends another thread's poll().
#ifndef ZELVO_MQTT_WAKE_H
#define ZELVO_MQTT_WAKE_H

#include <atomic>

namespace zelvo_mqtt {

class Wake {
public:
    Wake(); // throws std::system_error
    Wake(const Wake &) = delete;
    Wake &operator=(const Wake &) = delete;
    ~Wake();

    int descriptor() const { return ends_[0]; } // readable once set
    void set();
    void clear();

private:
    int ends_[2] = {-1, -1};
    std::atomic<bool> set_{false};
};

} // namespace zelvo_mqtt

#endif
