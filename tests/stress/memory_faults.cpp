#include "memory_faults.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

extern "C" {
void *__real_malloc(std::size_t size);
void __real_free(void *block);
std::FILE *__real_fopen(const char *path, const char *mode);
}

namespace memory {
namespace {

bool isRefused() noexcept {
    const long number = inLibrary ? ++asked : 0;
    return number >= firstRefused && number < endRefused;
}

void *allocate(std::size_t size, std::align_val_t alignment = {}) noexcept {
    if (isRefused()) {
        return nullptr;
    }
    const auto unit = static_cast<std::size_t>(alignment);
    void *const block =
        unit == 0 ? __real_malloc(size) : std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
    blocks += block ? 1 : 0;
    return block;
}

void release(void *block) noexcept {
    blocks -= block ? 1 : 0;
    __real_free(block);
}

} // namespace
} // namespace memory

extern "C" {
void *__wrap_malloc(std::size_t size) {
    return memory::allocate(size);
}
void __wrap_free(void *block) {
    memory::release(block);
}
// A stream needs memory, like anything else.
std::FILE *__wrap_fopen(const char *path, const char *mode) {
    errno = ENOMEM;
    return memory::isRefused() ? nullptr : __real_fopen(path, mode);
}
// Thousands of runs do not wait for the disk.
int __wrap_fsync(int /*file*/) {
    ++memory::flushes;
    return 0;
}
}

// All of them: those of a sanitizer's runtime do not call each other.
void *operator new(std::size_t size) {
    if (void *const block = memory::allocate(size)) {
        return block;
    }
    throw std::bad_alloc{};
}
void *operator new(std::size_t size, const std::nothrow_t & /*tag*/) noexcept {
    return memory::allocate(size);
}
void *operator new(std::size_t size, std::align_val_t unit, const std::nothrow_t & /*t*/) noexcept {
    return memory::allocate(size, unit);
}
void operator delete(void *block) noexcept {
    memory::release(block);
}
void operator delete(void *block, std::size_t /*size*/) noexcept {
    memory::release(block);
}
void operator delete(void *block, std::align_val_t /*unit*/) noexcept {
    memory::release(block);
}
void operator delete(void *block, std::size_t /*size*/, std::align_val_t /*unit*/) noexcept {
    memory::release(block);
}
