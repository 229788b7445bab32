#include "bus_mk_thread.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

bus_mk_thread_mutex_t g_mutex;
bus_mk_thread_cond_t g_cond;
int g_entered;

// Four threads wait for each other, again and again; tells which this one is.
void *meet(void *told) {
    *static_cast<bus_mk_thread_t *>(told) = bus_mk_thread_self();
    for (int all = 4; all <= 1000; all += 4) {
        const bus_mk_guard lock{g_mutex};
        if (++g_entered == all) { // the last one wakes the others
            bus_mk_thread_cond_signal(&g_cond);
        }
        while (g_entered < all) {
            bus_mk_thread_cond_wait(&g_cond, &g_mutex);
        }
    }
    return told;
}

// Guards that one thread at a time is inside, and that none sleeps on.
TEST(Thread, event_is_remembered_for_one_wait_and_wakes_all_who_wait) {
    using namespace std::chrono;
    const auto start = steady_clock::now();
    for (const int result :
         {g_entered = 0, bus_mk_thread_mutex_init(&g_mutex), bus_mk_thread_cond_init(&g_cond),
         bus_mk_thread_mutex_lock(&g_mutex), bus_mk_thread_cond_signal(&g_cond),
         bus_mk_thread_cond_signal(&g_cond), bus_mk_thread_cond_wait(&g_cond, &g_mutex),
         bus_mk_thread_cond_wait_for(&g_cond, &g_mutex, 20),
         bus_mk_thread_mutex_unlock(&g_mutex)}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_GE(steady_clock::now() - start, milliseconds{20});
    const bus_mk_thread_t self = bus_mk_thread_self();
    bus_mk_thread_t threads[4], told[] = {self, self, self, self};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(bus_mk_thread_init(&threads[i]) + bus_mk_thread_equal(&self, &told[i]), 1);
        threads[i].attr.stack_depth = i - 1; // the default twice, and the least that there is
        ASSERT_EQ(bus_mk_thread_create(&threads[i], meet, &told[i]), 0);
    }
    for (int i = 0; i < 8; ++i) { // where no thread is left, joining does not wait
        EXPECT_EQ(bus_mk_thread_join(&threads[i % 4]), 0);
        EXPECT_EQ(bus_mk_thread_equal(&self, &told[i % 4]), 0);
    }
    EXPECT_EQ(g_entered, 1000);
}

} // namespace
