#include "bus_mk_thread.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

TEST(Thread, event_is_remembered_for_one_wait) {
    using namespace std::chrono;
    bus_mk_thread_mutex_t mutex;
    bus_mk_thread_cond_t cond;
    const auto start = steady_clock::now();
    for (const int result :
         {bus_mk_thread_mutex_init(&mutex), bus_mk_thread_cond_init(&cond),
          bus_mk_thread_mutex_lock(&mutex), bus_mk_thread_cond_signal(&cond),
          bus_mk_thread_cond_signal(&cond), bus_mk_thread_cond_wait(&cond, &mutex),
          bus_mk_thread_cond_wait_for(&cond, &mutex, 20), bus_mk_thread_mutex_unlock(&mutex)}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_GE(steady_clock::now() - start, milliseconds{20});
}

void *tellSelf(void *told) {
    *static_cast<bus_mk_thread_t *>(told) = bus_mk_thread_self();
    return told;
}

TEST(Thread, runs_its_function_and_is_waited_for_once) {
    const bus_mk_thread_t self = bus_mk_thread_self();
    bus_mk_thread_t threads[4], told[] = {self, self, self, self};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(bus_mk_thread_init(&threads[i]) + bus_mk_thread_equal(&self, &told[i]), 1);
        threads[i].attr.stack_depth = i - 1; // the default twice, and the least that there is
        ASSERT_EQ(bus_mk_thread_create(&threads[i], tellSelf, &told[i]), 0);
    }
    for (int i = 0; i < 8; ++i) { // where no thread is left, joining does not wait
        EXPECT_EQ(bus_mk_thread_join(&threads[i % 4]), 0);
        EXPECT_EQ(bus_mk_thread_equal(&self, &told[i % 4]), 0);
    }
}

} // namespace
