// Orders of events that chance brings too seldom: a thread is held inside a function of the library
// while others go on. The program is linked with those functions wrapped, by their symbols.
#include "bus_client/internal.h"
#include "bus_mk_pool.h"
#include "running.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

extern "C" {
bus_mk_sent __real__Z13bus_mk_q_postP12bus_mk_queuePvRb(bus_mk_q_t *, void *, bool &);
int __real__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(bus_mk_thread_cond_t *);
void *__real__Z15bus_mk_pool_getv();
}

namespace {

// A place where the thread that gets there first stays until it is let go, or for the limit.
struct Place {
    void stay(std::chrono::milliseconds limit = kLimit) {
        inside.set();
        leftInTime = letGo.wait(limit);
    }
    Signal inside;
    Signal letGo;
    bool leftInTime = false;
};

std::atomic<bus_mk_q_t *> heldQueue{nullptr}; // whose next send is held, before it
std::atomic<Place *> sending{nullptr};
thread_local Place *signalling = nullptr; // where this thread's next signal is held, before it
thread_local bool memoryIsShort = false;  // no message can be made by this thread

} // namespace

extern "C" {

bus_mk_sent __wrap__Z13bus_mk_q_postP12bus_mk_queuePvRb(bus_mk_q_t *q, void *data, bool &wake) {
    bus_mk_q_t *held = q;
    if (heldQueue.compare_exchange_strong(held, nullptr)) {
        sending.load()->stay();
    }
    return __real__Z13bus_mk_q_postP12bus_mk_queuePvRb(q, data, wake);
}

int __wrap__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(bus_mk_thread_cond_t *cond) {
    if (Place *const place = std::exchange(signalling, nullptr)) {
        place->stay(std::chrono::milliseconds{50});
    }
    return __real__Z25bus_mk_thread_cond_signalP20bus_mk_thread_cond_t(cond);
}

void *__wrap__Z15bus_mk_pool_getv() {
    return memoryIsShort ? nullptr : __real__Z15bus_mk_pool_getv();
}
}

namespace {

TEST(HeldThreads, call_on_its_way_to_a_node_that_is_closed_without_memory_is_answered) {
    const Deadline deadline{"a call that a close has left behind"};
    const Bus bus{6};
    Node idle{bus, "idle", {}, false};
    Node caller{bus, "caller"};
    Place place;
    sending = &place;
    heldQueue = idle.get()->message_queue;
    std::string answer;
    std::thread thread{[&] { answer = caller.call("/idle/x"); }};
    ASSERT_TRUE(place.inside.wait()); // the bus is about to hand the request on
    memoryIsShort = true;
    idle.close(); // whose wake-up of the bus is lost
    memoryIsShort = false;
    place.letGo.set();
    thread.join();
    EXPECT_EQ(answer, bus::kNoHandlerAnswer);
}

TEST(HeldThreads, receiver_whose_wait_is_limited_does_not_overtake_its_senders_signal) {
    const Deadline deadline{"a held signal"};
    bus_mk_q_t *const q = bus_mk_q_new(2, nullptr);
    std::atomic<bool> done{false};
    std::thread receiver{[&] {
        while (!done) {
            bus_mk_q_wait(q, 1);
            if (void *const item = bus_mk_q_recv(q, 1, 0, 1)) {
                static_cast<Place *>(item)->letGo.set(); // and might destroy the queue
            }
        }
    }};
    bool held = false;
    while (!held) { // until a send has met a receiver that waits
        Place place;
        signalling = &place;
        bus_mk_q_send(q, &place, -1);
        signalling = nullptr;
        EXPECT_TRUE(place.letGo.wait());
        held = place.inside.wait(std::chrono::milliseconds{0});
        EXPECT_FALSE(place.leftInTime);
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    done = true;
    receiver.join();
    bus_mk_q_clear(q, nullptr, 0);
}

} // namespace
