#include "bus_mk_thread.h"

#include "bus_mk_assert.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>

namespace {

// States of hMutex. A mutex is contended from the moment somebody sleeps for it, or may.
enum : std::uint32_t { kFree = bus_mk_thread_mutex_ready, kOwned, kContended };

// cond: bit 0 tells that the record is initialised, the next two are the states below, and the
// rest counts signals, so that a waiter recognises one that another waiter has cleared already.
enum : std::uint32_t { kLive = 1, kSet = 2, kSleepers = 4, kSignal = 8 };

std::uint32_t signalsOf(std::uint32_t cond) noexcept {
    return cond / kSignal;
}

// What the word holds when it is to be slept on: the event is not set and no signal has come. It
// then tells that somebody sleeps. 0: the wait is over.
std::uint32_t sleepWord(platform::Word &word, std::uint32_t signals) noexcept {
    std::uint32_t seen = word.load(std::memory_order_acquire);
    while ((seen & kSet) == 0 && signalsOf(seen) == signals) {
        if ((seen & kSleepers) != 0 ||
            word.compare_exchange_weak(seen, seen | kSleepers, std::memory_order_acquire)) {
            return seen | kSleepers;
        }
    }
    return 0;
}

// The steps of a wait; sleep(word, expected, signals) is the sleeping itself.
template <typename Sleep>
void waitFor(bus_mk_thread_cond_t *cond, bus_mk_thread_mutex_t *mutex, Sleep sleep) noexcept
    BUS_MK_REQUIRES(mutex) {
    platform::Word &word = cond->cond;
    const std::uint32_t signals = signalsOf(word.load(std::memory_order_relaxed));
    bus_mk_thread_mutex_unlock(mutex);
    sleep(word, signals);
    bus_mk_thread_mutex_lock(mutex);
    word.fetch_and(~static_cast<std::uint32_t>(kSet), std::memory_order_relaxed);
}

// How long a yield takes when others keep the processor, and for how long none is tried then, in
// nanoseconds.
constexpr std::int64_t kLongYield = 1'000'000;
constexpr std::int64_t kFirstPause = 2'000'000;
constexpr std::int64_t kLongestPause = 1'000'000'000;
std::atomic<std::int64_t> yieldsAgain{0}; // when the next one is tried
std::atomic<std::int64_t> yieldsPause{0}; // the latest pause; it shrinks with each short yield

std::int64_t nanoseconds() noexcept {
    return std::chrono::nanoseconds{std::chrono::steady_clock::now().time_since_epoch()}.count();
}

constexpr int kShortLooks = 32;
constexpr int kLooks = 4;

bool tryLock(platform::Word &word) noexcept {
    std::uint32_t expected = kFree;
    return word.compare_exchange_strong(expected, kOwned, std::memory_order_acquire,
                                        std::memory_order_relaxed);
}

// Whether the mutex could be taken within a few looks: it is mostly held for less time than falling
// asleep and being woken cost, often for less than giving up the processor does.
bool lockedSoon(platform::Word &word) noexcept {
    if (tryLock(word)) {
        return true;
    }
    for (int look = 0; look < kShortLooks && word.load(std::memory_order_relaxed) != kFree;
         ++look) {
        platform::relax();
    }
    for (int look = 0; look < kLooks; ++look) {
        if (tryLock(word)) {
            return true;
        }
        if (!bus_mk_thread_yield()) {
            return false;
        }
    }
    return false;
}

struct bus_mk_thread_attr_t {
    bus_mk_thread_run func;
    void *arg;
};

void _run(void *attr) {
    const std::unique_ptr<bus_mk_thread_attr_t> start{static_cast<bus_mk_thread_attr_t *>(attr)};
    start->func(start->arg);
}

} // namespace

int bus_mk_thread_mutex_init(bus_mk_thread_mutex_t *mutex) noexcept {
    mutex->hMutex.store(kFree, std::memory_order_release);
    return 0;
}

int bus_mk_thread_mutex_destroy(bus_mk_thread_mutex_t *mutex) noexcept {
    mutex->hMutex.store(bus_mk_thread_mutex_none, std::memory_order_relaxed);
    return 0;
}

int bus_mk_thread_mutex_lock(bus_mk_thread_mutex_t *mutex) noexcept BUS_MK_UNCHECKED {
    platform::Word &word = mutex->hMutex;
    if (lockedSoon(word)) {
        return 0;
    }
    // Taken as contended from here on: this thread cannot know whether others still sleep.
    while (word.exchange(kContended, std::memory_order_acquire) != kFree) {
        platform::waitWord(word, kContended);
    }
    return 0;
}

