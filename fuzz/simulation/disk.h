// The files of a simulated world, in memory: those of the key store and of the log.
#ifndef ZELVO_SIMULATION_DISK_H
#define ZELVO_SIMULATION_DISK_H

#include <cstdint>
#include <functional>
#include <string>

namespace simulation {

inline constexpr char kLog[] = "/log";

struct Disk {
    std::uint64_t cutAt = 0; // the step of a write at which the power fails; 0: it does not
    std::function<void(std::string)> onLine{}; // of the log
};
inline Disk disk;

} // namespace simulation

#endif
