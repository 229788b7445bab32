#include "bus_mk_queue.h"

#include "bus_mk_pool.h"
#include "bus_mk_row.h"
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

// One sequence in three parts. Items are appended to in, and taken from list and then from out;
// when both are empty, in and out change places: sender and receiver meet once for a batch. Only
// items that are put in front, or are to keep a place, stand in list.
struct bus_mk_queue {
    // The senders' part.
    alignas(kCacheLine) bus_mk_thread_mutex_t mut; // taken after recv_mut where both are
    bus_mk_thread_cond_t recv_cond;
    // Set while a receiver sleeps or is about to; cleared by the sender that wakes it.
    std::int32_t wait_recv BUS_MK_GUARDED_BY(mut);
    std::int32_t max_size;                           // fixed when the queue is made
    std::int32_t timed_waits BUS_MK_GUARDED_BY(mut); // receivers that sleep for a limited time
    std::int32_t highest BUS_MK_GUARDED_BY(mut);
    // A former value of out_count, which has not grown since: what it allows needs no look at the
    // receivers' part.
    std::int32_t out_seen BUS_MK_GUARDED_BY(mut);
    bus_mk_row in BUS_MK_GUARDED_BY(mut);
    std::atomic<std::int32_t> in_count; // written under mut

    // The receivers' part.
    alignas(kCacheLine) bus_mk_thread_mutex_t recv_mut;
    bus_mk_list *list BUS_MK_PT_GUARDED_BY(recv_mut);
    bus_mk_row out BUS_MK_GUARDED_BY(recv_mut);
    bus_mk_list_equal eq;                // null: the same address
    std::atomic<std::int32_t> out_count; // written under recv_mut; grows only under mut as well
    std::atomic<std::int32_t> looks;     // of a receiver, before it sleeps
    std::atomic<bool> waited;            // a receiver has, for the next item that it takes
};

