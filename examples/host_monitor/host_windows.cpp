#define WIN32_LEAN_AND_MEAN
#define NOMINMAX

#include "host.h"

#include "format.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <thread>

#include <windows.h>

namespace {

void require(bool found, const char *what) {
    if (!found) {
        throw std::runtime_error(std::string("cannot read ") + what);
    }
}

long long ticks(const FILETIME &time) {
    return (static_cast<long long>(time.dwHighDateTime) << 32) + time.dwLowDateTime;
}

// Windows keeps no mean load: this one averages how many processors are busy, from the program's
// start on, in the manner of Unix, where older values fade.
class Load {
public:
    std::string text() {
        const CpuTime now = readCpuTime();
        const auto when = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(when - when_).count();
        const auto total = static_cast<double>(now.total - before_.total);
        const double share = total > 0 ? static_cast<double>(now.busy - before_.busy) / total : 0;
        for (std::size_t i = 0; i < means_.size(); ++i) {
            const double fades = std::exp(-seconds / kSeconds[i]);
            means_[i] = means_[i] * fades + share * processors_ * (1 - fades);
        }
        before_ = now;
        when_ = when;
        return oneDecimal(means_[0]) + ' ' + oneDecimal(means_[1]) + ' ' + oneDecimal(means_[2]);
    }

private:
    static constexpr std::array<double, 3> kSeconds{60, 300, 900};
    const double processors_ = std::thread::hardware_concurrency();
    std::array<double, 3> means_{};
    CpuTime before_ = readCpuTime();
    std::chrono::steady_clock::time_point when_ = std::chrono::steady_clock::now();
};

std::string hostName() {
    char name[256];
    DWORD size = sizeof name;
    require(GetComputerNameExA(ComputerNameDnsHostname, name, &size), "the host's name");
    return name;
}

} // namespace

CpuTime readCpuTime() {
    FILETIME idle;
    FILETIME kernel; // the idle time is part of it
    FILETIME user;
    require(GetSystemTimes(&idle, &kernel, &user), "the processor time");
    const long long total = ticks(kernel) + ticks(user);
    return {total - ticks(idle), total};
}

Memory readMemory() {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    require(GlobalMemoryStatusEx(&status), "the memory");
    constexpr double kMiB = 1024 * 1024;
    const auto total = static_cast<double>(status.ullTotalPhys) / kMiB;
    return {total - static_cast<double>(status.ullAvailPhys) / kMiB, total};
}

// One thread reads the load: the sampler's.
std::string readLoad() {
    static Load load;
    return load.text();
}

std::string describeHost() {
    return hostName() + ", Windows, " + std::to_string(std::thread::hardware_concurrency()) +
           " processors, " + oneDecimal(readMemory().total) + " MiB";
}
