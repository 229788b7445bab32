#include "memory.h"

#include "scheduler.h"

#include <cstring>

#include <sys/mman.h>

extern "C" void *__real_malloc(std::size_t size);
extern "C" void __real_free(void *block);

namespace simulation {
namespace {

constexpr std::size_t kUnit = 16;
constexpr std::size_t kUnits = std::size_t{16} * 1024 * 1024; // of address space

char *reserve(std::size_t size) {
    return static_cast<char *>(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
}
char *const memory = reserve(kUnits * kUnit);
char *const live = reserve(kUnits); // for each unit, how many of its bytes are part of a block
std::size_t used = 0, blocks = 0;
std::uint64_t asked = 0;

std::size_t unitOf(const volatile void *address) {
    return static_cast<std::size_t>(static_cast<const volatile char *>(address) - memory) / kUnit;
}

// The size of a block stands in front of it.
std::size_t &sizeOf(void *block) {
    return static_cast<std::size_t *>(block)[-1];
}

void setLive(void *block, bool is) {
    const std::size_t size = sizeOf(block), first = unitOf(block);
    std::memset(live + first, is ? kUnit : 0, size / kUnit);
    if (size % kUnit > 0) {
        live[first + size / kUnit] = static_cast<char>(is ? size % kUnit : 0);
    }
}

} // namespace

void *allocate(std::size_t size, std::size_t alignment) {
    used = (used + kUnit + alignment - 1) / alignment * alignment;
    void *const block = memory + used;
    sizeOf(block) = size;
    setLive(block, true);
    used += size;
    ++blocks;
    return block;
}

void expectLive(const volatile void *address) {
    const std::size_t unit = unitOf(address);
    const std::size_t place = reinterpret_cast<std::uintptr_t>(address) % kUnit;
    expect(unit >= kUnits || place < static_cast<std::size_t>(live[unit]),
           "uses memory that is in no block");
}

void expectNothingLeft() {
    expect(blocks == 0, "leaves " + std::to_string(blocks) + " blocks of memory");
}

} // namespace simulation

using namespace simulation;

extern "C" void *__wrap_aligned_alloc(std::size_t alignment, std::size_t size) {
    if (!inLibrary()) {
        return __real_malloc(size);
    }
    unsigned &refusals = world.current->refusals;
    if (++asked == shortage.nth || world.chance.oneIn(shortage.oneIn) || refusals > 0) {
        refusals -= refusals > 0 ? 1 : 0;
        note("is refused memory");
        return nullptr;
    }
    return allocate(size, alignment);
}

extern "C" void *__wrap_malloc(std::size_t size) {
    return __wrap_aligned_alloc(kUnit, size);
}

// What a copy reads and writes is not looked at by itself.
extern "C" void *__real_memcpy(void *to, const void *from, std::size_t size);
extern "C" void *__wrap_memcpy(void *to, const void *from, std::size_t size) {
    for (const void *const at : {static_cast<const void *>(to), from}) {
        if (size > 0) {
            expectLive(at);
            expectLive(static_cast<const char *>(at) + size - 1);
        }
    }
    return __real_memcpy(to, from, size);
}

extern "C" void __wrap_free(void *block) {
    if (!block || unitOf(block) >= kUnits) {
        return __real_free(block);
    }
    expectLive(block);
    setLive(block, false);
    std::memset(block, 0xDD, sizeOf(block));
    --blocks;
}
