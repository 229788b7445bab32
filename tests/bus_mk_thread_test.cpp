#include "bus_mk_thread.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// A mutex and an event, and waiters that report when they have the mutex back.
class Event : public testing::Test {
protected:
    Event() {
        bus_mk_thread_mutex_init(&mutex_);
        bus_mk_thread_cond_init(&cond_);
    }
    ~Event() override {
        for (std::thread &waiter : waiters_) {
            waiter.join();
        }
    }
    void startWaiter() {
        waiters_.emplace_back([this] {
            const bus_mk_guard lock{mutex_};
            ++waiting_;
            bus_mk_thread_cond_wait(&cond_, &mutex_);
            ++woken_;
            if (--waiting_ == 0) {
                allWoken_.set();
            }
        });
    }
    void awaitWaiting(int count) {
        for (int waiting = 0; waiting < count;) {
            const bus_mk_guard lock{mutex_}; // had only while each of them is past its release
            waiting = waiting_;
        }
    }

    bus_mk_thread_mutex_t mutex_;
    bus_mk_thread_cond_t cond_;
    int waiting_ = 0;
    int woken_ = 0;
    Signal allWoken_;
    std::vector<std::thread> waiters_;
};

TEST_F(Event, signal_is_remembered_for_one_wait) {
    bus_mk_thread_cond_signal(&cond_);
    bus_mk_thread_cond_signal(&cond_);
    startWaiter();
    ASSERT_TRUE(allWoken_.wait());
    const auto start = std::chrono::steady_clock::now();
    const bus_mk_guard lock{mutex_};
    bus_mk_thread_cond_wait_for(&cond_, &mutex_, 20); // cleared: only the time ends this
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{20});
}

TEST_F(Event, one_signal_wakes_every_waiter) {
    for (int round = 0; round < 50; ++round) {
        startWaiter();
        startWaiter();
        startWaiter();
        awaitWaiting(3);
        bus_mk_thread_cond_signal(&cond_);
        for (std::thread &waiter : waiters_) {
            waiter.join();
        }
        waiters_.clear();
    }
    EXPECT_EQ(woken_, 150);
}

TEST_F(Event, flag_under_the_mutex_is_never_missed) {
    constexpr int kTurns = 20000;
    int turn = 0;
    std::thread other{[&] {
        for (int i = 1; i < kTurns; i += 2) {
            const bus_mk_guard lock{mutex_};
            while (turn != i) {
                bus_mk_thread_cond_wait(&cond_, &mutex_);
            }
            turn = i + 1;
            bus_mk_thread_cond_signal(&cond_);
        }
    }};
    for (int i = 0; i < kTurns; i += 2) {
        const bus_mk_guard lock{mutex_};
        while (turn != i) {
            bus_mk_thread_cond_wait(&cond_, &mutex_);
        }
        turn = i + 1;
        bus_mk_thread_cond_signal(&cond_);
    }
    other.join();
    EXPECT_EQ(turn, kTurns);
}

TEST(Mutex, keeps_threads_apart) {
    bus_mk_thread_mutex_t mutex;
    EXPECT_EQ(mutex.hMutex, 0U);
    EXPECT_EQ(bus_mk_thread_mutex_init(&mutex), 0);
    int counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                const bus_mk_guard lock{mutex};
                ++counter;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
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
