// Refuses chosen allocations of the library, and counts the blocks that are in use. The program is
// linked with malloc, aligned_alloc, free, fopen64 and fsync wrapped, and with the C++ library's
// own code, whose operators new and delete then use them; so this works under the sanitizers too.
// The JSON library is reached through the functions that busClientNew hands it. The operating
// system's own memory, and thread records, are left alone.
#ifndef ZELVO_MEMORY_FAULTS_H
#define ZELVO_MEMORY_FAULTS_H

#include <atomic>
#include <utility>

namespace memory {

// The allocations of the library are counted in asked; those from number firstRefused on, up to
// endRefused, are refused.
inline constinit std::atomic<long> asked{0};
inline constinit std::atomic<long> firstRefused{0};
inline constinit std::atomic<long> endRefused{0};
// Blocks in use, whoever has allocated them.
inline constinit std::atomic<long> blocks{0};
// How often a file was to be flushed to the disk, which is not done.
inline constinit std::atomic<long> flushes{0};

inline constinit thread_local bool inLibrary = false;

// Whose code the calling thread runs, for a scope.
class Side {
public:
    explicit Side(bool library) noexcept : before_{std::exchange(inLibrary, library)} {}
    ~Side() { inLibrary = before_; }
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;

private:
    bool before_;
};

// Calls a function of the library.
template <typename Function, typename... Args>
auto lib(Function *function, Args... args) {
    const Side library{true};
    return function(args...);
}

} // namespace memory

#endif
