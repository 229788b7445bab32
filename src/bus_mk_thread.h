// Mutex, manual-reset event and threads: what every other module excludes and wakes with.
// Threads:  any thread may call anything. A record is initialised before it is shared and
//           destroyed after its last user is done; nobody may be blocked on it then.
// Blocking: only lock, wait and join block; only bus_mk_thread_cond_wait_for has a time limit.
// Results:  0 for success, -1 for failure; operations that cannot fail return 0 all the same.
// Cost:     an uncontended lock, unlock or signal makes no system call.
#ifndef ZELVO_BUS_MK_THREAD_H
#define ZELVO_BUS_MK_THREAD_H

#include "platform/platform.h"

#include <cstdint>

// Which mutex guards what, checked by clang's -Wthread-safety; other compilers see nothing.
#if defined(__clang__)
#define BUS_MK_ANNOTATE(x) __attribute__((x))
#else
#define BUS_MK_ANNOTATE(x)
#endif
#define BUS_MK_CAPABILITY(name) BUS_MK_ANNOTATE(capability(name))
#define BUS_MK_SCOPED_CAPABILITY BUS_MK_ANNOTATE(scoped_lockable)
#define BUS_MK_GUARDED_BY(mutex) BUS_MK_ANNOTATE(guarded_by(mutex))
#define BUS_MK_PT_GUARDED_BY(mutex) BUS_MK_ANNOTATE(pt_guarded_by(mutex))
#define BUS_MK_ACQUIRE(...) BUS_MK_ANNOTATE(acquire_capability(__VA_ARGS__))
#define BUS_MK_RELEASE(...) BUS_MK_ANNOTATE(release_capability(__VA_ARGS__))
#define BUS_MK_REQUIRES(...) BUS_MK_ANNOTATE(requires_capability(__VA_ARGS__))
#define BUS_MK_UNCHECKED BUS_MK_ANNOTATE(no_thread_safety_analysis)

// Values of hMutex in a mutex that nobody owns: before init and after destroy, and ready for use.
// A static mutex may start out ready instead of being initialised at run time.
inline constexpr std::uint32_t bus_mk_thread_mutex_none = 0;
inline constexpr std::uint32_t bus_mk_thread_mutex_ready = 1;

// A mutex with an owner: the thread that locked it unlocks it, and does not lock it twice.
struct BUS_MK_CAPABILITY("mutex") bus_mk_thread_mutex_t {
    platform::Word hMutex{bus_mk_thread_mutex_none};
};

// An event that stays set once signalled. A signal releases every thread that waits at that
// moment, and is remembered when none does; it is cleared only by a thread that has waited, once
// that thread owns the mutex again. A caller that must tell a real wake-up from a remembered one
// keeps a flag of its own under the mutex and waits in a loop.
// cond is 0 before init and after destroy.
struct bus_mk_thread_cond_t {
    platform::Word cond{0};
};

// The body of a thread; its result is not used.
using bus_mk_thread_run = void *(*)(void *arg);

struct bus_mk_thread_info {
    const char *name;         // carried, read by no operation
    std::int32_t stack_depth; // bytes of stack to start with; 0: the system's default
    std::int32_t flag;        // carried, read by no operation
};

struct bus_mk_thread_t {
    void *pid; // handle of a started thread that has not been joined; otherwise null
    std::uint32_t id;
    bus_mk_thread_info attr;
};

int bus_mk_thread_mutex_init(bus_mk_thread_mutex_t *mutex) noexcept;
int bus_mk_thread_mutex_destroy(bus_mk_thread_mutex_t *mutex) noexcept;
int bus_mk_thread_mutex_lock(bus_mk_thread_mutex_t *mutex) noexcept BUS_MK_ACQUIRE(mutex);
// The record may be released by another thread as soon as that thread has locked it after this
// call: it is not touched again.
int bus_mk_thread_mutex_unlock(bus_mk_thread_mutex_t *mutex) noexcept BUS_MK_RELEASE(mutex);

int bus_mk_thread_cond_init(bus_mk_thread_cond_t *cond) noexcept;
int bus_mk_thread_cond_destroy(bus_mk_thread_cond_t *cond) noexcept;
// Releases the mutex, waits until the event is set, takes the mutex again and clears the event.
// No signal given after the release is missed, also when another waiter clears it first.
int bus_mk_thread_cond_wait(bus_mk_thread_cond_t *cond, bus_mk_thread_mutex_t *mutex) noexcept
    BUS_MK_REQUIRES(mutex);
// The same for at most the given time: the event may not have been set.
int bus_mk_thread_cond_wait_for(bus_mk_thread_cond_t *cond, bus_mk_thread_mutex_t *mutex,
                                std::uint32_t milliseconds) noexcept BUS_MK_REQUIRES(mutex);
// Sets the event. A system call is made only when a thread sleeps on it.
int bus_mk_thread_cond_signal(bus_mk_thread_cond_t *cond) noexcept;

// Gives up the processor to another thread, for a caller that expects what it waits for within some
// microseconds. False: it has not, since others keep the processor for long; the caller is to
// sleep.
bool bus_mk_thread_yield() noexcept;

// Clears the record: no thread, id and attributes zero.
int bus_mk_thread_init(bus_mk_thread_t *thread) noexcept;
// The calling thread: its kernel id, everything else zero.
bus_mk_thread_t bus_mk_thread_self() noexcept;
// 1 when both records carry the same id, else 0.
int bus_mk_thread_equal(const bus_mk_thread_t *a, const bus_mk_thread_t *b) noexcept;
// Starts func(arg) with attr.stack_depth bytes of stack and stores the handle in pid; id is left
// as it is. -1: no thread was started, pid is null.
int bus_mk_thread_create(bus_mk_thread_t *thread, bus_mk_thread_run func, void *arg) noexcept;
// Waits until the thread has ended; pid is null afterwards. A record without a thread: no wait.
int bus_mk_thread_join(bus_mk_thread_t *thread) noexcept;

// Owns a mutex for a scope.
class BUS_MK_SCOPED_CAPABILITY bus_mk_guard {
public:
    explicit bus_mk_guard(bus_mk_thread_mutex_t &mutex) noexcept BUS_MK_ACQUIRE(mutex)
        : mutex_(mutex) {
        bus_mk_thread_mutex_lock(&mutex_);
    }
    ~bus_mk_guard() BUS_MK_RELEASE() { bus_mk_thread_mutex_unlock(&mutex_); }
    bus_mk_guard(const bus_mk_guard &) = delete;
    bus_mk_guard &operator=(const bus_mk_guard &) = delete;

private:
    bus_mk_thread_mutex_t &mutex_;
};

#endif