int bus_mk_thread_mutex_unlock(bus_mk_thread_mutex_t *mutex) noexcept BUS_MK_UNCHECKED {
    if (mutex->hMutex.exchange(kFree, std::memory_order_release) == kContended) {
        platform::wakeOne(mutex->hMutex);
    }
    return 0;
}

int bus_mk_thread_cond_init(bus_mk_thread_cond_t *cond) noexcept {
    cond->cond.store(kLive, std::memory_order_release);
    return 0;
}

int bus_mk_thread_cond_destroy(bus_mk_thread_cond_t *cond) noexcept {
    cond->cond.store(0, std::memory_order_relaxed);
    return 0;
}

int bus_mk_thread_cond_wait(bus_mk_thread_cond_t *cond, bus_mk_thread_mutex_t *mutex) noexcept {
    waitFor(cond, mutex, [](platform::Word &word, std::uint32_t signals) {
        while (const std::uint32_t seen = sleepWord(word, signals)) {
            platform::waitWord(word, seen);
        }
    });
    return 0;
}

// One sleep, whatever ends it: a caller that waits for a time looks again anyway.
int bus_mk_thread_cond_wait_for(bus_mk_thread_cond_t *cond, bus_mk_thread_mutex_t *mutex,
                                std::uint32_t milliseconds) noexcept {
    waitFor(cond, mutex, [milliseconds](platform::Word &word, std::uint32_t signals) {
        if (const std::uint32_t seen = sleepWord(word, signals)) {
            platform::waitWordFor(word, seen, milliseconds);
        }
    });
    return 0;
}

int bus_mk_thread_cond_signal(bus_mk_thread_cond_t *cond) noexcept {
    std::uint32_t seen = cond->cond.load(std::memory_order_relaxed);
    while (!cond->cond.compare_exchange_weak(
        seen, ((seen | kSet) & ~static_cast<std::uint32_t>(kSleepers)) + kSignal,
        std::memory_order_release, std::memory_order_relaxed)) {}
    if ((seen & kSleepers) != 0) {
        platform::wakeAll(cond->cond);
    }
    return 0;
}

// A thread that yields to one which never sleeps gets the processor back when that one's time is
// up, after milliseconds; one that sleeps is let in as soon as it is woken.
bool bus_mk_thread_yield() noexcept {
    const std::int64_t before = nanoseconds();
    if (before < yieldsAgain.load(std::memory_order_relaxed)) {
        return false;
    }
    platform::yieldThread();
    const std::int64_t after = nanoseconds();
    if (before < yieldsAgain.load(std::memory_order_relaxed)) {
        return true; // several threads wait for the processor at once: one of them has told it
    }
    std::int64_t pause = yieldsPause.load(std::memory_order_relaxed);
    if (after - before > kLongYield) {
        pause = std::min(2 * pause + kFirstPause, kLongestPause);
        yieldsPause.store(pause, std::memory_order_relaxed);
        yieldsAgain.store(after + pause, std::memory_order_relaxed);
    } else if (pause > 0) {
        yieldsPause.store(pause - pause / 16 - 1, std::memory_order_relaxed);
    }
    return true;
}

int bus_mk_thread_init(bus_mk_thread_t *thread) noexcept {
    *thread = {};
    return 0;
}

bus_mk_thread_t bus_mk_thread_self() noexcept {
    return {nullptr, platform::threadId(), {}};
}

int bus_mk_thread_equal(const bus_mk_thread_t *a, const bus_mk_thread_t *b) noexcept {
    return a->id == b->id ? 1 : 0;
}

int bus_mk_thread_create(bus_mk_thread_t *thread, bus_mk_thread_run func, void *arg) noexcept {
    std::unique_ptr<bus_mk_thread_attr_t> bus_mk_attr{new (std::nothrow)
                                                          bus_mk_thread_attr_t{func, arg}};
    BUS_MK_ASSERT(bus_mk_attr, "bus_mk_attr != NULL");
    const std::int32_t depth = thread->attr.stack_depth;
    thread->pid = platform::threadStart(_run, bus_mk_attr.get(),
                                        depth > 0 ? static_cast<std::size_t>(depth) : 0);
    if (!thread->pid) {
        return -1;
    }
    static_cast<void>(bus_mk_attr.release()); // the started thread frees it
    return 0;
}

int bus_mk_thread_join(bus_mk_thread_t *thread) noexcept {
    platform::threadJoin(thread->pid);
    thread->pid = nullptr;
    return 0;
}
