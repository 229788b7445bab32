#include "bus_mk_queue.h"

#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

std::string g_told;
int tell(void *item, void * /*arg*/) {
    g_told += *static_cast<char *>(item);
    return 0;
}
int sameLetter(void *key, void *stored) {
    return *static_cast<char *>(key) == *static_cast<char *>(stored) ? 0 : -1;
}

class Queue : public testing::Test {
protected:
    ~Queue() override { bus_mk_q_clear(q_, nullptr, 0); }
    // What a call gave, then all that the queue holds.
    std::string after(const void *result) {
        g_told = {result ? *static_cast<const char *>(result) : '-', ' '};
        EXPECT_EQ(bus_mk_q_visit(q_, tell, nullptr), 0);
        EXPECT_EQ(bus_mk_q_count(q_), static_cast<int>(g_told.size()) - 2);
        EXPECT_EQ(bus_mk_q_full(q_), g_told.size() >= 5);
        EXPECT_EQ(bus_mk_q_empty(q_), g_told.size() == 2);
        return g_told;
    }
    int send(char &item) { return bus_mk_q_send(q_, &item, -1); }

    bus_mk_q_t *q_ = bus_mk_q_new(3, sameLetter);
    char a_ = 'a', b_ = 'b', c_ = 'c', d_ = 'd';
};

TEST_F(Queue, full_queue_refuses_and_leaves_item) {
    using enum bus_mk_sent;
    const std::tuple<char *, int, int, bus_mk_sent, const char *> kOffers[] = {
        {&b_, -1, 0, kDone, "- b"},   {&a_, 0, 0, kDone, "- ab"},  {&c_, 1, 0, kDone, "- acb"},
        {&d_, -1, 0, kFull, "- acb"}, {&d_, 0, 9, kFull, "- acb"}, {&d_, -1, 1, kDone, "- acbd"},
        {&a_, -1, 1, kFull, "- acbd"}};
    for (const auto &[item, pos, extra, sent, held] : kOffers) {
        EXPECT_EQ(bus_mk_q_offer(q_, item, pos, extra), sent);
        EXPECT_EQ(after(nullptr), held);
    }
    EXPECT_EQ(bus_mk_q_highest(q_), 4);
}

// Nothing looks at the whole queue in between, which would bring its two parts together.
TEST_F(Queue, each_item_taken_makes_one_place) {
    EXPECT_EQ(send(a_), 0);
    EXPECT_EQ(bus_mk_q_recv(q_, 0, 0, 1), &a_);
    EXPECT_EQ(send(a_) + send(b_), 0);
    EXPECT_EQ(bus_mk_q_recv(q_, 1, 0, 1), &a_);
    EXPECT_EQ(bus_mk_q_highest(q_), 2);
    EXPECT_EQ(send(c_) + send(c_) + send(c_), -1);
    EXPECT_EQ(bus_mk_q_delete(q_, &b_), &b_);
    EXPECT_EQ(send(d_) + send(d_), -1);
    EXPECT_EQ(after(bus_mk_q_recv(q_, 1, 2, 3)), "d cc");
}

TEST_F(Queue, items_are_had_by_position_key_or_place) {
    EXPECT_EQ(bus_mk_q_send(q_, nullptr, -1), -1);
    EXPECT_EQ(bus_mk_q_append(q_, nullptr), nullptr);
    send(a_);
    bus_mk_list_node *const place = bus_mk_q_append(q_, &b_);
    send(c_);
    int index = 9;
    EXPECT_EQ(bus_mk_q_visit(q_, sameLetter, &c_), -1);    // ends at the first that differs
    EXPECT_EQ(after(bus_mk_q_recv(q_, 0, 1, 2)), "b abc"); // left in place
    EXPECT_EQ(after(bus_mk_q_recv(q_, 0, 0, 0)), "- abc");
    EXPECT_EQ(after(bus_mk_q_find(q_, &c_, &index)), "c abc");
    EXPECT_EQ(after(bus_mk_q_find(q_, &d_, &index)), "- abc");
    EXPECT_EQ(index, 3);
    EXPECT_EQ(after(bus_mk_q_delete_index(q_, 1)), "a bc");
    EXPECT_EQ(after(bus_mk_q_take_out(q_, place)), "b c");
    EXPECT_EQ(send(a_) + send(b_), 0);
    bus_mk_q_delete_if(q_, sameLetter, &a_);
    EXPECT_EQ(after(nullptr), "- cb");
    bus_mk_q_clear(
        q_, [](void *item) { return tell(item, nullptr); }, 1);
    EXPECT_EQ(g_told, "- cbcb"); // told once more, head first
    EXPECT_EQ(after(nullptr), "- ");
}

// Guards what no single thread shows: an item or a wake-up that is lost between two. One item lets
// the receivers sleep; many keep senders and receivers in each other's way.
TEST(QueueThreads, items_go_round_in_order) {
    const Deadline deadline{"items that go round"};
    char items[40];
    for (const int count : {1, 40}) {
        bus_mk_q_t *ring[4];
        std::ranges::generate(ring, [] { return bus_mk_q_new(40, nullptr); });
        for (int i = 0; i < count; ++i) {
            bus_mk_q_send(ring[0], &items[i], -1);
        }
        inThreads(4, [&](int number) {
            for (int i = 0; i < 200; ++i) {
                if (number == 1) {
                    bus_mk_q_wait(ring[1], 3600 * 1000);
                }
                EXPECT_LE(bus_mk_q_count(ring[number]), 40);
                void *const item = bus_mk_q_recv(ring[number], 0, 0, 1);
                EXPECT_EQ(item, &items[i % count]);
                if (number == 0 && i < 20) {
                    bus_mk_q_wait(ring[0], 4); // the others may fall asleep
                }
                EXPECT_EQ(bus_mk_q_send(ring[(number + 1) % 4], item, number == 2 ? 40 : -1), 0);
            }
        });
        std::ranges::for_each(ring, [](auto *q) { bus_mk_q_clear(q, nullptr, 0); });
    }
}

} // namespace
