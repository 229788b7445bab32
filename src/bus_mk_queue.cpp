#include "bus_mk_queue.h"

#include "bus_mk_assert.h"
#include "bus_mk_pool.h"
#include "bus_mk_thread.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>

namespace {

constexpr std::size_t kCacheLine = 64;

} // namespace

// One list in two parts: items are appended to in, taken from out, and move from one to the other
// all at once when out is empty, or when an operation needs the whole list.
struct bus_mk_queue {
    // The senders' part.
    alignas(kCacheLine) bus_mk_thread_mutex_t mut; // taken after recv_mut where both are
    bus_mk_thread_cond_t recv_cond;
    // Set while a receiver sleeps or is about to; cleared by the sender that wakes it.
    std::int32_t wait_recv BUS_MK_GUARDED_BY(mut);
    std::int32_t timed_waits BUS_MK_GUARDED_BY(mut); // receivers that sleep for a limited time
    std::int32_t max_size;                           // fixed when the queue is made
    std::int32_t highest BUS_MK_GUARDED_BY(mut);
    // A former value of out_count, which has not grown since: what it allows needs no look at the
    // receivers' part.
    std::int32_t out_seen BUS_MK_GUARDED_BY(mut);
    bus_mk_list *in BUS_MK_PT_GUARDED_BY(mut);
    std::atomic<std::int32_t> in_count; // written under mut

    // The receivers' part.
    alignas(kCacheLine) bus_mk_thread_mutex_t recv_mut;
    bus_mk_list *list BUS_MK_PT_GUARDED_BY(recv_mut);
    std::atomic<std::int32_t> out_count; // written under recv_mut; grows only under mut as well
    std::atomic<std::int32_t> looks;     // of a receiver, before it sleeps
};

