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

// What the queue has to hold, from the head on. Positions count from 1.
struct Sequence : Items {
    void *take(int pos, bool removed = true) {
        const bool has = pos >= 1 && static_cast<std::size_t>(pos) <= size();
        int *const item = has ? at(static_cast<std::size_t>(pos) - 1) : nullptr;
        if (has && removed) {
            erase(begin() + pos - 1);
        }
        return item;
    }
    bool add(int *item, int pos, std::size_t places) {
        const bool fits = size() < places;
        const bool last = pos < 0 || static_cast<std::size_t>(pos) > size();
        insert(last ? end() : begin() + pos, fits ? 1 : 0, item);
        return fits;
    }
};

TEST(Queue, is_one_sequence_with_room_for_so_many) {
    std::vector<int> values = {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 0, 1, 2};
    std::mt19937 random{7};
    for (const int capacity : {2, 40}) {
        bus_mk_q_t *const q = bus_mk_q_new(capacity, sameValue);
        Sequence held;
        std::size_t highest = 0;
        for (unsigned i = 0; i < 5000 && !HasFailure(); ++i) {
            int *const item = &values[random() % values.size()];
            const int pos =
                random() % 2 == 0 ? 1 : static_cast<int>(random() % (held.size() + 3)) - 1;
            const int del = static_cast<int>(random() % 3);
            const auto same = [&](const int *other) { return *other == *item; };
            const int found = static_cast<int>(std::ranges::find_if(held, same) - held.begin()) + 1;
            int index = static_cast<int>(held.size()) + 1;
            const bool sends = random() % (i / 100 % 2 == 0 ? 4U : 2U) > 0;
            if (sends) {
                const int place = random() % 4 == 0 ? pos : -1, extra = place < 0 ? del : 0;
                const bool done = bus_mk_q_offer(q, item, place, del) == bus_mk_sent::kDone;
                EXPECT_EQ(done, held.add(item, place, static_cast<std::size_t>(capacity + extra)));
            } else if (i % 3 == 0) {
                EXPECT_EQ(bus_mk_q_find(q, item, &index), held.take(found, false));
                EXPECT_EQ(index, found);
                EXPECT_EQ(bus_mk_q_delete(q, item), held.take(found));
            } else if (i % 3 == 1) {
                EXPECT_EQ(bus_mk_q_delete_index(q, pos), held.take(pos));
            } else {
                EXPECT_EQ(bus_mk_q_recv(q, bus_mk_q_empty(q), del, pos), held.take(pos, del != 1));
            }
            g_told.clear();
            bus_mk_q_visit(q, tell, nullptr);
            highest = std::max(highest, held.size());
            EXPECT_EQ(g_told, static_cast<Items &>(held));
            EXPECT_EQ(bus_mk_q_count(q), g_told.size());
            EXPECT_EQ(bus_mk_q_empty(q), held.empty());
            EXPECT_EQ(bus_mk_q_full(q), held.size() >= static_cast<std::size_t>(capacity));
            EXPECT_EQ(bus_mk_q_highest(q), highest);
        }
        EXPECT_EQ(highest, capacity + 2U);
        EXPECT_EQ(bus_mk_q_send(q, nullptr, -1), -1);
        EXPECT_EQ(bus_mk_q_append(q, nullptr), nullptr);
        g_told.clear();
        bus_mk_q_clear(q, tellLast, 1);
        EXPECT_EQ(g_told, static_cast<Items &>(held));
        EXPECT_EQ(bus_mk_q_recv(q, 1, 0, 1), nullptr);
        bus_mk_q_clear(q, nullptr, 0);
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