namespace {

struct ListDelete {
    void operator()(bus_mk_list *list) const noexcept { bus_mk_list_destroy(list); }
};
using ListPtr = std::unique_ptr<bus_mk_list, ListDelete>;

// ---- the whole of a queue ----

void noteOut(bus_mk_q_t *q) noexcept BUS_MK_REQUIRES(q->recv_mut) {
    q->out_count.store(bus_mk_list_cnt(q->list) + q->out.count(), std::memory_order_release);
}

// The whole queue stands still for a scope.
class BUS_MK_SCOPED_CAPABILITY Whole {
public:
    explicit Whole(bus_mk_q_t *q) noexcept BUS_MK_ACQUIRE(q->recv_mut, q->mut)
        : q_{q},
          receivers_{q->recv_mut},
          senders_{q->mut} {}
    ~Whole() BUS_MK_RELEASE() {
        noteOut(q_);
        q_->out_seen = q_->out_count.load(std::memory_order_relaxed);
        q_->in_count.store(q_->in.count(), std::memory_order_release);
    }
    Whole(const Whole &) = delete;
    Whole &operator=(const Whole &) = delete;

private:
    bus_mk_q_t *const q_;
    const bus_mk_guard receivers_;
    const bus_mk_guard senders_; // after the receivers' everywhere
};

int countOfAll(bus_mk_q_t *q) noexcept BUS_MK_REQUIRES(q->recv_mut, q->mut) {
    return bus_mk_list_cnt(q->list) + q->out.count() + q->in.count();
}

// Calls step(item) for each item from the head on, until it gives true. Whether it has.
template <typename Step>
bool walk(bus_mk_q_t *q, Step step) noexcept BUS_MK_REQUIRES(q->recv_mut, q->mut) {
    const bus_mk_list_iter next = bus_mk_list_iter_get(q->list, 0);
    while (void *const item = next(q->list)) {
        if (step(item)) {
            return true;
        }
    }
    return std::any_of(q->out.begin(), q->out.end(), step) ||
           std::any_of(q->in.begin(), q->in.end(), step);
}

// The position of the first match, and 0 for none.
int positionOf(bus_mk_q_t *q, void *key) noexcept BUS_MK_REQUIRES(q->recv_mut, q->mut) {
    int position = 0;
    const bool found = walk(q, [&](void *item) {
        ++position;
        return key && (q->eq ? q->eq(key, item) == 0 : key == item);
    });
    return found ? position : 0;
}

// The item at pos, taken out or left in place. Null: there is none.
void *itemAt(bus_mk_q_t *q, int pos, bool taken) noexcept BUS_MK_REQUIRES(q->recv_mut, q->mut) {
    const int listed = bus_mk_list_cnt(q->list);
    if (pos <= listed) {
        return taken ? bus_mk_list_del_idx(q->list, pos) : bus_mk_list_get_idx(q->list, pos);
    }
    int index = pos - listed - 1;
    for (bus_mk_row *const row : {&q->out, &q->in}) {
        if (index < row->count()) {
            return taken ? row->take(index) : row->begin()[index];
        }
        index -= row->count();
    }
    return nullptr;
}

// Moves everything into list. False: no memory; what has not been moved is where it was.
bool settle(bus_mk_q_t *q) noexcept BUS_MK_REQUIRES(q->recv_mut, q->mut) {
    for (bus_mk_row *const row : {&q->out, &q->in}) {
        while (row->count() > 0) {
            if (!bus_mk_list_add(q->list, *row->begin(), -1)) {
                return false;
            }
            row->take(0);
        }
    }
    return true;
}

// ---- sending ----

// Whether one item more stays within limit. The receivers' part is looked at only when its former
// count does not tell.
bool hasPlace(bus_mk_q_t *q, int limit) noexcept BUS_MK_REQUIRES(q->mut) {
    const std::int32_t waiting = q->in.count();
    if (waiting + q->out_seen >= std::min(limit, q->highest)) {
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

bus_mk_sent append(bus_mk_q_t *q, void *data, int limit, bool &wake) noexcept {
    const bus_mk_guard lock{q->mut};
    if (!hasPlace(q, limit)) {
        return bus_mk_sent::kFull;
    }
    if (!q->in.add(data)) {
        return bus_mk_sent::kNoMemory;
    }
    const std::int32_t waiting = q->in.count();
    q->highest = std::max(q->highest, waiting + q->out_seen);
    q->in_count.store(waiting, std::memory_order_release);
    wake = mustWake(q);
    return bus_mk_sent::kDone;
}

// The same at any place, and with the place in node.
bus_mk_sent insert(bus_mk_q_t *q, void *data, int pos, bus_mk_list_node *&node,
                   bool &wake) noexcept {
    const Whole lock{q};
    if (countOfAll(q) >= q->max_size) {
        return bus_mk_sent::kFull;
    }
    node = pos == 0 || settle(q) ? bus_mk_list_add(q->list, data, pos) : nullptr;
    if (!node) {
        return bus_mk_sent::kNoMemory;
    }
    q->highest = std::max(q->highest, countOfAll(q));
    wake = mustWake(q);
    return bus_mk_sent::kDone;
}

// ---- receiving ----

// A receiver that sleeps costs its sender a system call and itself some microseconds until it runs
// again; where messages follow each other, the next one comes sooner. A receiver that has slept for
// long looks less often the next time, so that thousands of quiet ones do not take turns in vain.
constexpr std::int32_t kMostLooks = 32;
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
        if (!bus_mk_thread_yield()) {
            break;
        }
    }
    return !bus_mk_q_empty(q);
}

// What an idle receiver needs no more: there may be thousands of them.
void giveBackSpare(bus_mk_q_t *q) noexcept {
    bus_mk_pool_trim();
    const Whole lock{q};
    q->in.trim();
    q->out.trim();
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

// A receiver that has emptied a short batch and already finds the next one begun lets that grow:
// where it meets its sender for every few items, the meetings cost more than the items do.
void letBatchGrow(bus_mk_q_t *q) noexcept {
    constexpr std::int32_t kShortBatch = 32;
    if (q->waited.load(std::memory_order_relaxed)) {
        q->waited.store(false, std::memory_order_relaxed);
    } else if (q->out_count.load(std::memory_order_relaxed) == 0 &&
               q->in_count.load(std::memory_order_relaxed) < kShortBatch) {
        bus_mk_thread_yield();
    }
}

// What an item leads to lies in its sender's cache. It is asked for while those before it are
// handled.
void fetchAhead(const bus_mk_row &row) noexcept {
    constexpr std::int32_t kAhead = 4;
    constexpr std::size_t kFetched = 3 * kCacheLine;
    if (row.count() > kAhead) {
        const char *const item = static_cast<const char *>(row.begin()[kAhead]);
        for (std::size_t offset = 0; offset < kFetched; offset += kCacheLine) {
            __builtin_prefetch(item + offset);
        }
    }
}

// The first item of the receivers' part, which gets all that has been appended when it has none.
void *takeFirst(bus_mk_q_t *q) noexcept BUS_MK_REQUIRES(q->recv_mut) {
    if (void *const item = bus_mk_list_del_idx(q->list, 1)) {
        return item;
    }
    if (q->out.count() == 0) {
        const bus_mk_guard senders{q->mut};
        q->in.swap(q->out);
        noteOut(q); // before in_count: an item is never in neither count
        q->out_seen = q->out.count();
        q->in_count.store(0, std::memory_order_release);
    }
    fetchAhead(q->out);
    return q->out.count() > 0 ? q->out.take(0) : nullptr;
}

} // namespace

bus_mk_q_t *bus_mk_q_new(int q_size, bus_mk_list_equal eq_func) noexcept {
    ListPtr list{bus_mk_list_new(eq_func)};
    auto *const q = list ? new (std::nothrow) bus_mk_queue{} : nullptr;
    if (q) {
        bus_mk_thread_mutex_init(&q->mut);
        bus_mk_thread_mutex_init(&q->recv_mut);
        bus_mk_thread_cond_init(&q->recv_cond);
        q->max_size = q_size;
        q->looks = kMostLooks;
        q->eq = eq_func;
        q->list = list.release();
    }
    return q;
}

int bus_mk_q_send(bus_mk_q_t *q, void *data, int pos) noexcept {
    return data && bus_mk_q_offer(q, data, pos, 0) == bus_mk_sent::kDone ? 0 : -1;
}

bus_mk_sent bus_mk_q_offer(bus_mk_q_t *q, void *data, int pos, int extra) noexcept {
    bus_mk_list_node *place = nullptr;
    bool wake = false;
    const bus_mk_sent sent =
        pos < 0 ? append(q, data, q->max_size + extra, wake) : insert(q, data, pos, place, wake);
    if (wake) {
        bus_mk_q_wake(q);
    }
    return sent;
}

bus_mk_sent bus_mk_q_post(bus_mk_q_t *q, void *data, bool &wake) noexcept {
    return append(q, data, q->max_size, wake);
}

// The event remembers a signal that comes before the wait.
void bus_mk_q_wake(bus_mk_q_t *q) noexcept {
    bus_mk_thread_cond_signal(&q->recv_cond);
}

bus_mk_list_node *bus_mk_q_append(bus_mk_q_t *q, void *data) noexcept {
    bus_mk_list_node *place = nullptr;
    bool wake = false;
    if (data) {
        insert(q, data, bus_mk_q_tail, place, wake);
    }
    if (wake) {
        bus_mk_q_wake(q);
    }
    return place;
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
        } else if (waits) {
            letBatchGrow(q);
        }
        if (del == 1 || pos != 1) {
            const Whole lock{q};
            if (!waits || countOfAll(q) > 0) {
                return itemAt(q, pos, del != 1);
            }
        } else {
            const bus_mk_guard lock{q->recv_mut};
            void *const item = takeFirst(q);
            noteOut(q);
            if (!waits || item) {
                return item;
            }
        }
    }
}