namespace {

struct ListDelete {
    void operator()(bus_mk_list *list) const noexcept { bus_mk_list_destroy(list); }
};
using ListPtr = std::unique_ptr<bus_mk_list, ListDelete>;

void noteOut(bus_mk_q_t *q) noexcept BUS_MK_REQUIRES(q->recv_mut) {
    q->out_count.store(bus_mk_list_cnt(q->list), std::memory_order_release);
}

// Moves all that has been appended to the receivers' part.
void bring(bus_mk_q_t *q) noexcept BUS_MK_REQUIRES(q->recv_mut, q->mut) {
    bus_mk_list_splice(q->list, q->in);
    noteOut(q); // before in_count: an item is never in neither count
    q->out_seen = bus_mk_list_cnt(q->list);
    q->in_count.store(0, std::memory_order_release);
}

// The whole queue stands still for a scope, all of it in list.
class BUS_MK_SCOPED_CAPABILITY Whole {
public:
    explicit Whole(bus_mk_q_t *q) noexcept BUS_MK_ACQUIRE(q->recv_mut, q->mut) : q_{q} {
        bus_mk_thread_mutex_lock(&q->recv_mut);
        bus_mk_thread_mutex_lock(&q->mut);
        bring(q);
    }
    ~Whole() BUS_MK_RELEASE() {
        noteOut(q_);
        bus_mk_thread_mutex_unlock(&q_->mut);
        bus_mk_thread_mutex_unlock(&q_->recv_mut);
    }
    Whole(const Whole &) = delete;
    Whole &operator=(const Whole &) = delete;

private:
    bus_mk_q_t *q_;
};

// Whether one item more stays within limit. The receivers' part is looked at only when its former
// count does not tell.
bool hasPlace(bus_mk_q_t *q, int limit) noexcept BUS_MK_REQUIRES(q->mut) {
    const std::int32_t waiting = bus_mk_list_cnt(q->in);
    if (waiting + q->out_seen >= limit || waiting + q->out_seen >= q->highest) {
        q->out_seen = q->out_count.load(std::memory_order_acquire);
    }
    return waiting + q->out_seen < limit;
}

// Whether a receiver is to be woken once the mutex is released, so that it does not wake into a
// lock still held. It does not go on before that signal, so the queue is there until then. A
// receiver that waits for a limited time goes on without one, and may end the queue: it is woken
// here.
bool mustWake(bus_mk_q_t *q) noexcept BUS_MK_REQUIRES(q->mut) {
    const bool waits = q->wait_recv != 0;
    q->wait_recv = 0;
    if (q->timed_waits == 0) {
        return waits;
    }
    bus_mk_thread_cond_signal(&q->recv_cond);
    return false;
}

// The event remembers a signal that comes before the wait.
void wakeReceiver(bus_mk_q_t *q, bool wake) noexcept {
    if (wake) {
        bus_mk_thread_cond_signal(&q->recv_cond);
    }
}

bus_mk_sent append(bus_mk_q_t *q, void *data, int limit) noexcept {
    bool wake = false;
    {
        const bus_mk_guard lock{q->mut};
        if (!hasPlace(q, limit)) {
            return bus_mk_sent::kFull;
        }
        if (!bus_mk_list_add(q->in, data, -1)) {
            return bus_mk_sent::kNoMemory;
        }
        const std::int32_t waiting = bus_mk_list_cnt(q->in);
        q->highest = std::max(q->highest, waiting + q->out_seen);
        q->in_count.store(waiting, std::memory_order_release);
        wake = mustWake(q);
    }
    wakeReceiver(q, wake);
    return bus_mk_sent::kDone;
}

// The same at any place, and with the place in node.
bus_mk_sent insert(bus_mk_q_t *q, void *data, int pos, bus_mk_list_node *&node) noexcept {
    bool wake = false;
    {
        const Whole lock{q};
        if (!hasPlace(q, q->max_size)) {
            return bus_mk_sent::kFull;
        }
        node = bus_mk_list_add(q->list, data, pos);
        if (!node) {
            return bus_mk_sent::kNoMemory;
        }
        q->out_seen = bus_mk_list_cnt(q->list);
        q->highest = std::max(q->highest, q->out_seen);
        wake = mustWake(q);
    }
    wakeReceiver(q, wake);
    return bus_mk_sent::kDone;
}

// A receiver that sleeps costs its sender a system call and itself some microseconds until it runs
// again; where messages follow each other, the next one comes sooner. A receiver that has slept for
// long looks less often the next time, so that thousands of quiet ones do not take turns in vain.
constexpr std::int32_t kMostLooks = 8;
constexpr std::chrono::microseconds kShortSleep{50};

void noteSleep(bus_mk_q_t *q, std::chrono::steady_clock::duration slept) noexcept {
    const std::int32_t fewer = std::max(1, q->looks.load(std::memory_order_relaxed) / 2);
    q->looks.store(slept < kShortSleep ? kMostLooks : fewer, std::memory_order_relaxed);
}

// Whether an item comes within a few looks.
bool comesSoon(const bus_mk_q_t *q) noexcept {
    const std::int32_t looks = q->looks.load(std::memory_order_relaxed);
    for (std::int32_t look = 0; look < looks; ++look) {
        if (!bus_mk_q_empty(q)) {
            return true;
        }
        platform::yieldThread();
    }
    return !bus_mk_q_empty(q);
}

// What an idle receiver needs no more: there may be thousands of them.
void giveBackSpare(bus_mk_q_t *q) noexcept {
    bus_mk_pool_trim();
    const Whole lock{q};
    bus_mk_list_trim(q->in);
    bus_mk_list_trim(q->list);
}

constexpr unsigned kForever = std::numeric_limits<unsigned>::max();

void goToSleep(bus_mk_q_t *q, unsigned milliseconds) noexcept {
    const bus_mk_guard lock{q->mut};
    if (!bus_mk_q_empty(q)) {
        return;
    }
    if (milliseconds != kForever) {
        ++q->timed_waits;
        bus_mk_thread_cond_wait_for(&q->recv_cond, &q->mut, milliseconds);
        --q->timed_waits;
        return;
    }
    q->wait_recv = 1;
    while (q->wait_recv != 0) {
        bus_mk_thread_cond_wait(&q->recv_cond, &q->mut);
    }
}

// Waits until an item has come, or the time has passed (it may end earlier then).
void waitWhileEmpty(bus_mk_q_t *q, unsigned milliseconds) noexcept {
    if (comesSoon(q)) {
        return;
    }
    giveBackSpare(q);
    const auto begun = std::chrono::steady_clock::now();
    goToSleep(q, milliseconds);
    noteSleep(q, std::chrono::steady_clock::now() - begun);
}

} // namespace

bus_mk_q_t *bus_mk_q_new(int q_size, bus_mk_list_equal eq_func) noexcept {
    ListPtr in{bus_mk_list_new(eq_func)};
    ListPtr out{bus_mk_list_new(eq_func)};
    auto *const q = in && out ? new (std::nothrow) bus_mk_queue{} : nullptr;
    if (q) {
        bus_mk_thread_mutex_init(&q->mut);
        bus_mk_thread_mutex_init(&q->recv_mut);
        bus_mk_thread_cond_init(&q->recv_cond);
        q->max_size = q_size;
        q->looks = kMostLooks;
        q->in = in.release();
        q->list = out.release();
        BUS_MK_ASSERT(q->list, "q->list != NULL");
    }
    return q;
}

