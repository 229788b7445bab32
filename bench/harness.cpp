#include "harness.h"

#include "scenario.h"

#include <sched.h>
#include <sys/resource.h>

#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

double secondsOf(const timeval &time) noexcept {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

Usage usageOf(__rusage_who who) noexcept {
    rusage all{};
    getrusage(who, &all);
    return {secondsOf(all.ru_utime) + secondsOf(all.ru_stime), all.ru_nvcsw + all.ru_nivcsw};
}

// Thousands of sockets need a descriptor each.
void allowDescriptors() noexcept {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void useOneCore() noexcept {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        return;
    }
    for (std::size_t core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &allowed)) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(core, &one);
            sched_setaffinity(0, sizeof one, &one);
            return;
        }
    }
}

Result measure(const System &system, std::string_view name, int milliseconds) {
    for (const OwnCell &cell : system.own) {
        if (cell.name == name) {
            return cell.run(milliseconds);
        }
    }
    const Cell *const cell = findCell(name);
    if (!cell) {
        throw std::invalid_argument("no such cell");
    }
    if (cell->oneCore) {
        useOneCore();
    }
    return runCell(system, *cell, milliseconds);
}

// In kilobytes. getrusage would count what the process was before it became this program.
long peakMemory() {
    std::ifstream status{"/proc/self/status"};
    for (std::string word; status >> word;) {
        if (word == "VmHWM:") {
            long peak = 0;
            status >> peak;
            return peak;
        }
    }
    return 0;
}

void print(const Result &result) {
    std::printf("%llu,%.6f,%lld,%lld,%lld,%llu,%.6f,%ld,%ld\n",
                static_cast<unsigned long long>(result.operations), result.seconds,
                static_cast<long long>(result.times.quantile(0.5)),
                static_cast<long long>(result.times.quantile(0.99)),
                static_cast<long long>(result.times.quantile(0.999)),
                static_cast<unsigned long long>(result.lost), result.used.processor,
                result.used.switches, peakMemory());
}

void list(std::span<const System> systems) {
    const auto line = [](std::string_view system, std::string_view cell) {
        std::printf("%.*s,%.*s\n", static_cast<int>(system.size()), system.data(),
                    static_cast<int>(cell.size()), cell.data());
    };
    for (const System &system : systems) {
        for (const std::string_view cell : system.cells) {
            line(system.name, cell);
        }
        for (const OwnCell &cell : system.own) {
            line(system.name, cell.name);
        }
    }
}

int runNamed(std::span<const System> systems, std::string_view name, std::string_view cell,
             int milliseconds) {
    for (const System &system : systems) {
        if (system.name == name) {
            print(measure(system, cell, milliseconds));
            return 0;
        }
    }
    std::fprintf(stderr, "no such system\n");
    return 2;
}

} // namespace

std::int64_t now() noexcept {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Histogram::add(std::int64_t nanoseconds) noexcept {
    const auto value = nanoseconds > 0 ? static_cast<std::uint64_t>(nanoseconds) : 0;
    const auto width = static_cast<unsigned>(std::bit_width(value));
    const unsigned shift = width > kBits + 1 ? width - (kBits + 1) : 0;
    ++counts_[(std::uint64_t{shift} << kBits) + (value >> shift)];
    ++total_;
}

void Histogram::add(const Histogram &other) noexcept {
    for (std::size_t index = 0; index < counts_.size(); ++index) {
        counts_[index] += other.counts_[index];
    }
    total_ += other.total_;
}

std::int64_t Histogram::quantile(double part) const noexcept {
    const auto wanted = static_cast<std::uint64_t>(part * static_cast<double>(total_));
    std::uint64_t seen = 0;
    for (std::size_t index = 0; index < counts_.size(); ++index) {
        seen += counts_[index];
        if (seen > wanted) {
            const std::size_t shift = index >> (kBits + 1) ? (index >> kBits) - 1 : 0;
            return static_cast<std::int64_t>((index - (shift << kBits)) << shift);
        }
    }
    return 0;
}

Usage usage() noexcept {
    return usageOf(RUSAGE_SELF);
}

Usage usageOfOthers() noexcept {
    const Usage own = usageOf(RUSAGE_THREAD);
    return usageOf(RUSAGE_SELF) - own;
}

Usage operator-(const Usage &after, const Usage &before) noexcept {
    return {after.processor - before.processor, after.switches - before.switches};
}

int run(int argc, char **argv, std::span<const System> systems) {
    try {
        if (argc == 2 && std::string_view{argv[1]} == "--list") {
            list(systems);
            return 0;
        }
        if (argc == 4) {
            allowDescriptors();
            return runNamed(systems, argv[1], argv[2], std::atoi(argv[3]));
        }
        std::fprintf(stderr, "usage: %s --list | SYSTEM CELL MILLISECONDS\n", argv[0]);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
    }
    return 2;
}

} // namespace bench
