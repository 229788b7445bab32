// Runs worlds, each in a process of its own. One that fails is made as small as it can be, and
// told.
//
//   --seeds A-B       these worlds, and no more
//   --seconds S       worlds from a first one by chance, which is printed, for S seconds
//   --replay SEED     one world, with its account
#include "program.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace simulation;

// Whether a world fails; order: of its events, given its operations. What is wrong stands in
// failure.
bool fails(const Program &tried, std::uint64_t order, bool account = false) {
    constexpr unsigned kMostSeconds = 30;
    std::fflush(stdout);
    for (const auto &left : std::filesystem::directory_iterator{"."}) {
        std::filesystem::remove(left);
    }
    failure[0] = '\0';
    const pid_t process = fork();
    if (process == 0) {
        alarm(kMostSeconds);
        hasAccount = account;
        program = tried;
        world.run(order, play);
        std::fflush(stdout);
        _exit(0);
    }
    int status = 0;
    waitpid(process, &status, 0);
    if (status != 0 && failure[0] == '\0') {
        std::snprintf(failure, kFailure, "dies: %s", strsignal(WTERMSIG(status)));
    }
    return status != 0;
}

// Leaves out operations as long as the rest fails in some order of events, which is noted.
Program madeSmall(Program failing, std::uint64_t &order) {
    constexpr std::uint64_t kOrders = 60;
    for (auto part = std::ssize(failing.operations); part > 0; part /= 2) {
        for (std::ptrdiff_t at = 0; at < std::ssize(failing.operations);) {
            Program less = failing;
            const auto begin = less.operations.begin() + at, end = less.operations.end();
            less.operations.erase(begin, begin + std::min(part, end - begin));
            std::uint64_t tried = 0;
            while (tried < kOrders && !fails(less, order + tried)) {
                ++tried;
            }
            if (tried < kOrders) {
                order += tried;
                failing = less;
            } else {
                at += part;
            }
        }
    }
    return failing;
}

int runAll(std::uint64_t first, std::uint64_t last, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::uint64_t seed = first;
    for (; seed <= last && std::chrono::steady_clock::now() < end; ++seed) {
        const Program made = makeProgram(seed);
        if (fails(made, seed)) {
            std::printf("world %llu: %s\n\nmade smaller:\n", static_cast<unsigned long long>(seed),
                        failure);
            std::uint64_t order = seed;
            const Program small = madeSmall(made, order);
            return fails(small, order, true) ? 1 : 2;
        }
    }
    std::printf("%llu worlds, none failed\n", static_cast<unsigned long long>(seed - first));
    return 0;
}

// Where this process works from now on. Another one removes it in the end, whatever that is.
bool enterDirectory() {
    char directory[] = "/tmp/zelvo-simulation-XXXXXX";
    int ends[2];
    if (!mkdtemp(directory) || chdir(directory) != 0 || pipe(ends) != 0) {
        return false;
    }
    if (fork() == 0) {
        setsid(); // what ends this process's group does not end that one
        close(ends[1]);
        for (char none; read(ends[0], &none, 1) != 0;) {} // until nobody has the other end
        std::filesystem::remove_all(directory);
        _exit(0);
    }
    close(ends[0]);
    return true;
}

int run(const std::string &option, const char *value) {
    unsigned long long first = std::random_device{}(), last = UINT64_MAX;
    if (option == "--replay" && std::sscanf(value, "%llu", &first) == 1) {
        const bool failed = fails(makeProgram(first), first, true);
        std::printf("world %llu %s\n", first, failed ? failure : "does not fail");
        return failed ? 1 : 0;
    }
    if (option == "--seeds" && std::sscanf(value, "%llu-%llu", &first, &last) == 2) {
        return runAll(first, last, std::chrono::hours{24});
    }
    if (option == "--seconds") {
        std::printf("worlds from %llu on\n", first);
        return runAll(first, last, std::chrono::seconds{std::atoi(value)});
    }
    std::fputs("zelvo_simulation --seeds A-B | --seconds S | --replay SEED\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    failure = static_cast<char *>(
        mmap(nullptr, kFailure, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return enterDirectory() ? run(argc == 3 ? argv[1] : "", argc == 3 ? argv[2] : "") : 2;
}
