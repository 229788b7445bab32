// What the library asks of its surroundings, and the simulated world answers: waiting and yielding
// by its scheduler, time by its clock, memory by blocks that it looks after. Files are real ones in
// a directory of the program's own, but for the log, whose lines go to the model.
//
// The library is compiled for the thread sanitizer and linked with these functions instead of that
// one's own: each atomic operation is a place where another thread may go on, and each access to
// memory is looked at. Operations take place one after the other, in the strongest order.
#include "model.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <linux/futex.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace simulation {
namespace {

constexpr std::size_t kSize = std::size_t{256} * 1024 * 1024; // of address space
alignas(std::max_align_t) char memory[kSize];
char live[kSize]; // for each of its bytes, whether that is part of a block
std::size_t used = 0, asked = 0;

// By a loss of power: not all of what was written is on the disk. The key store writes one file at
// a time.
bool fileIsLost = false;

std::size_t placeOf(const volatile void *address) {
    return static_cast<std::size_t>(static_cast<const volatile char *>(address) - memory);
}

// Fails where any of these bytes lies in the library's memory, and in no block that it has.
void expectLive(const volatile void *address, std::size_t size = 1) {
    const std::size_t first = placeOf(address);
    expect(first >= kSize || size == 0 || (live[first] && live[first + size - 1]),
           "uses memory that is in no block");
}

// Only one thread runs, so these are whole without more. A weak exchange may fail without a reason.
template <typename Word>
Word load(const volatile Word *word) {
    world.point();
    expectLive(word);
    return *word;
}
template <typename Word>
int exchange(volatile Word *word, Word *expected, Word value, bool weak) {
    const Word before = load(word), wanted = std::exchange(*expected, before);
    const bool done = before == wanted && !(weak && world.chance.oneIn(64));
    *word = done ? value : before;
    return done;
}

bool diskFails() {
    const bool does = world.current->inLibrary && world.chance.oneIn(shortage.disk);
    if (does) {
        note("the disk fails");
        errno = ENOSPC;
    }
    return does;
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

} // namespace simulation

using namespace simulation;

extern "C" {

void *__real_malloc(std::size_t size);
void *__wrap_aligned_alloc(std::size_t alignment, std::size_t size) {
    if (!world.current || !world.current->inLibrary) {
        return __real_malloc(size);
    }
    if (++asked == shortage.nth || world.chance.oneIn(shortage.oneIn)) {
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

long __wrap_syscall(long number, const std::uint32_t *word, long operation, std::uint32_t value,
                    const timespec *limit) {
    if (number != SYS_futex) {
        return 1; // a thread's number, for the log
    }
    world.point();
    if ((operation & FUTEX_CMD_MASK) == FUTEX_WAKE) {
        world.wake(word, value > 1);
    } else if (*word == value && !world.chance.oneIn(32)) { // some sleeps end at once, for nothing
        const long time = limit ? limit->tv_sec * 1'000'000'000 + limit->tv_nsec : 0;
        world.sleepOn(word, limit ? world.now() + static_cast<std::uint64_t>(time) : kNever);
    }
    return 0;
}

int __wrap_sched_yield() {
    world.yield();
    return 0;
}

int __wrap_clock_gettime(clockid_t /*clock*/, timespec *time) {
    const auto now = static_cast<long>(world.now());
    *time = {now / 1'000'000'000, now % 1'000'000'000};
    return 0;
}

std::FILE *__real_fopen(const char *path, const char *mode);
std::FILE *__wrap_fopen(const char *path, const char *mode) {
    return diskFails() ? nullptr : __real_fopen(path, mode);
}

// Only the log writes so.
std::size_t __wrap_fwrite(const char *line, std::size_t /*unit*/, std::size_t size, FILE *) {
    const InLibrary no{false};
    readLine({line, size});
    return size;
}

ssize_t __real_write(int file, const void *data, std::size_t size);
ssize_t __wrap_write(int file, const void *data, std::size_t size) {
    fileIsLost = true;
    return diskFails() ? -1 : __real_write(file, data, size);
}

int __wrap_fsync(int file) {
    struct stat status {};
    fstat(file, &status);
    (S_ISDIR(status.st_mode) ? nameIsLost : fileIsLost) = false;
    return 0;
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to) {
    expect(!fileIsLost, "gives its name to a file that a loss of power would tear");
    nameIsLost = true;
    return diskFails() ? -1 : __real_rename(from, to);
}

void __tsan_init() {}
void __tsan_func_entry(void * /*caller*/) {}
void __tsan_func_exit() {}

// clang-format off
#define ZELVO_ACCESS(name) void __tsan_##name(const void *at) { expectLive(at); }
#define ZELVO_ACCESSES(size) ZELVO_ACCESS(read##size) ZELVO_ACCESS(write##size) \
    ZELVO_ACCESS(unaligned_read##size) ZELVO_ACCESS(unaligned_write##size)
#define ZELVO_RANGES(access) \
    void __tsan_##access##_range(const void *at, std::size_t size) { expectLive(at, size); }
ZELVO_ACCESSES(1) ZELVO_ACCESSES(2) ZELVO_ACCESSES(4) ZELVO_ACCESSES(8) ZELVO_ACCESSES(16)
ZELVO_ACCESS(vptr_read) ZELVO_ACCESS(vptr_update) ZELVO_RANGES(read) ZELVO_RANGES(write)

#define ZELVO_CHANGE(bits, Word, name, result) \
    Word __tsan_atomic##bits##_##name(volatile Word *word, Word value, int) { \
        const Word before = load(word); \
        *word = static_cast<Word>(result); \
        return before; \
    }
#define ZELVO_EXCHANGE(bits, Word, name, weak) \
    int __tsan_atomic##bits##_##name(volatile Word *word, Word *expected, Word value, int, int) { \
        return exchange(word, expected, value, weak); \
    }
#define ZELVO_ATOMIC(bits, Word) \
    Word __tsan_atomic##bits##_load(const volatile Word *word, int) { return load(word); } \
    ZELVO_CHANGE(bits, Word, store, value) ZELVO_CHANGE(bits, Word, exchange, value) \
    ZELVO_CHANGE(bits, Word, fetch_add, before + value) \
    ZELVO_CHANGE(bits, Word, fetch_sub, before - value) \
    ZELVO_CHANGE(bits, Word, fetch_and, before & value) \
    ZELVO_EXCHANGE(bits, Word, compare_exchange_strong, false) \
    ZELVO_EXCHANGE(bits, Word, compare_exchange_weak, true) \
    Word __tsan_atomic##bits##_compare_exchange_val(volatile Word *word, Word expected, \
                                                    Word value, int, int) { \
        return exchange(word, &expected, value, false), expected; \
    }
ZELVO_ATOMIC(8, unsigned char) ZELVO_ATOMIC(32, unsigned int) ZELVO_ATOMIC(64, unsigned long)
// clang-format on
}
