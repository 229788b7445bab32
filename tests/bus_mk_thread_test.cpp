#include "bus_mk_thread.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

class Event : public testing::Test {
protected:
    Event() {
        bus_mk_thread_mutex_init(&mutex_);
        bus_mk_thread_cond_init(&cond_);
    }

    bus_mk_thread_mutex_t mutex_;
    bus_mk_thread_cond_t cond_;
};

TEST_F(Event, signal_is_remembered_for_one_wait) {
    bus_mk_thread_cond_signal(&cond_);
    bus_mk_thread_cond_signal(&cond_);
    const bus_mk_guard lock{mutex_};
    bus_mk_thread_cond_wait(&cond_, &mutex_);
    const auto start = std::chrono::steady_clock::now();
    bus_mk_thread_cond_wait_for(&cond_, &mutex_, 20); // cleared: only the time ends this
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{20});
}

TEST_F(Event, one_signal_wakes_every_waiter) {
    int waiting = 0;
    for (int round = 0; round < 50; ++round) {
        inThreads(4, [&](int number) {
            if (number > 0) {
                const bus_mk_guard lock{mutex_};
                ++waiting;
                bus_mk_thread_cond_wait(&cond_, &mutex_);
                --waiting;
                return;
            }
            for (int seen = 0; seen < 3;) {
                const bus_mk_guard lock{mutex_}; // had only while each of them is past its release
                seen = waiting;
            }
            bus_mk_thread_cond_signal(&cond_);
        });
        EXPECT_EQ(waiting, 0);
    }
}

TEST_F(Event, flag_under_the_mutex_is_never_missed) {
    constexpr int kTurns = 20000;
    int turn = 0;
    inThreads(2, [&](int first) {
        for (int i = first; i < kTurns; i += 2) {
            const bus_mk_guard lock{mutex_};
            while (turn != i) {
                bus_mk_thread_cond_wait(&cond_, &mutex_);
            }
            turn = i + 1;
            bus_mk_thread_cond_signal(&cond_);
        }
    });
    EXPECT_EQ(turn, kTurns);
}

TEST(Mutex, keeps_threads_apart) {
    bus_mk_thread_mutex_t mutex;
    EXPECT_EQ(mutex.hMutex, 0U);
    EXPECT_EQ(bus_mk_thread_mutex_init(&mutex), 0);
    int counter = 0;
    inThreads(4, [&](int) {
        for (int i = 0; i < 20000; ++i) {
            const bus_mk_guard lock{mutex};
            ++counter;
        }
    });
    EXPECT_EQ(counter, 80000);
    EXPECT_EQ(bus_mk_thread_mutex_destroy(&mutex), 0);
    EXPECT_EQ(mutex.hMutex, 0U);
}

TEST(Thread, runs_its_body_and_is_joined) {
    for (const int stack : {0, 1, 100000, -1}) {
        bus_mk_thread_t thread;
        bus_mk_thread_init(&thread);
        thread.attr.stack_depth = stack;
        EXPECT_EQ(bus_mk_thread_join(&thread), 0); // no thread yet
        bus_mk_thread_t other{};
        const auto body = [](void *arg) -> void * {
            *static_cast<bus_mk_thread_t *>(arg) = bus_mk_thread_self();
            return arg;
        };
        ASSERT_EQ(bus_mk_thread_create(&thread, body, &other), 0) << stack;
        EXPECT_NE(thread.pid, nullptr);
        EXPECT_EQ(bus_mk_thread_join(&thread), 0);
        EXPECT_EQ(thread.pid, nullptr);
        const bus_mk_thread_t self = bus_mk_thread_self();
        const bus_mk_thread_t again = bus_mk_thread_self();
        EXPECT_EQ(bus_mk_thread_equal(&self, &again), 1);
        EXPECT_EQ(bus_mk_thread_equal(&self, &other), 0);
    }
}

} // namespace
