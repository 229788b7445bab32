#include "bus_mk_thread.h"

#include "test_support.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

TEST(Event, remembers_a_signal_for_one_wait_and_wakes_all_who_wait) {
    const Deadline deadline{"threads that wait for each other"};
    bus_mk_thread_mutex_t mutex;
    bus_mk_thread_cond_t cond;
    const auto start = std::chrono::steady_clock::now();
    for (const int result :
         {bus_mk_thread_mutex_init(&mutex), bus_mk_thread_cond_init(&cond),
          bus_mk_thread_mutex_lock(&mutex), bus_mk_thread_cond_signal(&cond),
          bus_mk_thread_cond_signal(&cond), bus_mk_thread_cond_wait(&cond, &mutex),
          bus_mk_thread_cond_wait_for(&cond, &mutex, 20), bus_mk_thread_mutex_unlock(&mutex)}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{20});
    int entered = 0; // guards that one thread at a time is inside, and that none sleeps on
    inThreads(4, [&](int) {
        for (int all = 4; all <= 1000; all += 4) {
            const bus_mk_guard lock{mutex};
            if (++entered == all) { // the last one wakes the others
                bus_mk_thread_cond_signal(&cond);
            }
            while (entered < all) {
                bus_mk_thread_cond_wait(&cond, &mutex);
            }
        }
    });
    EXPECT_EQ(entered, 1000);
    EXPECT_EQ(bus_mk_thread_cond_destroy(&cond) + bus_mk_thread_mutex_destroy(&mutex), 0);
    EXPECT_EQ(mutex.hMutex + cond.cond, 0U);
}

TEST(Thread, runs_its_body_and_is_joined) {
    const auto tellItself = [](void *told) {
        *static_cast<bus_mk_thread_t *>(told) = bus_mk_thread_self();
        return told;
    };
    const bus_mk_thread_t self = bus_mk_thread_self();
    for (const int stack : {0, 1, 100000, -1}) {
        bus_mk_thread_t thread, told = bus_mk_thread_self();
        EXPECT_EQ(bus_mk_thread_init(&thread), 0);
        thread.attr.stack_depth = stack;
        EXPECT_EQ(bus_mk_thread_equal(&self, &told), 1);
        ASSERT_EQ(bus_mk_thread_create(&thread, tellItself, &told), 0) << stack;
        EXPECT_EQ(bus_mk_thread_join(&thread), 0);
        EXPECT_EQ(bus_mk_thread_equal(&self, &told), 0);
        EXPECT_EQ(thread.pid, nullptr);
        EXPECT_EQ(bus_mk_thread_join(&thread), 0); // no thread: no wait
    }
}

} // namespace
