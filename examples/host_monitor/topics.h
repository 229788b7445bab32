// What the nodes of the host monitor tell each other, and of which types.
#ifndef HOST_MONITOR_TOPICS_H
#define HOST_MONITOR_TOPICS_H

#include <zelvo/bus.hpp>

#include <string>

inline constexpr zelvo::Topic<std::string> kHostInfo{"host.info"}; // name, system, processors
inline constexpr zelvo::Topic<double> kHostCpu{"host.cpu"};        // busy share in per cent
inline constexpr zelvo::Topic<double> kHostMemory{"host.memory"};  // MiB in use
inline constexpr zelvo::Topic<std::string> kHostLoad{"host.load"}; // "0.31 0.22 0.08"
inline constexpr zelvo::Topic<std::string> kHostError{
    "host.error"}; // why there are no more figures
// Reads the key "interval" again and answers the interval that now holds, in milliseconds.
inline constexpr zelvo::Service<std::string, long> kSamplerInterval{"/sampler/interval"};

#endif
