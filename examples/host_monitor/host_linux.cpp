#include "host.h"

#include "format.h"

#include <sys/utsname.h>

#include <fstream>
#include <stdexcept>
#include <thread>

namespace {

void require(bool found, const char *what) {
    if (!found) {
        throw std::runtime_error(std::string("cannot read ") + what);
    }
}

} // namespace

CpuTime readCpuTime() {
    std::ifstream file("/proc/stat");
    std::string name;
    long long user, nice, system, idle, iowait, irq, softirq, steal;
    file >> name >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
    require(file && name == "cpu", "the processor time in /proc/stat");
    const long long busy = user + nice + system + irq + softirq + steal;
    return {busy, busy + idle + iowait};
}

Memory readMemory() {
    std::ifstream file("/proc/meminfo");
    std::string key, rest;
    double kib = 0, total = 0, available = -1;
    while (available < 0 && file >> key >> kib && std::getline(file, rest)) {
        if (key == "MemTotal:") {
            total = kib / 1024;
        } else if (key == "MemAvailable:") {
            available = kib / 1024;
        }
    }
    require(total > 0 && available >= 0, "the memory in /proc/meminfo");
    return {total - available, total};
}

std::string readLoad() {
    std::ifstream file("/proc/loadavg");
    std::string one, five, fifteen;
    file >> one >> five >> fifteen;
    require(!file.fail(), "the load in /proc/loadavg");
    return one + ' ' + five + ' ' + fifteen;
}

std::string describeHost() {
    utsname names{};
    require(uname(&names) == 0, "the host's name");
    return std::string(names.nodename) + ", " + names.sysname + ' ' + names.release + ", " +
           std::to_string(std::thread::hardware_concurrency()) + " processors, " +
           oneDecimal(readMemory().total) + " MiB";
}
