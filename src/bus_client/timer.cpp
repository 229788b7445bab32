#include "bus_client/internal.h"
#include "bus_tools.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>

namespace bus {
namespace {

constexpr int kLastTimerId = 32767;
constexpr unsigned kPause = 3; // milliseconds between two looks at the timers

double now() noexcept {
    return clock_gettimestamp() * 1000.0;
}

// Ids run from 2 on: the counter starts below its least value and is set to it first. Threads that
// set timers of one node at once get different ids.
int nextTimerId(client_t &client) noexcept {
    int last = client.timerid.load(std::memory_order_relaxed);
    for (;;) {
        const bool wraps = last < 1 || last >= kLastTimerId;
        const int next = wraps ? 2 : last + 1;
        if (client.timerid.compare_exchange_weak(last, next, std::memory_order_relaxed)) {
            if (wraps) {
                BUS_LOG(4, "  %s timerId overstep the boundary 32767\n", TAG);
            }
            return next;
        }
    }
}

// A walk sets earliest_due aside before it begins, and a timer is noted after it has been queued:
// so whatever order the two meet in, one of them notes the timer.
void noteDue(client_t &client, double due) noexcept {
    double earliest = client.earliest_due.load();
    while (due < earliest && !client.earliest_due.compare_exchange_weak(earliest, due)) {}
}

void fire(client_t &client, const timer_t &timer) noexcept {
    if (!timer.timer_func) {
        BUS_LOG(4, "  %s %s timer func not implement\n", TAG, client.name.get());
        return;
    }
    BUS_LOG(1, "  %s %d timer func begin\n", TAG, timer.type);
    timer.timer_func(timer.userdata, &client, timer.type);
    BUS_LOG(1, "  %s %d timer func end\n", TAG, timer.type);
}

// A walk over the timers for the next one that may run: due at time, at a position from first to
// last.
struct Look {
    client_t &client;
    double time;
    int first, last;
    int at;
};

int isNext(void *item, void *look) noexcept {
    auto &[client, time, first, last, at] = *static_cast<Look *>(look);
    const double due = static_cast<const timer_t *>(item)->timeout;
    ++at;
    if (at >= first && at <= last && time >= due) {
        return at;
    }
    noteDue(client, due);
    return 0;
}

// Its position; 0: there is none, and all that wait have been noted.
int findNext(client_t &client, int first, int last) noexcept {
    client.earliest_due.store(std::numeric_limits<double>::infinity());
    Look look{client, now(), first, last, 0};
    return bus_mk_q_visit(client.timer_queue, isNext, &look);
}

// In whole milliseconds, as the log shows a time; one that is far off as far as a number goes.
long long shown(double time) noexcept {
    constexpr double kMost = 9e18;
    return static_cast<long long>(std::clamp(time, -kMost, kMost));
}

// False: memory is short, or the queue is full of other messages that wake the loop as well.
bool postWakeUp(client_t &client) noexcept {
    MessagePtr message = ownMessage(client, nullptr, Action::kSetTimer, nullptr, 0);
    return handOver(client.message_queue, message, bus_mk_q_tail) == bus_mk_sent::kDone;
}

// Under the queue's lock: either this sees the latest message taken, or the thread that takes it
// later sees the timer that was set before.
bool hasMessage(const client_t &client) noexcept {
    return bus_mk_q_count(client.message_queue) > 0;
}

} // namespace

timer_t *busClientExTimerNew(client_t *client, timer_callback timer_func, long mstimeout, int type,
                             void *userdata) noexcept {
    if (!client) {
        return nullptr;
    }
    auto *const timer = new (std::nothrow) timer_t{};
    if (!timer) {
        return nullptr;
    }
    timer->id = nextTimerId(*client);
    timer->type = type;
    timer->userdata = userdata;
    timer->timer_func = timer_func;
    const double created = now();
    timer->timeout = static_cast<double>(mstimeout) + created;
    BUS_LOG(1, "  %s timer new %d, %lld, %lld\n", TAG, timer->id, shown(created),
            shown(timer->timeout));
    return timer;
}

int busClientExTimerDelete(void *timer) noexcept {
    const std::unique_ptr<timer_t> owned{static_cast<timer_t *>(timer)};
    if (owned) {
        BUS_LOG(1, "  %s %d timer delete\n", TAG, owned->id);
    }
    return 0;
}

int _timer_equal(void *key, void *stored) noexcept {
    return static_cast<const timer_t *>(stored)->id == *static_cast<const int *>(key) ? 0 : -1;
}

void _killTimer(client_t &client, const message_t &message) noexcept try {
    const bool hasData = message.payload && message.payload->data;
    const JsonPtr json = hasData ? parseJson(message.payload->data) : nullptr;
    const cJSON *const item = cJSON_GetObjectItem(json.get(), "id");
    if (!item) {
        return;
    }
    int id = item->valueint;
    if (void *const timer = bus_mk_q_delete(client.timer_queue, &id)) {
        busClientExTimerDelete(timer);
    } else {
        BUS_LOG(1, "  %s %s already remove timer %d\n", TAG, client.name.get(), id);
    }
} catch (const std::bad_alloc &) {
    count(client.counters.no_memory);
    BUS_LOG(5, "  %s %s killtimer failed\n", TAG, client.name.get());
}

void timerPass(client_t &client) noexcept {
    const double earliest = client.earliest_due.load();
    if (std::isinf(earliest) || now() < earliest) { // without a timer the clock is not read either
        return;
    }
    // What handlers set stands behind these, and waits for the next look.
    int waiting = bus_mk_q_count(client.timer_queue);
    for (int from = 1;;) {
        if (const int at = findNext(client, from, waiting)) {
            auto *const timer =
                static_cast<timer_t *>(bus_mk_q_delete_index(client.timer_queue, at));
            fire(client, *timer);
            busClientExTimerDelete(timer);
            --waiting;
            from = at;
        } else if (from > 1) {
            from = 1; // what was passed over may be due by now
        } else {
            return;
        }
    }
}

void timerPause(client_t &client) noexcept {
    bool woken = client.running.load(std::memory_order_relaxed) == 0;
    while (!woken && !bus_mk_q_empty(client.timer_queue) && bus_mk_q_empty(client.message_queue)) {
        bus_mk_q_wait(client.message_queue, kPause);
        const bool comes = !bus_mk_q_empty(client.message_queue);
        woken = comes || postWakeUp(client);
        // What is due precedes what has come, be it just before the wake-up; and where memory is
        // short for that, nothing else lets the loop look.
        if (comes || !woken || bus_mk_q_count(client.message_queue) > 1) {
            timerPass(client);
        }
    }
}

} // namespace bus

