#include "bus_mk_queue.h"

#include "bus_mk_thread.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

struct bus_mk_queue {
    bus_mk_thread_mutex_t mut;
    bus_mk_thread_cond_t recv_cond;
    // Set while a receiver waits or is about to; cleared by the sender that wakes it.
    std::int32_t wait_recv BUS_MK_GUARDED_BY(mut);
    std::int32_t max_size; // fixed when the queue is made
    std::int32_t highest BUS_MK_GUARDED_BY(mut);
    bus_mk_list *list BUS_MK_PT_GUARDED_BY(mut);
};

namespace {

struct ListDelete {
    void operator()(bus_mk_list *list) const noexcept { bus_mk_list_destroy(list); }
};

bus_mk_list_node *addBelow(bus_mk_q_t *q, void *data, int pos, int limit) noexcept {
    bus_mk_list_node *node = nullptr;
    bool wake = false;
    if (data) {
        const bus_mk_guard lock{q->mut};
        if (bus_mk_list_cnt(q->list) < limit) {
            node = bus_mk_list_add(q->list, data, pos);
            q->highest = std::max(q->highest, bus_mk_list_cnt(q->list));
        }
        wake = node && q->wait_recv != 0;
        if (wake) {
            q->wait_recv = 0;
        }
    }
    // Signalled after the release, so that the receiver does not wake into a lock still held. The
    // event remembers a signal that comes before the wait.
    if (wake) {
        bus_mk_thread_cond_signal(&q->recv_cond);
    }
    return node;
}

} // namespace

bus_mk_q_t *bus_mk_q_new(int q_size, bus_mk_list_equal eq_func) noexcept {
    std::unique_ptr<bus_mk_list, ListDelete> list{bus_mk_list_new(eq_func)};
    if (!list) {
        return nullptr;
    }
    auto *const q = new (std::nothrow) bus_mk_queue{{}, {}, 0, q_size, 0, list.get()};
    if (q) {
        static_cast<void>(list.release());
        bus_mk_thread_mutex_init(&q->mut);
        bus_mk_thread_cond_init(&q->recv_cond);
    }
    return q;
}

int bus_mk_q_send(bus_mk_q_t *q, void *data, int pos) noexcept {
    return addBelow(q, data, pos, q->max_size) ? 0 : -1;
}

int bus_mk_q_send_beyond(bus_mk_q_t *q, void *data, int extra) noexcept {
    return addBelow(q, data, -1, q->max_size + extra) ? 0 : -1;
}

bus_mk_list_node *bus_mk_q_append(bus_mk_q_t *q, void *data) noexcept {
    return addBelow(q, data, -1, q->max_size);
}

void *bus_mk_q_take_out(bus_mk_q_t *q, bus_mk_list_node *place) noexcept {
    const bus_mk_guard lock{q->mut};
    return bus_mk_list_del_node(q->list, place);
}

void *bus_mk_q_recv(bus_mk_q_t *q, int flag, int del, int pos) noexcept {
    const bus_mk_guard lock{q->mut};
    if (flag == 0 && bus_mk_list_cnt(q->list) == 0) {
        q->wait_recv = 1;
        while (q->wait_recv != 0) {
            bus_mk_thread_cond_wait(&q->recv_cond, &q->mut);
        }
    }
    return del == 1 ? bus_mk_list_get_idx(q->list, pos) : bus_mk_list_del_idx(q->list, pos);
}

void bus_mk_q_wait(bus_mk_q_t *q, unsigned milliseconds) noexcept {
    const bus_mk_guard lock{q->mut};
    if (bus_mk_list_cnt(q->list) == 0) {
        q->wait_recv = 1;
        bus_mk_thread_cond_wait_for(&q->recv_cond, &q->mut, milliseconds);
        // Left set where no send has cleared it: another receiver may wait, and one signal too many
        // is only remembered.
    }
}

void bus_mk_q_rotate(bus_mk_q_t *q) noexcept {
    const bus_mk_guard lock{q->mut};
    bus_mk_list_rotate(q->list);
}

void *bus_mk_q_delete(bus_mk_q_t *q, void *data) noexcept {
    const bus_mk_guard lock{q->mut};
    return bus_mk_list_del(q->list, data, nullptr);
}

void *bus_mk_q_delete_index(bus_mk_q_t *q, int pos) noexcept {
    const bus_mk_guard lock{q->mut};
    return bus_mk_list_del_idx(q->list, pos);
}

void *bus_mk_q_find(bus_mk_q_t *q, void *data, int *dinx) noexcept {
    const bus_mk_guard lock{q->mut};
    return bus_mk_list_find(q->list, data, dinx);
}

bool bus_mk_q_full(bus_mk_q_t *q) noexcept {
    return bus_mk_q_count(q) >= q->max_size;
}

int bus_mk_q_count(bus_mk_q_t *q) noexcept {
    const bus_mk_guard lock{q->mut};
    return bus_mk_list_cnt(q->list);
}

int bus_mk_q_highest(bus_mk_q_t *q) noexcept {
    const bus_mk_guard lock{q->mut};
    return q->highest;
}

int bus_mk_q_visit(bus_mk_q_t *q, bus_mk_q_visitor visit, void *arg) noexcept {
    const bus_mk_guard lock{q->mut};
    const bus_mk_list_iter next = bus_mk_list_iter_get(q->list, 0);
    int result = 0;
    for (void *item = next(q->list); item && result == 0; item = next(q->list)) {
        result = visit(item, arg);
    }
    return result;
}

int bus_mk_q_clear(bus_mk_q_t *q, bus_mk_q_delete_callback delete_f, int flag) noexcept {
    {
        const bus_mk_guard lock{q->mut};
        while (void *const item = bus_mk_list_del_idx(q->list, 1)) {
            if (delete_f) {
                delete_f(item);
            }
        }
    }
    if (flag == 0) {
        bus_mk_list_destroy(q->list);
        bus_mk_thread_mutex_destroy(&q->mut);
        bus_mk_thread_cond_destroy(&q->recv_cond);
        delete q;
    }
    return 0;
}
