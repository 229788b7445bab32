// Runs worlds, each in a process of its own. One that fails is made as small as it can be, and
// told.
//
//   --seeds A-B       these worlds, and no more
//   --seconds S       worlds from a first one by chance, which is printed, for S seconds
//   --replay SEED     one world, with its account
#include "program.h"
#include "scheduler.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using simulation::Program;

constexpr std::size_t kFailure = 4096;
char *const failure = static_cast<char *>(
    mmap(nullptr, kFailure, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

// Whether a world fails; order: of its events, given its operations. What is wrong stands in
// failure.
bool fails(const Program &program, std::uint64_t order, bool account = false) {
    constexpr unsigned kMostSeconds = 30;
    std::fflush(stdout);
    failure[0] = '\0';
    const pid_t process = fork();
    if (process == 0) {
        alarm(kMostSeconds);
        simulation::report = {failure, kFailure, account};
        simulation::world.run(order, [&] { simulation::play(program); });
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

// Leaves out operations as long as the rest fails in some order of events.
std::pair<Program, std::uint64_t> madeSmall(Program program, std::uint64_t order) {
    constexpr std::uint64_t kOrders = 60;
    for (std::size_t part = program.operations.size(); part > 0; part /= 2) {
        for (std::size_t at = 0; at < program.operations.size();) {
            Program less = program;
            const auto begin = less.operations.begin() + static_cast<std::ptrdiff_t>(at);
            const std::size_t number = std::min(part, less.operations.size() - at);
            less.operations.erase(begin, begin + static_cast<std::ptrdiff_t>(number));
            std::uint64_t tried = 0;
            while (tried < kOrders && !fails(less, order + tried)) {
                ++tried;
            }
            order += tried < kOrders ? tried : 0;
            program = tried < kOrders ? less : program;
            at += tried < kOrders ? 0 : part;
        }
    }
    return {program, order};
}

int runAll(std::uint64_t first, std::uint64_t last, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::uint64_t seed = first;
    for (; seed <= last && std::chrono::steady_clock::now() < end; ++seed) {
        const Program program = simulation::makeProgram(seed);
        if (!fails(program, seed)) {
            continue;
        }
        std::printf("world %llu: %s\n\nmade smaller:\n", static_cast<unsigned long long>(seed),
                    failure);
        const auto [small, order] = madeSmall(program, seed);
        fails(small, order, true);
        return 1;
    }
    std::printf("%llu worlds, none failed\n", static_cast<unsigned long long>(seed - first));
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const std::string option = argc == 3 ? argv[1] : "";
    unsigned long long first = std::random_device{}(), last = UINT64_MAX;
    if (option == "--replay") {
        first = std::strtoull(argv[2], nullptr, 10);
        const bool failed = fails(simulation::makeProgram(first), first, true);
        return std::printf("world %llu %s\n", first, failed ? failure : "does not fail"), failed;
    }
    if (option == "--seeds" && std::sscanf(argv[2], "%llu-%llu", &first, &last) == 2) {
        return runAll(first, last, std::chrono::hours{24});
    }
    if (option != "--seconds") {
        return std::fputs("zelvo_simulation --seeds A-B | --seconds S | --replay SEED\n", stderr),
               2;
    }
    std::printf("worlds from %llu on\n", first);
    return runAll(first, last, std::chrono::seconds{std::atoi(argv[2])});
}
