// The library's memory, and its atomic operations. It is compiled for the thread sanitizer and
// linked with these functions instead of that one's own: each atomic operation is a place where
// another thread may go on, and each access to memory is looked at. Operations take place one after
// the other, in the strongest order.
#include "world.h"

#include <cstddef>
#include <cstring>

#include <sys/mman.h>

namespace simulation {
namespace {

constexpr std::size_t kSize = std::size_t{256} * 1024 * 1024; // of address space

char *reserve() {
    return static_cast<char *>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
}
char *const memory = reserve();
char *const live = reserve(); // for each of its bytes, whether that is part of a block
std::size_t used = 0, blocks = 0;
std::uint64_t asked = 0;

std::size_t placeOf(const volatile void *address) {
    return static_cast<std::size_t>(static_cast<const volatile char *>(address) - memory);
}

// Fails where any of these bytes lies in the library's memory, and in no block that it has.
void expectLive(const volatile void *address, std::size_t size = 1) {
    const std::size_t first = placeOf(address);
    expect(first >= kSize || size == 0 || (live[first] && live[first + size - 1]),
           "uses memory that is in no block");
}

// ---- atomic operations: only one thread runs, so these are whole without more ----

template <typename Word>
Word load(const volatile Word *word) {
    world.point();
    expectLive(word);
    return *word;
}

// A weak exchange may fail without a reason.
template <typename Word>
int exchange(volatile Word *word, Word *expected, Word value, bool weak) {
    const Word before = load(word);
    const bool done = before == *expected && !(weak && world.current && world.chance.oneIn(64));
    *word = done ? value : before;
    *expected = before;
    return done;
}

} // namespace

void *allocate(std::size_t size, std::size_t alignment) {
    used = (used + alignment) / alignment * alignment; // behind at least one byte that is in none
    void *const block = memory + used;
    std::memset(live + used, 1, size);
    used += size;
    ++blocks;
    return block;
}

void expectNothingLeft() {
    expect(blocks == 0, "leaves " + std::to_string(blocks) + " blocks of memory");
}

} // namespace simulation

using namespace simulation;

extern "C" {

void *__real_malloc(std::size_t size);
void *__wrap_aligned_alloc(std::size_t alignment, std::size_t size) {
    if (!inLibrary()) {
        return __real_malloc(size);
    }
    if (++asked == shortage.nth || world.chance.oneIn(shortage.oneIn) || shortage.next > 0) {
        shortage.next -= std::min(shortage.next, 1U);
        note("is refused memory");
        return nullptr;
    }
    return allocate(size, alignment);
}

void *__wrap_malloc(std::size_t size) {
    return __wrap_aligned_alloc(alignof(std::max_align_t), size);
}

void __real_free(void *block);
void __wrap_free(void *block) {
    if (!block || placeOf(block) >= kSize) {
        return __real_free(block);
    }
    expectLive(block);
    char *const lives = live + placeOf(block);
    std::memset(block, 0xDD, std::strlen(lives));
    std::memset(lives, 0, std::strlen(lives));
    --blocks;
}

// What a copy reads and writes is not looked at by itself.
void *__real_memcpy(void *to, const void *from, std::size_t size);
void *__wrap_memcpy(void *to, const void *from, std::size_t size) {
    expectLive(to, size);
    expectLive(from, size);
    return __real_memcpy(to, from, size);
}

void __tsan_init() {}
void __tsan_func_entry(void * /*caller*/) {}
void __tsan_func_exit() {}

// clang-format off
#define ZELVO_ACCESS(name) void __tsan_##name(const void *at) { expectLive(at); }
#define ZELVO_ACCESSES(bytes) ZELVO_ACCESS(read##bytes) ZELVO_ACCESS(write##bytes) \
    ZELVO_ACCESS(unaligned_read##bytes) ZELVO_ACCESS(unaligned_write##bytes)
ZELVO_ACCESSES(1) ZELVO_ACCESSES(2) ZELVO_ACCESSES(4) ZELVO_ACCESSES(8) ZELVO_ACCESSES(16)
ZELVO_ACCESS(vptr_read)
void __tsan_vptr_update(const void *at, void * /*value*/) { expectLive(at); }
void __tsan_read_range(const void *at, std::size_t size) { expectLive(at, size); }
void __tsan_write_range(const void *at, std::size_t size) { expectLive(at, size); }

#define ZELVO_CHANGE(bits, Word, name, result) \
    Word __tsan_atomic##bits##_##name(volatile Word *word, Word value, int) { \
        const Word before = load(word); \
        *word = static_cast<Word>(result); \
        return before; \
    }
#define ZELVO_ATOMIC(bits, Word) \
    Word __tsan_atomic##bits##_load(const volatile Word *word, int) { return load(word); } \
    ZELVO_CHANGE(bits, Word, store, value) ZELVO_CHANGE(bits, Word, exchange, value) \
    ZELVO_CHANGE(bits, Word, fetch_add, before + value) \
    ZELVO_CHANGE(bits, Word, fetch_sub, before - value) \
    ZELVO_CHANGE(bits, Word, fetch_and, before & value) \
    int __tsan_atomic##bits##_compare_exchange_strong(volatile Word *word, Word *expected, \
                                                      Word value, int, int) { \
        return exchange(word, expected, value, false); \
    } \
    int __tsan_atomic##bits##_compare_exchange_weak(volatile Word *word, Word *expected, \
                                                    Word value, int, int) { \
        return exchange(word, expected, value, true); \
    }
ZELVO_ATOMIC(8, unsigned char) ZELVO_ATOMIC(32, unsigned int) ZELVO_ATOMIC(64, unsigned long)
// clang-format on
}
