#include "bus_mk_thread.h"

#include <gtest/gtest.h>

#include <chrono>

TEST(Thread, event_is_remembered_for_one_wait) {
    bus_mk_thread_mutex_t mutex;
    bus_mk_thread_cond_t cond;
    const auto start = std::chrono::steady_clock::now();
    for (const int result :
         {bus_mk_thread_mutex_init(&mutex), bus_mk_thread_cond_init(&cond),
          bus_mk_thread_mutex_lock(&mutex), bus_mk_thread_cond_signal(&cond),
          bus_mk_thread_cond_signal(&cond), bus_mk_thread_cond_wait(&cond, &mutex),
          bus_mk_thread_cond_wait_for(&cond, &mutex, 20)}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_NE(mutex.hMutex.load(), bus_mk_thread_mutex_ready); // locked again
    EXPECT_EQ(bus_mk_thread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(bus_mk_thread_mutex_destroy(&mutex) + bus_mk_thread_cond_destroy(&cond), 0);
    EXPECT_EQ(mutex.hMutex.load() + cond.cond.load(), 0U); // as before they were made
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{20});
}

TEST(Thread, runs_its_function_and_is_waited_for_once) {
    const auto tellSelf = [](void *told) {
        *static_cast<bus_mk_thread_t *>(told) = bus_mk_thread_self();
        return told;
    };
    const bus_mk_thread_t self = bus_mk_thread_self();
    for (const int depth : {0, 1}) { // the default, and the least that there is
        bus_mk_thread_t thread, told = self;
        EXPECT_EQ(bus_mk_thread_init(&thread) + bus_mk_thread_equal(&self, &told), 1);
        thread.attr.stack_depth = depth;
        EXPECT_EQ(bus_mk_thread_create(&thread, tellSelf, &told), 0);
        // Where no thread is left, joining does not wait.
        EXPECT_EQ(bus_mk_thread_join(&thread) + bus_mk_thread_join(&thread), 0);
        EXPECT_EQ(bus_mk_thread_equal(&self, &told), 0);
    }
}
