#include "memory.h"

#include "scheduler.h"

#include <cstring>
#include <new>

#include <sys/mman.h>

extern "C" void *__real_malloc(std::size_t size);
extern "C" void __real_free(void *block);

namespace simulation {
namespace {

constexpr std::size_t kUnit = 16;
constexpr std::size_t kSize = std::size_t{256} * 1024 * 1024; // of address space

char *reserve(std::size_t size) {
    return static_cast<char *>(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
}
char *const memory = reserve(kSize);
char *const live = reserve(kSize / kUnit); // for each unit, whether it is part of a block
std::size_t used = 0, blocks = 0;
std::uint64_t asked = 0;

std::size_t unitOf(const volatile void *address) {
    return static_cast<std::size_t>(static_cast<const volatile char *>(address) - memory) / kUnit;
}

// The size of a block stands in front of it.
std::size_t &sizeOf(void *block) {
    return static_cast<std::size_t *>(block)[-1];
}

void setLive(void *block, int is) {
    std::memset(live + unitOf(block), is, (sizeOf(block) + kUnit - 1) / kUnit);
}

void *allocateFor(std::size_t size, std::size_t alignment = kUnit) {
    if (!inLibrary()) {
        return __real_malloc(size);
    }
    const bool refused = ++asked == shortage.nth || world.chance.oneIn(shortage.oneIn);
    refused ? note("is refused memory") : void();
    return refused ? nullptr : allocate(size, alignment);
}

void *orThrow(void *block) {
    return block ? block : throw std::bad_alloc{};
}

void release(void *block) {
    if (!block || unitOf(block) >= kSize / kUnit) {
        return __real_free(block);
    }
    expectLive(block);
    setLive(block, 0);
    std::memset(block, 0xDD, sizeOf(block));
    --blocks;
}

} // namespace

void *allocate(std::size_t size, std::size_t alignment) {
    used = (used + kUnit + alignment - 1) / alignment * alignment;
    void *const block = memory + used;
    sizeOf(block) = size;
    setLive(block, 1);
    used += (size + kUnit - 1) / kUnit * kUnit;
    ++blocks;
    return block;
}

void expectLive(const volatile void *address) {
    const std::size_t unit = unitOf(address);
    unit >= kSize / kUnit || live[unit] != 0 ? void() : fail("uses memory that is free");
}

void expectNothingLeft() {
    blocks == 0 ? void() : fail("leaves " + std::to_string(blocks) + " blocks of memory");
}

} // namespace simulation

using namespace simulation;

extern "C" void *__wrap_malloc(std::size_t size) {
    return allocateFor(size);
}
extern "C" void __wrap_free(void *block) {
    release(block);
}
void *operator new(std::size_t size) {
    return orThrow(allocateFor(size));
}
void *operator new(std::size_t size, const std::nothrow_t & /*no*/) noexcept {
    return allocateFor(size);
}
void *operator new(std::size_t size, std::align_val_t to, const std::nothrow_t & /*no*/) noexcept {
    return allocateFor(size, static_cast<std::size_t>(to));
}
void operator delete(void *block) noexcept {
    release(block);
}
void operator delete(void *block, std::size_t /*size*/) noexcept {
    release(block);
}
void operator delete(void *block, std::align_val_t /*to*/) noexcept {
    release(block);
}
void operator delete(void *block, std::size_t /*size*/, std::align_val_t /*to*/) noexcept {
    release(block);
}
