// What the platform layer and the C++ library ask of the operating system, and the simulated world
// answers: waiting and yielding by its scheduler, time by its clock. Files are real ones in a
// directory of the program's own, but for the log, whose lines go to the model.
#include "model.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

#include <linux/futex.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace simulation;

namespace {

constexpr std::uint64_t kSecond = 1000 * kMillisecond;

// By a loss of power: not all of what was written is on the disk. The key store writes one file at
// a time.
bool fileIsLost = false;

bool diskFails() {
    const bool does = inLibrary() && world.chance.oneIn(shortage.disk);
    if (does) {
        note("the disk fails");
        errno = ENOSPC;
    }
    return does;
}

} // namespace

extern "C" {

long __real_syscall(long number, ...);
long __wrap_syscall(long number, const std::uint32_t *word, long operation, std::uint32_t value,
                    const timespec *limit) {
    if (number != SYS_futex) {
        return __real_syscall(number, word, operation, value, limit);
    }
    world.point();
    if ((operation & FUTEX_CMD_MASK) == FUTEX_WAKE) {
        world.wake(word, value > 1);
    } else if (*word == value && !world.chance.oneIn(32)) { // some sleeps end at once, for nothing
        const long long time = limit ? limit->tv_sec * 1'000'000'000LL + limit->tv_nsec : 0;
        world.sleepOn(word, limit ? world.now() + static_cast<std::uint64_t>(time) : kNever);
    }
    return 0;
}

int __wrap_sched_yield() {
    world.yield();
    return 0;
}

int __wrap_clock_gettime(clockid_t /*clock*/, timespec *time) {
    *time = {static_cast<time_t>(world.now() / kSecond), static_cast<long>(world.now() % kSecond)};
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
    world.point();
    fstat(file, &status);
    (S_ISDIR(status.st_mode) ? nameIsLost : fileIsLost) = false;
    return 0;
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to) {
    world.point();
    expect(!fileIsLost, "gives its name to a file that a loss of power would tear");
    nameIsLost = true;
    return diskFails() ? -1 : __real_rename(from, to);
}
}
