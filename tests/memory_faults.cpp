#include "memory_faults.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>

extern "C" {
void *__real_malloc(std::size_t size);
void __real_free(void *block);
std::FILE *__real_fopen(const char *path, const char *mode);
}

namespace memory {
namespace {

constexpr long kNever = std::numeric_limits<long>::max();

constinit thread_local bool inLibrary = false;
constinit std::atomic<long> askedFor{0};
constinit std::atomic<long> firstRefused{kNever};
constinit std::atomic<long> lastRefused{kNever};
constinit std::atomic<long> inUse{0};
constinit std::atomic<long> flushed{0};

bool isRefused() noexcept {
    if (!inLibrary) {
        return false;
    }
    const long number = 1 + askedFor.fetch_add(1);
    return number >= firstRefused.load() && number <= lastRefused.load();
}

void *counted(void *block) noexcept {
    inUse += block ? 1 : 0;
    return block;
}

void release(void *block) noexcept {
    inUse -= block ? 1 : 0;
    __real_free(block);
}

void *allocate(std::size_t size) noexcept {
    return isRefused() ? nullptr : counted(__real_malloc(size));
}

void *allocate(std::size_t size, std::align_val_t alignment) noexcept {
    const auto unit = static_cast<std::size_t>(alignment);
    return isRefused() ? nullptr
                       : counted(std::aligned_alloc(unit, (size + unit - 1) / unit * unit));
}

void *orThrow(void *block) {
    if (!block) {
        throw std::bad_alloc{};
    }
    return block;
}

} // namespace

Side::Side(bool library) noexcept : before_{inLibrary} {
    inLibrary = library;
}

Side::~Side() {
    inLibrary = before_;
}

void refuse(long first, long span) noexcept {
    askedFor = 0;
    firstRefused = first;
    lastRefused = first + span - 1;
}

void refuseNothing() noexcept {
    firstRefused = kNever;
}

long asked() noexcept {
    return askedFor;
}

long blocks() noexcept {
    return inUse;
}

long flushes() noexcept {
    return flushed;
}

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
    if (memory::isRefused()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_fopen(path, mode);
}

// Thousands of runs do not wait for the disk.
int __wrap_fsync(int /*file*/) {
    ++memory::flushed;
    return 0;
}
}

void *operator new(std::size_t size) {
    return memory::orThrow(memory::allocate(size));
}
void *operator new(std::size_t size, const std::nothrow_t & /*tag*/) noexcept {
    return memory::allocate(size);
}
void *operator new(std::size_t size, std::align_val_t alignment) {
    return memory::orThrow(memory::allocate(size, alignment));
}
void *operator new(std::size_t size, std::align_val_t alignment,
                   const std::nothrow_t & /*tag*/) noexcept {
    return memory::allocate(size, alignment);
}
void operator delete(void *block) noexcept {
    memory::release(block);
}
void operator delete(void *block, std::size_t /*size*/) noexcept {
    memory::release(block);
}
void operator delete(void *block, std::align_val_t /*alignment*/) noexcept {
    memory::release(block);
}
void operator delete(void *block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    memory::release(block);
}
