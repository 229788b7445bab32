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

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace simulation;

volatile std::sig_atomic_t interrupted = 0;

// Whether a world fails, of which as much is printed as what says.
bool fails(const Program &tried, Telling what) {
    program = tried;
    telling = what;
    std::ranges::for_each(std::filesystem::directory_iterator{"."},
                          [](const auto &left) { std::filesystem::remove(left); });
    const pid_t process = fork();
    if (process == 0) {
        alarm(30); // no world takes as many seconds
        world.run(program.order, play);
        _exit(0);
    }
    int status = 0;
    waitpid(process, &status, 0);
    if (interrupted != 0) {
        std::exit(2);
    }
    if (WIFSIGNALED(status) && telling != Telling::kNothing) {
        std::printf("world %llu: dies: %s\n", worldsNumber, strsignal(WTERMSIG(status)));
    }
    return status != 0;
}

// Leaves out what operations it can, and who has none left, as long as the rest fails in some order
// of events.
void makeSmall(Program &failing) {
    for (auto at = std::ssize(failing.operations); at-- > 0;) {
        Program less = failing;
        less.operations.erase(less.operations.begin() + at);
        unsigned orders = 60;
        for (; orders > 0 && !fails(less, Telling::kNothing); --orders) {
            ++less.order;
        }
        if (orders > 0) {
            failing = less;
        }
    }
}

int run(const string &option, const char *value) {
    unsigned long long seed = std::random_device{}(), last = UINT64_MAX;
    std::time_t end = INT64_MAX;
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
        worldsNumber = seed;
        Program made = makeProgram(seed);
        if (fails(made, option == "--replay" ? Telling::kAccount : Telling::kFailure)) {
            std::puts("\nmade smaller:");
            makeSmall(made);
            return fails(made, Telling::kAccount) ? 1 : 2;
        }
    }
    std::printf("%llu worlds, none failed\n", seed - first);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    static char directory[] = "/tmp/zelvo-simulation-XXXXXX"; // for the key store
    if (!mkdtemp(directory) || chdir(directory) != 0) {
        return 2;
    }
    std::atexit([] { std::filesystem::remove_all(directory); });
    std::signal(SIGINT, [](int) { interrupted = 1; }); // a world goes on to its end
    return run(argc == 3 ? argv[1] : "", argc == 3 ? argv[2] : "");
}
