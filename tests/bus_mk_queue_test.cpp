#include "bus_mk_queue.h"

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

std::string g_told;

int tell(void *item, void * /*arg*/) {
    g_told += *static_cast<char *>(item);
    return 0;
}
int tellLast(void *item) {
    return tell(item, nullptr);
}
int sameCharacter(void *key, void *stored) {
    return *static_cast<char *>(key) == *static_cast<char *>(stored) ? 0 : -1;
}

TEST(Queue, is_one_sequence_with_room_for_so_many) {
    char a = 'a', b = 'b', c = 'c', d = 'd', likeC = 'c'; // an item is the address of one
    bus_mk_q_t *const q = bus_mk_q_new(3, sameCharacter);
    // What a call gave, what the queue then holds from the head on, and the most that it has held.
    const auto after = [q](const void *given) {
        g_told = {given ? *static_cast<const char *>(given) : '-', ' '};
        bus_mk_q_visit(q, tell, nullptr);
        const int count = static_cast<int>(g_told.size()) - 2;
        EXPECT_EQ(bus_mk_q_count(q), count);
        EXPECT_EQ(bus_mk_q_empty(q), count == 0);
        EXPECT_EQ(bus_mk_q_full(q), count >= 3);
        return g_told + ' ' + std::to_string(bus_mk_q_highest(q));
    };
    const auto send = [&](char &item, int pos, int extra = 0) {
        return after(bus_mk_q_offer(q, &item, pos, extra) == bus_mk_sent::kDone ? &item : nullptr);
    };
    const auto take = [&](int pos, int del = 0) { // and does not wait, whether it may or not
        return after(bus_mk_q_recv(q, bus_mk_q_empty(q), del, pos));
    };
    const auto remove = [&](int pos) { return after(bus_mk_q_delete_index(q, pos)); };
    const auto erase = [&](char &key) { return after(bus_mk_q_delete(q, &key)); };
    int at = 7;
    const auto find = [&](char &key) { return after(bus_mk_q_find(q, &key, &at)); };
    EXPECT_EQ((Texts{take(1), send(a, -1), send(b, 1), take(1, 1), take(1), send(c, -1)}),
              (Texts{"-  0", "a a 1", "b ab 2", "a ab 2", "a b 2", "c bc 2"}));
    EXPECT_EQ((Texts{send(a, 0), send(d, 0, 1), send(d, -1, 1), send(d, -1, 1), find(likeC)}),
              (Texts{"a abc 3", "- abc 3", "d abcd 4", "- abcd 4", "c abcd 4"}));
    EXPECT_EQ(
        (Texts{take(0), take(5), take(4, 1), remove(2), take(3, 2), send(b, 1), take(1)}),
        (Texts{"- abcd 4", "- abcd 4", "d abcd 4", "b acd 4", "d ac 4", "b abc 4", "a bc 4"}));
    EXPECT_EQ((Texts{send(d, 7), take(2), erase(likeC), find(likeC)}),
              (Texts{"d bcd 4", "c bd 4", "- bd 4", "- bd 4"}));
    EXPECT_EQ(at, 3);
    EXPECT_EQ(bus_mk_q_send(q, &a, -1) + bus_mk_q_send(q, nullptr, -1), -1);
    EXPECT_EQ(bus_mk_q_send(q, &c, -1), -1);
    EXPECT_EQ(erase(d), "d ba 4");
    g_told.clear();
    bus_mk_q_clear(q, tellLast, 1);
    EXPECT_EQ(g_told, "ba");
    EXPECT_EQ(after(nullptr), "-  4");
    bus_mk_q_clear(q, nullptr, 0);
    bus_mk_q_t *const ofAddresses = bus_mk_q_new(4, nullptr);
    bus_mk_q_send(ofAddresses, &b, -1);
    bus_mk_q_send(ofAddresses, &c, -1);
    bus_mk_q_send(ofAddresses, &likeC, -1);
    EXPECT_EQ(bus_mk_q_recv(ofAddresses, 0, 0, 1), &b);
    EXPECT_EQ(bus_mk_q_recv(ofAddresses, 0, 1, 2), &likeC);
    bus_mk_q_send(ofAddresses, &a, 1);
    EXPECT_EQ(bus_mk_q_find(ofAddresses, &likeC, &at), &likeC);
    bus_mk_q_clear(ofAddresses, nullptr, 0);
}

} // namespace