int bus_mk_q_send(bus_mk_q_t *q, void *data, int pos) noexcept {
    return data && bus_mk_q_offer(q, data, pos, 0) == bus_mk_sent::kDone ? 0 : -1;
}

bus_mk_sent bus_mk_q_offer(bus_mk_q_t *q, void *data, int pos, int extra) noexcept {
    bus_mk_list_node *place = nullptr;
    return pos < 0 ? append(q, data, q->max_size + extra) : insert(q, data, pos, place);
}

bus_mk_list_node *bus_mk_q_append(bus_mk_q_t *q, void *data) noexcept {
    bus_mk_list_node *place = nullptr;
    return data && insert(q, data, -1, place) == bus_mk_sent::kDone ? place : nullptr;
}

void *bus_mk_q_take_out(bus_mk_q_t *q, bus_mk_list_node *place) noexcept {
    const Whole lock{q};
    return bus_mk_list_del_node(q->list, place);
}

void *bus_mk_q_recv(bus_mk_q_t *q, int flag, int del, int pos) noexcept {
    for (bool waits = flag == 0;;) {
        if (waits && bus_mk_q_empty(q)) {
            waitWhileEmpty(q, kForever);
            waits = false; // once: another receiver may be faster
        }
        const bus_mk_guard lock{q->recv_mut};
        if (bus_mk_list_cnt(q->list) < std::max(pos, 1)) {
            const bus_mk_guard senders{q->mut};
            bring(q);
        }
        if (!waits || bus_mk_list_cnt(q->list) > 0) {
            void *const item =
                del == 1 ? bus_mk_list_get_idx(q->list, pos) : bus_mk_list_del_idx(q->list, pos);
            noteOut(q);
            return item;
        }
    }
}

void bus_mk_q_wait(bus_mk_q_t *q, unsigned milliseconds) noexcept {
    if (bus_mk_q_empty(q)) {
        waitWhileEmpty(q, milliseconds);
    }
}

void *bus_mk_q_delete(bus_mk_q_t *q, void *data) noexcept {
    const Whole lock{q};
    return bus_mk_list_del(q->list, data, nullptr);
}

void *bus_mk_q_delete_index(bus_mk_q_t *q, int pos) noexcept {
    const Whole lock{q};
    return bus_mk_list_del_idx(q->list, pos);
}

void bus_mk_q_delete_if(bus_mk_q_t *q, bus_mk_list_equal wanted, void *key) noexcept {
    const Whole lock{q};
    bus_mk_list_del_if(q->list, wanted, key);
}

void *bus_mk_q_find(bus_mk_q_t *q, void *data, int *dinx) noexcept {
    const Whole lock{q};
    return bus_mk_list_find(q->list, data, dinx);
}

bool bus_mk_q_full(bus_mk_q_t *q) noexcept {
    return bus_mk_q_count(q) >= q->max_size;
}

// In this order: items move from in to out, and out_count grows before in_count falls.
bool bus_mk_q_empty(const bus_mk_q_t *q) noexcept {
    return q->in_count.load(std::memory_order_acquire) == 0 &&
           q->out_count.load(std::memory_order_acquire) == 0;
}

int bus_mk_q_count(bus_mk_q_t *q) noexcept {
    const Whole lock{q};
    return bus_mk_list_cnt(q->list);
}

int bus_mk_q_highest(bus_mk_q_t *q) noexcept {
    const bus_mk_guard lock{q->mut};
    return q->highest;
}

int bus_mk_q_visit(bus_mk_q_t *q, bus_mk_q_visitor visit, void *arg) noexcept {
    const Whole lock{q};
    const bus_mk_list_iter next = bus_mk_list_iter_get(q->list, 0);
    int result = 0;
    for (void *item = next(q->list); item && result == 0; item = next(q->list)) {
        result = visit(item, arg);
    }
    return result;
}

int bus_mk_q_clear(bus_mk_q_t *q, bus_mk_q_delete_callback delete_f, int flag) noexcept {
    {
        const Whole lock{q};
        while (void *const item = bus_mk_list_del_idx(q->list, 1)) {
            if (delete_f) {
                delete_f(item);
            }
        }
    }
    if (flag == 0) {
        bus_mk_list_destroy(q->in);
        bus_mk_list_destroy(q->list);
        bus_mk_thread_mutex_destroy(&q->mut);
        bus_mk_thread_mutex_destroy(&q->recv_mut);
        bus_mk_thread_cond_destroy(&q->recv_cond);
        delete q;
    }
    return 0;
}
