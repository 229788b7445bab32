#include "wake.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace zelvo_mqtt {

Wake::Wake() {
    if (pipe2(ends_, O_NONBLOCK | O_CLOEXEC) != 0) {
        throw std::system_error{errno, std::generic_category(), "pipe"};
    }
}

Wake::~Wake() {
    close(ends_[0]);
    close(ends_[1]);
}

// One byte at most lies in the pipe, so it takes every one.
void Wake::set() {
    if (!set_.exchange(true)) {
        const char byte = 0;
        static_cast<void>(!write(ends_[1], &byte, 1));
    }
}

void Wake::clear() {
    char byte = 0;
    if (read(ends_[0], &byte, 1) == 1) {
        set_.store(false);
    }
}

} // namespace zelvo_mqtt
