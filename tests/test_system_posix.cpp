#include "test_system.h"

#include <gtest/gtest.h>

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

std::uint32_t ownProcessId() {
    return static_cast<std::uint32_t>(getpid());
}

std::uint32_t ownThreadId() {
    return static_cast<std::uint32_t>(gettid());
}

static void withLimit(auto resource, rlim_t value, const std::function<void()> &body) {
    rlimit usual{};
    EXPECT_EQ(getrlimit(resource, &usual), 0);
    const rlimit limit{value, usual.rlim_max};
    setrlimit(resource, &limit);
    body();
    setrlimit(resource, &usual);
}

bool withoutFiles(const std::function<void()> &body) {
    withLimit(RLIMIT_NOFILE, 0, body);
    return true;
}

bool asNobody(const std::function<void()> &body) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0 || seteuid(kNobody) != 0) {
        return false;
    }
    body();
    return seteuid(0) == 0;
}

bool withFullDisk(std::size_t size, const std::function<void()> &body) {
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    withLimit(RLIMIT_FSIZE, size, body);
    std::signal(SIGXFSZ, handler);
    return true;
}

bool whileKilled(int times, const std::function<void()> &work, const std::function<void()> &look) {
    for (int i = 0; i < times; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            work();
            _exit(0);
        }
        usleep(static_cast<useconds_t>(3000 + i * 7919 % 20000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        look();
    }
    return true;
}
