#include "bus_mk_queue.h"

#include "bus_mk_row.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using Items = std::vector<int *>;
Items g_told;

int tell(void *item, void * /*arg*/) {
    g_told.push_back(static_cast<int *>(item));
    return 0;
}
int tellLast(void *item) {
    return tell(item, nullptr);
}
int sameValue(void *key, void *stored) {
    return *static_cast<int *>(key) == *static_cast<int *>(stored) ? 0 : -1;
}

// The queue beside a plain sequence, through any row of operations. Positions count from 1.
struct Sequence {
    explicit Sequence(int places) : capacity{places}, q{bus_mk_q_new(places, sameValue)} {}

    int size() const { return static_cast<int>(held.size()); }
    void *take(int pos, bool removed = true) {
        int *const item = pos >= 1 && pos <= size() ? held[pos - 1U] : nullptr;
        if (item && removed) {
            held.erase(held.begin() + pos - 1);
        }
        return item;
    }
    void insert(int *item, int pos) {
        held.insert(pos < 0 || pos > size() ? held.end() : held.begin() + pos, item);
        highest = std::max(highest, size());
    }
    void step(bool fills) {
        int *const item = &values[random() % values.size()];
        const int pos = random() % 2 == 0 ? 1 : static_cast<int>(random() % (held.size() + 3)) - 1;
        const int del = static_cast<int>(random() % 3);
        const auto operation = random() % (fills ? 16U : 5U);
        if (operation == 0) {
            const auto same = [&](const int *other) { return *other == *item; };
            const int at = static_cast<int>(std::ranges::find_if(held, same) - held.begin()) + 1;
            int index = size() + 1;
            EXPECT_EQ(bus_mk_q_find(q, item, &index), take(at, false));
            EXPECT_EQ(index, at);
            EXPECT_EQ(bus_mk_q_delete(q, item), take(at));
        } else if (operation == 1) {
            EXPECT_EQ(bus_mk_q_delete_index(q, pos), take(pos));
        } else if (operation == 2) {
            bus_mk_list_node *const place = bus_mk_q_append(q, item);
            ASSERT_EQ(place != nullptr, size() < capacity);
            if (place) {
                insert(item, -1);
                EXPECT_EQ(bus_mk_q_take_out(q, place), take(size()));
            }
        } else if (operation < 5) {
            EXPECT_EQ(bus_mk_q_recv(q, bus_mk_q_empty(q) ? 1 : 0, del, pos), take(pos, del != 1));
        } else {
            const int place = random() % 4 == 0 ? pos : -1;
            const bool fits = size() < capacity + (place < 0 ? del : 0);
            EXPECT_EQ(bus_mk_q_offer(q, item, place, del) == bus_mk_sent::kDone, fits);
            fits ? insert(item, place) : void();
        }
        g_told.clear();
        bus_mk_q_visit(q, tell, nullptr);
        EXPECT_EQ(g_told, held);
        EXPECT_EQ(bus_mk_q_count(q), size());
        EXPECT_EQ(bus_mk_q_empty(q), held.empty());
        EXPECT_EQ(bus_mk_q_full(q), size() >= capacity);
        EXPECT_EQ(bus_mk_q_highest(q), highest);
    }

    int capacity;
    bus_mk_q_t *q;
    Items held;
    int highest = 0;
    std::vector<int> values = {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 0, 1, 2};
    std::mt19937 random{7};
};

TEST(Queue, is_one_sequence_with_room_for_so_many) {
    for (const int capacity : {2, 40}) {
        Sequence sequence{capacity};
        for (int i = 0; i < 5000 && !HasFailure(); ++i) {
            sequence.step(i / 100 % 2 == 0);
        }
        EXPECT_EQ(sequence.highest, capacity + 2);
        EXPECT_EQ(bus_mk_q_send(sequence.q, nullptr, -1), -1);
        EXPECT_EQ(bus_mk_q_append(sequence.q, nullptr), nullptr);
        g_told.clear();
        bus_mk_q_clear(sequence.q, tellLast, 1);
        EXPECT_EQ(g_told, sequence.held);
        EXPECT_EQ(bus_mk_q_recv(sequence.q, 1, 0, 1), nullptr);
        bus_mk_q_clear(sequence.q, nullptr, 0);
    }
}

TEST(Row, needs_no_more_memory_where_one_item_goes_for_each_that_comes) {
    bus_mk_row row;
    row.add(&row);
    void *const *const memory = row.begin();
    for (int i = 0; i < 100; ++i) {
        row.add(&row);
        row.take(1);
        EXPECT_TRUE(row.begin() >= memory && row.begin() < memory + 8);
    }
}

} // namespace
