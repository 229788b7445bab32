// Refuses chosen allocations of the library, and counts the blocks that are in use. The program is
// linked with malloc, aligned_alloc, free, fopen64 and fsync wrapped, and with the C++ library's
// own code, whose operators new and delete then use them; so this works under the sanitizers too.
// The JSON library is reached through the functions that busClientNew hands it. The operating
// system's own memory, and thread records, are left alone.
#ifndef ZELVO_MEMORY_FAULTS_H
#define ZELVO_MEMORY_FAULTS_H

#include <atomic>
#include <cstdint>
#include <utility>

namespace memory {

// The allocations of the library are counted in asked; those from number firstRefused on, up to
// endRefused, are refused.
inline constinit std::atomic<std::int64_t> asked{0};
inline constinit std::atomic<std::int64_t> firstRefused{0};
inline constinit std::atomic<std::int64_t> endRefused{0};
// Blocks in use, whoever has allocated them.
inline constinit std::atomic<std::int64_t> blocks{0};

inline constinit thread_local bool inLibrary = false;

// Whose code the calling thread runs, for a scope.
struct Side {
    ~Side() { inLibrary = before; }

    const bool before;
};

// Calls a function of the library.
template <typename Function, typename... Args>
auto lib(Function *function, Args... args) {
    const Side library{std::exchange(inLibrary, true)};
    return function(args...);
}

} // namespace memory

#endif
