#include "platform/platform.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef __linux__
#error "waitWord and wake* use Linux futexes; another POSIX kernel needs its own pair here"
#endif

namespace platform {
namespace {

struct Thread {
    ThreadBody body;
    void *arg;
    pthread_t handle;
};

void *runThread(void *thread) {
    const auto *self = static_cast<Thread *>(thread);
    self->body(self->arg);
    return nullptr;
}

std::size_t roundedStack(std::size_t wanted) noexcept {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const auto least = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    const std::size_t size = std::max(wanted, least);
    return (size + page - 1) / page * page;
}

// The futex operates on the bare 32-bit integer inside the atomic.
static_assert(sizeof(Word) == sizeof(std::uint32_t) && Word::is_always_lock_free);

long futex(Word &word, int operation, std::uint32_t value) noexcept {
    return syscall(SYS_futex, static_cast<void *>(&word), operation | FUTEX_PRIVATE_FLAG, value,
                   nullptr, nullptr, 0);
}

} // namespace

void waitWord(Word &word, std::uint32_t expected) noexcept {
    futex(word, FUTEX_WAIT, expected);
}

void wakeOne(Word &word) noexcept {
    futex(word, FUTEX_WAKE, 1);
}

void wakeAll(Word &word) noexcept {
    futex(word, FUTEX_WAKE, INT_MAX);
}

void yieldThread() noexcept {
    sched_yield();
}

std::uint32_t threadId() noexcept {
    return static_cast<std::uint32_t>(syscall(SYS_gettid));
}

std::uint32_t processId() noexcept {
    return static_cast<std::uint32_t>(getpid());
}

void *threadStart(ThreadBody body, void *arg, std::size_t stack) noexcept {
    std::unique_ptr<Thread> thread{new (std::nothrow) Thread{body, arg, {}}};
    pthread_attr_t attributes;
    if (!thread || pthread_attr_init(&attributes) != 0) {
        return nullptr;
    }
    int result = stack == 0 ? 0 : pthread_attr_setstacksize(&attributes, roundedStack(stack));
    if (result == 0) {
        result = pthread_create(&thread->handle, &attributes, runThread, thread.get());
    }
    pthread_attr_destroy(&attributes);
    return result == 0 ? thread.release() : nullptr;
}

void threadJoin(void *handle) noexcept {
    const std::unique_ptr<Thread> thread{static_cast<Thread *>(handle)};
    if (thread) {
        pthread_join(thread->handle, nullptr);
    }
}

} // namespace platform
