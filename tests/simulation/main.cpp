// Runs worlds, each in a process of its own. One that fails is made as small as it can be, and
// told.
//
//   --seeds A-B       these worlds, and no more
//   --seconds S       worlds from a first one by chance, which is printed, for S seconds
//   --replay SEED     one world, with its account
#include "model.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace simulation;

volatile std::sig_atomic_t interrupted = 0;

// Whether a world fails; order: of its events, given its operations. What is wrong stands in
// failure.
bool fails(const Program &tried, std::uint64_t order, bool account = false) {
    constexpr unsigned kMostSeconds = 30;
    std::fflush(stdout);
    std::ranges::for_each(std::filesystem::directory_iterator{"."},
                          [](const auto &left) { std::filesystem::remove(left); });
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
    if (interrupted != 0) {
        std::exit(2);
    }
    if (status != 0 && failure[0] == '\0') {
        std::snprintf(failure, kFailure, "dies: %s", strsignal(WTERMSIG(status)));
    }
    return status != 0;
}

// Leaves out what operations it can, and who has none left, as long as the rest fails in some order
// of events, which is noted.
void makeSmall(Program &failing, std::uint64_t &order) {
    constexpr std::uint64_t kOrders = 60;
    for (auto at = std::ssize(failing.operations); at-- > 0;) {
        Program less = failing;
        less.operations.erase(less.operations.begin() + at);
        for (std::uint64_t tried = order; tried < order + kOrders; ++tried) {
            if (fails(less, tried)) {
                order = tried;
                failing = less;
                break;
            }
        }
    }
}

int run(const std::string &option, const char *value) {
    unsigned long long seed = std::random_device{}(), last = UINT64_MAX;
    std::time_t end = std::numeric_limits<std::time_t>::max();
    if (option == "--seconds") {
        end = std::time(nullptr) + std::atoi(value);
        std::printf("worlds from %llu on\n", seed);
    } else if (option == "--replay" && std::sscanf(value, "%llu", &seed) == 1) {
        last = seed;
    } else if (option != "--seeds" || std::sscanf(value, "%llu-%llu", &seed, &last) != 2) {
        std::fputs("zelvo_simulation --seeds A-B | --seconds S | --replay SEED\n", stderr);
        return 2;
    }
    const unsigned long long first = seed;
    for (; seed <= last && std::time(nullptr) < end; ++seed) {
        Program made = makeProgram(seed);
        if (fails(made, seed, option == "--replay")) {
            std::printf("world %llu: %s\n\nmade smaller:\n", seed, failure);
            std::uint64_t order = seed;
            makeSmall(made, order);
            return fails(made, order, true) ? 1 : 2;
        }
    }
    std::printf("%llu worlds, none failed\n", seed - first);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    failure = static_cast<char *>(
        mmap(nullptr, kFailure, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    static char directory[] = "/tmp/zelvo-simulation-XXXXXX"; // for the key store
    if (!mkdtemp(directory) || chdir(directory) != 0) {
        return 2;
    }
    std::atexit([] { std::filesystem::remove_all(directory); });
    std::signal(SIGINT, [](int) { interrupted = 1; }); // a world goes on to its end
    return run(argc == 3 ? argv[1] : "", argc == 3 ? argv[2] : "");
}
