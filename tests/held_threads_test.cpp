// Orders of events that chance brings too seldom: a thread is held inside a function of the library
// while others go on. The program is linked with those functions wrapped, by their symbols.
#include "bus_client/internal.h"
#include "bus_mk_pool.h"
#include "running.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

// Where the first thread that comes by stays until it is let go, or for a while.
struct Place {
    bus_mk_q_t *sentTo; // null: where a signal is given, instead
    Signal inside{}, letGo{};
    bool leftInTime = false;
};
std::atomic<Place *> place{nullptr};
thread_local bool memoryIsShort = false; // no message can be made by this thread

void comeBy(const bus_mk_q_t *sentTo) {
    Place *here = place;
    if (here && here->sentTo == sentTo && place.compare_exchange_strong(here, nullptr)) {
        here->inside.set();
        here->leftInTime = here->letGo.wait(std::chrono::milliseconds{100});
    }
}

} // namespace

extern "C" {
bus_mk_sent __real__Z13bus_mk_q_postP12bus_mk_queuePvRb(bus_mk_q_t *, void *, bool &);
bus_mk_sent __wrap__Z13bus_mk_q_postP12bus_mk_queuePvRb(bus_mk_q_t *q, void *data, bool &wake) {
    comeBy(q);
    return __real__Z13bus_mk_q_postP12bus_mk_queuePvRb(q, data, wake);
}
int __real__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(bus_mk_thread_cond_t *);
int __wrap__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(bus_mk_thread_cond_t *cond) {
    comeBy(nullptr);
    return __real__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(cond);
}
void *__real__Z15bus_mk_pool_getv();
void *__wrap__Z15bus_mk_pool_getv() {
    return memoryIsShort ? nullptr : __real__Z15bus_mk_pool_getv();
}
int __real_rename(const char *, const char *);
int __wrap_rename(const char *from, const char *to) { // the first succeeds
    static int done = 0;
    return done++ == 0 ? __real_rename(from, to) : -1;
}
}

namespace {

TEST(HeldThreads, call_on_its_way_to_a_node_that_is_closed_without_memory_is_answered) {
    const Deadline deadline{"a call that a close has left behind"};
    const Bus bus;
    Node idle{bus, "idle", {}, false};
    Node caller{bus, "caller"};
    Place sending{idle.get()->message_queue};
    place = &sending;
    std::thread thread{[&] { EXPECT_EQ(caller.call("/idle/x"), bus::kNoHandlerAnswer); }};
    ASSERT_TRUE(sending.inside.wait()); // the bus is about to hand the request on
    memoryIsShort = true;
    idle.publish("t");
    idle.close(); // whose wake-up of the bus is lost
    memoryIsShort = false;
    EXPECT_EQ(count(bus.log(), "malloc error"), 3U); // with the leave request, one line each
    EXPECT_EQ(count(bus.log(), "[E] "), 3U);
    sending.letGo.set();
    thread.join();
}

TEST(HeldThreads, file_that_is_set_aside_outlives_the_renames_that_fail_then) {
    const TempDir home;
    std::ofstream{home.file("keys.json")} << "[1]";
    const Bus bus{3, R"(,"homePath":")" + home.path() + '"'};
    Node{bus, "n"}.call("/localKeys/a", R"({"operation":"set","data":1,"persist":"true"})");
    EXPECT_EQ(readFile(home.file("keys.json.bad")), "[1]");
}

TEST(HeldThreads, receiver_whose_wait_is_limited_does_not_overtake_its_senders_signal) {
    bus_mk_q_t *const q = bus_mk_q_new(2, nullptr);
    for (bool held = false; !held;) { // until a send has met a receiver that waits
        Place signalling{nullptr};
        place = &signalling;
        std::thread sender{[&] {
            std::this_thread::sleep_for(std::chrono::milliseconds{1});
            bus_mk_q_send(q, q, -1);
        }};
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