void bus_mk_q_wait(bus_mk_q_t *q, unsigned milliseconds) noexcept {
    if (bus_mk_q_empty(q)) {
        waitWhileEmpty(q, milliseconds);
        q->waited.store(true, std::memory_order_relaxed);
    }
}

void *bus_mk_q_delete(bus_mk_q_t *q, void *data) noexcept {
    const Whole lock{q};
    return itemAt(q, positionOf(q, data), true);
}

void *bus_mk_q_delete_index(bus_mk_q_t *q, int pos) noexcept {
    const Whole lock{q};
    return itemAt(q, pos, true);
}

void *bus_mk_q_find(bus_mk_q_t *q, void *data, int *dinx) noexcept {
    const Whole lock{q};
    const int position = positionOf(q, data);
    if (dinx && position > 0) {
        *dinx = position;
    }
    return itemAt(q, position, false);
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
    return countOfAll(q);
}

int bus_mk_q_highest(bus_mk_q_t *q) noexcept {
    const bus_mk_guard lock{q->mut};
    return q->highest;
}

int bus_mk_q_visit(bus_mk_q_t *q, bus_mk_q_visitor visit, void *arg) noexcept {
    const Whole lock{q};
    int result = 0;
    walk(q, [&](void *item) {
        result = visit(item, arg);
        return result != 0;
    });
    return result;
}

int bus_mk_q_clear(bus_mk_q_t *q, bus_mk_q_delete_callback delete_f, int flag) noexcept {
    {
        const Whole lock{q};
        while (void *const item = itemAt(q, 1, true)) {
            if (delete_f) {
                delete_f(item);
            }
        }
    }
    if (flag == 0) {
        bus_mk_list_destroy(q->list);
        bus_mk_thread_mutex_destroy(&q->mut);
        bus_mk_thread_mutex_destroy(&q->recv_mut);
        bus_mk_thread_cond_destroy(&q->recv_cond);
        delete q;
    }
    return 0;
}
