#include "memory_faults.h"

#include <cerrno>
#include <cstdio>

namespace {

// Whether the next allocation is to fail, as an allocation of the system fails.
bool isRefused() {
    const std::int64_t number = memory::inLibrary ? ++memory::asked : 0;
    const bool refused = number >= memory::firstRefused && number < memory::endRefused;
    errno = refused ? ENOMEM : errno;
    return refused;
}

void *counted(void *block) {
    memory::blocks += block ? 1 : 0;
    return block;
}

} // namespace

extern "C" {

void *__real_malloc(std::size_t size);
void *__real_aligned_alloc(std::size_t alignment, std::size_t size);
void __real_free(void *block);
std::FILE *__real_fopen64(const char *path, const char *mode);

void *__wrap_malloc(std::size_t size) {
    return isRefused() ? nullptr : counted(__real_malloc(size));
}
void *__wrap_aligned_alloc(std::size_t alignment, std::size_t size) {
    return isRefused() ? nullptr : counted(__real_aligned_alloc(alignment, size));
}
void __wrap_free(void *block) {
    memory::blocks -= block ? 1 : 0;
    __real_free(block);
}
// A stream needs memory, like anything else. The modules are compiled for files of any size.
std::FILE *__wrap_fopen64(const char *path, const char *mode) {
    return isRefused() ? nullptr : __real_fopen64(path, mode);
}
// Thousands of runs do not wait for the disk.
int __wrap_fsync(int /*file*/) {
    return 0;
}
}
