// What a thread waits for: a socket, and other threads. Others may change meanwhile what it waits
// for at the socket; it is not woken by that.
#ifndef ZELVO_MQTT_WAITER_H
#define ZELVO_MQTT_WAITER_H

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zelvo_mqtt {

class Waiter {
public:
    Waiter() : wake_{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)}, epoll_{newEpoll()} {
        if (epoll_ < 0) {
            const int error = errno;
            ::close(wake_);
            throw std::system_error{error, std::generic_category(), "epoll"};
        }
    }
    Waiter(const Waiter &) = delete;
    Waiter &operator=(const Waiter &) = delete;
    ~Waiter() {
        ::close(wake_);
        ::close(epoll_);
    }

    // The one socket, which is open, and events of epoll, besides which errors are always waited
    // for. False: the system has no room, errno says which. This and the next under a lock of the
    // caller's.
    bool watch(int file, std::uint32_t events) {
        if (file == file_ && events == events_) {
            return true;
        }
        epoll_event event{};
        event.events = events;
        event.data.u64 = number_;
        if (epoll_ctl(epoll_, file == file_ ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, file, &event) != 0) {
            return false;
        }
        file_ = file;
        events_ = events;
        return true;
    }
    // Where it is closed already, its number may be another file's, and a child process may hold it
    // open, so that it goes on reporting: then only an epoll instance without it is rid of it.
    void forget() {
        const bool isRid = file_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_DEL, file_, nullptr) == 0;
        const int anew = isRid ? -1 : newEpoll();
        if (anew >= 0) {
            dup3(anew, epoll_, O_CLOEXEC);
            ::close(anew);
        }
        file_ = -1;
        ++number_;
    }
    // Returns the events of the socket.
    std::uint32_t wait(std::chrono::milliseconds limit) {
        epoll_event ready[2] = {};
        const int count = epoll_wait(epoll_, ready, 2, static_cast<int>(limit.count()));
        std::uint32_t events = 0;
        for (int i = 0; i < count; ++i) {
            if (ready[i].data.u64 == kWake) {
                clear();
            } else if (ready[i].data.u64 == number_) { // not one that is forgotten
                events = ready[i].events;
            }
        }
        return events;
    }
    // Ends the wait of this moment, or the next. Any thread.
    void wake() {
        if (!woken_.exchange(true)) {
            eventfd_write(wake_, 1);
        }
    }

private:
    static constexpr std::uint64_t kWake = 0;

    // Negative: there is none, errno says why.
    int newEpoll() const {
        const int made = epoll_create1(EPOLL_CLOEXEC);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = kWake;
        if (made >= 0 && epoll_ctl(made, EPOLL_CTL_ADD, wake_, &event) != 0) {
            const int error = errno;
            ::close(made);
            errno = error;
            return -1;
        }
        return made;
    }
    void clear() {
        eventfd_t number = 0;
        eventfd_read(wake_, &number);
        woken_.exchange(false); // sees what was done before a wake that has come in between
    }

    const int wake_, epoll_;
    std::atomic<std::uint64_t> number_{1}; // of the socket, of which there is one after the other
    int file_ = -1;
    std::uint32_t events_ = 0;
    std::atomic<bool> woken_{false};
};

} // namespace zelvo_mqtt

#endif