int busClientSettimer(client_t *client, timer_callback timer_func, long mstimeout, int type,
                      void *userdata) noexcept {
    bus::timer_t *const timer =
        bus::busClientExTimerNew(client, timer_func, mstimeout, type, userdata);
    if (!timer) {
        return -1;
    }
    // The timer may fire, and be gone, as soon as it is queued.
    const int id = timer->id;
    const double due = timer->timeout;
    const bus_mk_sent sent = bus_mk_q_offer(client->timer_queue, timer, bus_mk_q_tail, 0);
    if (sent == bus_mk_sent::kDone) {
        bus::noteDue(*client, due);
    } else {
        bus::countLost(sent, client->counters.own_full, client->counters.no_memory);
        BUS_LOG(4, "  %s %s settimer failed, queue is full\n", bus::TAG, client->name.get());
        bus::busClientExTimerDelete(timer);
    }
    if (sent == bus_mk_sent::kNoMemory) {
        return -1;
    }
    bus::attemptAgain([&] { return bus::hasMessage(*client) || bus::postWakeUp(*client); });
    BUS_LOG(2, "  %s %s set timer %d\n", bus::TAG, client->name.get(), id);
    return id;
}

int busClientKilltimer(client_t *client, int id) noexcept {
    if (!client) {
        return 0;
    }
    BUS_LOG(2, "  %s %s kill timer: %d\n", bus::TAG, client->name.get(), id);
    std::array<char, 32> payload{};
    const int length = std::snprintf(payload.data(), payload.size(), "{\"id\": %d}", id);
    bus::MessagePtr message =
        bus::ownMessage(*client, nullptr, bus::Action::kKillTimer, payload.data(), length);
    const bus_mk_sent sent = bus::handOver(client->message_queue, message, bus_mk_q_tail);
    if (sent != bus_mk_sent::kDone) {
        bus::countLost(sent, client->counters.own_full, client->counters.no_memory);
        BUS_LOG(4, "  %s %s killtimer failed, queue is full\n", bus::TAG, client->name.get());
    }
    return 0;
}
