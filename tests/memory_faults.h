// Refuses chosen allocations of the library, and counts the blocks that are in use. The program is
// linked with malloc, free, fopen and fsync wrapped and has operators new and delete of its own, so
// this works under the sanitizers too. The JSON library is reached through the malloc and free that
// busClientNew hands it. The operating system's own memory, and thread records, are left alone.
#ifndef ZELVO_MEMORY_FAULTS_H
#define ZELVO_MEMORY_FAULTS_H

namespace memory {

// Whose code the calling thread runs, for a scope: only the library's allocations are counted and
// refused.
class Side {
public:
    explicit Side(bool library) noexcept;
    ~Side();
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;

private:
    bool before_;
};

// Counts from 1 again, and refuses span allocations from number first on.
void refuse(long first, long span) noexcept;
void refuseNothing() noexcept;
// How many allocations the library has asked for since.
long asked() noexcept;
// Blocks in use, whoever has allocated them.
long blocks() noexcept;
// How often a file was to be flushed to the disk, which is not done.
long flushes() noexcept;

} // namespace memory

#endif
