#include "bus_mk_queue.h"

#include "bus_mk_thread.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

int equalText(void *key, void *stored) {
    return std::string{static_cast<char *>(key)} == static_cast<char *>(stored) ? 0 : -1;
}
int record(void *item) {
    static_cast<char *>(item)[0] = '#';
    return 0;
}

class Queue : public testing::Test {
protected:
    ~Queue() override { bus_mk_q_clear(q_, nullptr, 0); }
    std::string take(int pos = 1) {
        void *const item = bus_mk_q_recv(q_, 1, 0, pos);
        return item ? static_cast<char *>(item) : "-";
    }
    std::string takeAll() {
        std::string all;
        while (bus_mk_q_count(q_) > 0) {
            all += take();
        }
        return all;
    }
    int send(std::string &text, int pos = -1) { return bus_mk_q_send(q_, text.data(), pos); }

    std::string a_ = "a", b_ = "b", c_ = "c", d_ = "d";
    bus_mk_q_t *q_ = bus_mk_q_new(3, equalText);
};

TEST_F(Queue, full_queue_refuses_and_leaves_item) {
    EXPECT_EQ(bus_mk_q_send(q_, nullptr, -1), -1);
    EXPECT_EQ(send(a_), 0);
    EXPECT_EQ(send(b_), 0);
    EXPECT_FALSE(bus_mk_q_full(q_));
    EXPECT_EQ(send(c_, 0), 0);
    EXPECT_TRUE(bus_mk_q_full(q_));
    EXPECT_EQ(send(d_), -1);
    EXPECT_EQ(bus_mk_q_append(q_, d_.data()), nullptr);
    EXPECT_EQ(bus_mk_q_offer(q_, d_.data(), -1, 1), bus_mk_sent::kDone);
    EXPECT_EQ(bus_mk_q_offer(q_, d_.data(), -1, 1), bus_mk_sent::kFull);
    EXPECT_EQ(bus_mk_q_offer(q_, d_.data(), 0, 9), bus_mk_sent::kFull);
    EXPECT_EQ(bus_mk_q_count(q_), 4);
    EXPECT_EQ(take(), "c");
    EXPECT_EQ(send(a_), -1); // still as many as the capacity
    EXPECT_EQ(takeAll(), "abd");
    EXPECT_EQ(take(), "-");
}

TEST_F(Queue, receive_peeks_and_takes_by_position) {
    send(a_), send(b_), send(c_);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(bus_mk_q_recv(q_, 0, 1, 2), b_.data());
    }
    EXPECT_EQ(take(4), "-");
    EXPECT_EQ(take(0), "-");
    EXPECT_EQ(bus_mk_q_recv(q_, 1, 2, 3), c_.data());
    EXPECT_EQ(bus_mk_q_delete_index(q_, 2), b_.data());
    EXPECT_EQ(bus_mk_q_delete_index(q_, 2), nullptr);
    EXPECT_EQ(bus_mk_q_count(q_), 1);
}

TEST_F(Queue, items_are_found_and_removed_by_key_or_place) {
    send(a_);
    bus_mk_list_node *const place = bus_mk_q_append(q_, b_.data());
    send(c_);
    char key[] = "c";
    int index = 9;
    EXPECT_EQ(bus_mk_q_find(q_, key, &index), c_.data());
    EXPECT_EQ(index, 3);
    EXPECT_EQ(bus_mk_q_delete(q_, key), c_.data());
    EXPECT_EQ(bus_mk_q_find(q_, key, &index), nullptr);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(bus_mk_q_take_out(q_, place), b_.data());
    send(c_), send(d_);
    const auto isAnother = [](void *kept, void *item) {
        return *static_cast<char *>(item) == *static_cast<char *>(kept) ? -1 : 0;
    };
    bus_mk_q_delete_if(q_, isAnother, key);
    EXPECT_EQ(takeAll(), "c");
}

TEST_F(Queue, visit_and_clear_go_head_first) {
    send(a_), send(b_), send(c_);
    std::string seen;
    const auto visit = [](void *item, void *arg) {
        *static_cast<std::string *>(arg) += static_cast<char *>(item);
        return *static_cast<char *>(item) == 'b' ? 5 : 0;
    };
    EXPECT_EQ(bus_mk_q_visit(q_, visit, &seen), 5);
    EXPECT_EQ(seen, "ab");
    EXPECT_EQ(bus_mk_q_clear(q_, record, 1), 0);
    EXPECT_EQ(a_ + b_ + c_, "###");
    EXPECT_EQ(bus_mk_q_count(q_), 0);
    EXPECT_EQ(send(d_), 0); // it goes on, empty
}

TEST_F(Queue, blocked_receiver_is_woken_by_a_send) {
    const Deadline deadline{"a receiver"};
    for (const int pos : {1, 2}) {
        void *item = this;
        std::thread receiver{[&] { item = bus_mk_q_recv(q_, 0, 0, pos); }};
        EXPECT_EQ(bus_mk_q_send(q_, nullptr, -1), -1); // wakes nobody
        send(a_);
        receiver.join();
        EXPECT_EQ(item, pos == 1 ? a_.data() : nullptr);
        EXPECT_EQ(take(), pos == 1 ? "-" : "a");
    }
    send(a_);
    EXPECT_EQ(bus_mk_q_recv(q_, 0, 0, 0), nullptr); // no position, but not empty: no wait
}

TEST_F(Queue, timed_wait_ends_with_a_message_or_the_time) {
    const Deadline deadline{"a timed wait"};
    bus_mk_q_wait(q_, 1);
    std::thread waiter{[&] {
        while (bus_mk_q_count(q_) == 0) {
            bus_mk_q_wait(q_, 3600 * 1000);
        }
    }};
    send(a_);
    waiter.join();
    bus_mk_q_wait(q_, 3600 * 1000); // not empty: no wait
}

TEST(QueueThreads, no_item_is_lost_or_taken_twice) {
    constexpr int kItems = 20000;
    bus_mk_q_t *const q = bus_mk_q_new(64, nullptr);
    std::vector<int> numbers(3 * kItems);
    std::iota(numbers.begin(), numbers.end(), 0);
    inThreads(4, [&](int number) {
        if (number == 3) {
            int next[] = {0, kItems, 2 * kItems}; // each sender's items come in its order
            for (int i = 0; i < 3 * kItems; ++i) {
                const int item = *static_cast<int *>(bus_mk_q_recv(q, 0, 0, 1));
                EXPECT_EQ(item, next[item / kItems]++);
            }
            return;
        }
        for (int i = number * kItems; i < (number + 1) * kItems; ++i) {
            while (bus_mk_q_send(q, &numbers[static_cast<std::size_t>(i)], -1) != 0) {
                std::this_thread::yield();
            }
        }
    });
    EXPECT_EQ(bus_mk_q_count(q), 0);
    bus_mk_q_clear(q, nullptr, 0);
}

} // namespace
