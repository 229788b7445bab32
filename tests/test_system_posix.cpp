#include "test_system.h"

#include <csignal>

#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

static bool withLimit(auto resource, rlim_t value, const Body &body) {
    rlimit usual{};
    getrlimit(resource, &usual);
    const rlimit limit{value, usual.rlim_max};
    const bool limited = setrlimit(resource, &limit) == 0;
    body();
    return setrlimit(resource, &usual) == 0 && limited;
}

bool withoutFiles(const Body &body) {
    return withLimit(RLIMIT_NOFILE, 0, body);
}

bool asNobody(const Body &body) {
    if (geteuid() != 0 || seteuid(65534) != 0) {
        return false;
    }
    body();
    return seteuid(0) == 0;
}

bool withFullDisk(std::size_t size, const Body &body) {
    std::signal(SIGXFSZ, SIG_IGN);
    return withLimit(RLIMIT_FSIZE, size, body);
}

bool whileKilled(int times, const Body &work, const Body &look) {
    for (int i = 0; i < times; ++i) {
        const pid_t child = fork();
        if (child == 0) { // which dies when it has worked for so long
            const itimerval limit{{0, 0}, {0, 3000 + i * 7919 % 20000}};
            setitimer(ITIMER_PROF, &limit, nullptr);
            work();
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        look();
    }
    return true;
}
