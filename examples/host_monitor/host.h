// The figures of this machine; one source file for each system behind it. Each function throws
// std::runtime_error when it cannot find what it is to read.
#ifndef HOST_MONITOR_HOST_H
#define HOST_MONITOR_HOST_H

#include <string>

// What all processors together have done since the machine started, in clock ticks.
struct CpuTime {
    long long busy = 0;
    long long total = 0;
};
CpuTime readCpuTime();

// Memory, in MiB; used is what new programs could not get.
struct Memory {
    double used = 0;
    double total = 0;
};
Memory readMemory();

// The mean load over 1, 5 and 15 minutes: "0.31 0.22 0.08". One thread at a time may ask.
std::string readLoad();

// What does not change: host name, system, processors, memory.
std::string describeHost();

#endif
