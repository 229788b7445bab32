// An order of events that chance brings too seldom: a thread is held inside a function of the
// library while others go on. The program is linked with that function wrapped, by its symbol.
#include "bus_mk_queue.h"
#include "bus_mk_thread.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

// Where the first thread that comes by stays until it is let go, or for a while.
struct Place {
    Signal inside{}, letGo{};
    bool leftInTime = false;
};
std::atomic<Place *> place{nullptr};

} // namespace

extern "C" {
int __real__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(bus_mk_thread_cond_t *);
int __wrap__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(bus_mk_thread_cond_t *cond) {
    if (Place *const here = place.exchange(nullptr)) {
        here->inside.set();
        here->leftInTime = here->letGo.wait(std::chrono::milliseconds{100});
    }
    return __real__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(cond);
}
}

namespace {

TEST(HeldThreads, receiver_whose_wait_is_limited_does_not_overtake_its_senders_signal) {
    bus_mk_q_t *const q = bus_mk_q_new(2, nullptr);
    for (bool held = false; !held;) { // until a send has met a receiver that waits
        Place signalling;
        place = &signalling;
        std::thread sender{[&] { bus_mk_q_send(q, q, -1); }};
        while (!bus_mk_q_recv(q, 1, 0, 1)) {
            bus_mk_q_wait(q, 10);
        }
        signalling.letGo.set(); // and might destroy the queue
        sender.join();
        place = nullptr;
        held = signalling.inside.wait(std::chrono::milliseconds{0});
        EXPECT_FALSE(signalling.leftInTime);
    }
    bus_mk_q_clear(q, nullptr, 0);
}

} // namespace
