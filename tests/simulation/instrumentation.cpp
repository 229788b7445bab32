// The library is compiled for the thread sanitizer and linked with these functions instead of that
// one's own: each atomic operation is a place where another thread may go on, and each access to
// memory is looked at. Operations take place one after the other, in the strongest order.
#include "memory.h"
#include "scheduler.h"

using simulation::expectLive;
using simulation::world;

namespace {

// Only one thread runs, so these are whole without more.
template <typename Word>
Word load(const volatile Word *word) {
    world.point();
    expectLive(word);
    return *word;
}

template <typename Word>
Word change(volatile Word *word, Word result) {
    return std::exchange(*const_cast<Word *>(word), result);
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

extern "C" {

void __tsan_init() {}
void __tsan_func_entry(void * /*caller*/) {}
void __tsan_func_exit() {}

// clang-format off
#define ZELVO_ACCESS(name, ...) void __tsan_##name(const void *at __VA_ARGS__) { expectLive(at); }
#define ZELVO_ACCESSES(size) \
    ZELVO_ACCESS(read##size) ZELVO_ACCESS(write##size) ZELVO_ACCESS(unaligned_read##size) ZELVO_ACCESS(unaligned_write##size)
ZELVO_ACCESSES(1) ZELVO_ACCESSES(2) ZELVO_ACCESSES(4) ZELVO_ACCESSES(8) ZELVO_ACCESSES(16)
ZELVO_ACCESS(vptr_read) ZELVO_ACCESS(vptr_update, , void *)
ZELVO_ACCESS(read_range, , unsigned long) ZELVO_ACCESS(write_range, , unsigned long)

#define ZELVO_CHANGE(bits, Word, name, result) \
    Word __tsan_atomic##bits##_##name(volatile Word *word, Word value, int) { \
        [[maybe_unused]] const Word before = load(word); \
        return change(word, static_cast<Word>(result)); \
    }
#define ZELVO_EXCHANGE(bits, Word, name, weak) \
    int __tsan_atomic##bits##_compare_exchange_##name(volatile Word *word, Word *expected, Word value, int, int) { \
        return exchange(word, expected, value, weak); \
    }
#define ZELVO_ATOMIC(bits, Word) \
    Word __tsan_atomic##bits##_load(const volatile Word *word, int) { return load(word); } \
    ZELVO_CHANGE(bits, Word, store, value) ZELVO_CHANGE(bits, Word, exchange, value) \
    ZELVO_CHANGE(bits, Word, fetch_add, before + value) ZELVO_CHANGE(bits, Word, fetch_sub, before - value) \
    ZELVO_CHANGE(bits, Word, fetch_and, before & value) ZELVO_CHANGE(bits, Word, fetch_or, before | value) \
    ZELVO_EXCHANGE(bits, Word, strong, false) ZELVO_EXCHANGE(bits, Word, weak, true) \
    Word __tsan_atomic##bits##_compare_exchange_val(volatile Word *word, Word expected, Word value, int, int) { \
        return exchange(word, &expected, value, false), expected; \
    }
ZELVO_ATOMIC(8, unsigned char) ZELVO_ATOMIC(16, unsigned short) ZELVO_ATOMIC(32, unsigned int) ZELVO_ATOMIC(64, unsigned long)
// clang-format on
}
