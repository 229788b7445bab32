#include "bus_client/internal.h"
#include "bus_tools.h"

#include <memory>
#include <new>

namespace bus {
namespace {

constexpr int kLastTimerId = 32767;

// Ids run from 2 on: the counter starts below its least value and is set to it first.
int nextTimerId(client_t &client) noexcept {
    if (client.timerid < 1 || client.timerid >= kLastTimerId) {
        client.timerid = 1;
        BUS_LOG(4, "  %s timerId overstep the boundary 32767\n", kClientTag);
    }
    return ++client.timerid;
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
    const double now = clock_gettimestamp() * 1000.0;
    timer->id = nextTimerId(*client);
    timer->type = type;
    timer->timeout = static_cast<double>(mstimeout) + now;
    timer->userdata = userdata;
    timer->timer_func = timer_func;
    BUS_LOG(1, "  %s timer new %d, %lld, %lld\n", kClientTag, timer->id,
            static_cast<long long>(now), static_cast<long long>(timer->timeout));
    return timer;
}

int busClientExTimerDelete(void *timer) noexcept {
    const std::unique_ptr<timer_t> owned{static_cast<timer_t *>(timer)};
    if (owned) {
        BUS_LOG(1, "  %s %d timer delete\n", kClientTag, owned->id);
    }
    return 0;
}

int _timer_equal(void *key, void *stored) noexcept {
    return static_cast<const timer_t *>(stored)->id == *static_cast<const int *>(key) ? 0 : -1;
}

} // namespace bus

int busClientSettimer(client_t * /*client*/, timer_callback /*timer_func*/, long /*mstimeout*/,
                      int /*type*/, void * /*userdata*/) noexcept {
    return -1;
}

int busClientKilltimer(client_t * /*client*/, int /*id*/) noexcept {
    return 0;
}
