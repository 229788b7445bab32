#include "test_support.h"

#include <csignal>

#include <sys/resource.h>
#include <unistd.h>

bool asNobody(const Body &body) {
    if (geteuid() != 0 || seteuid(65534) != 0) {
        return false;
    }
    body();
    return seteuid(0) == 0;
}

bool withFullDisk(std::size_t size, const Body &body) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit usual{};
    getrlimit(RLIMIT_FSIZE, &usual);
    const rlimit limit{size, usual.rlim_max};
    const bool limited = setrlimit(RLIMIT_FSIZE, &limit) == 0;
    body();
    return setrlimit(RLIMIT_FSIZE, &usual) == 0 && limited;
}
