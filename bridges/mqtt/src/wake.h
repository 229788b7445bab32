// Ends another thread's poll().
#ifndef ZELVO_MQTT_WAKE_H
#define ZELVO_MQTT_WAKE_H

#include <atomic>
#include <cerrno>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

namespace zelvo_mqtt {

class Wake {
public:
    Wake() : file_{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)} {
        if (file_ < 0) {
            throw std::system_error{errno, std::generic_category(), "eventfd"};
        }
    }
    Wake(const Wake &) = delete;
    Wake &operator=(const Wake &) = delete;
    ~Wake() { close(file_); }

    int descriptor() const { return file_; } // readable once set
    void set() {
        if (!set_.exchange(true)) {
            eventfd_write(file_, 1);
        }
    }
    void clear() {
        eventfd_t number = 0;
        eventfd_read(file_, &number);
        set_.store(false);
    }

private:
    const int file_;
    std::atomic<bool> set_{false};
};

} // namespace zelvo_mqtt

#endif
