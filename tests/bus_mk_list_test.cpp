#include "bus_mk_list.h"

#include <gtest/gtest.h>

namespace {

TEST(List, keeps_its_order_from_both_ends) {
    char a = 'A', b = 'B', c = 'C'; // an item is the address of one
    bus_mk_list *const list = bus_mk_list_new(nullptr);
    // What a call gave, and what the list then holds from the head on and from the tail on.
    const auto after = [list](const void *result) {
        std::string told{result ? *static_cast<const char *>(result) : '-'};
        for (const int direct : {0, 1}) {
            const bus_mk_list_iter next = bus_mk_list_iter_get(list, direct);
            for (told += ' '; const void *const item = next(list);) {
                told += *static_cast<const char *>(item);
            }
        }
        return told;
    };
    for (const auto &[item, idx] : {std::pair{&b, 5}, {&a, 0}, {&c, 1}}) {
        bus_mk_list_add(list, item, idx);
    }
    int position = 0;
    EXPECT_EQ(after(bus_mk_list_modify_idx(list, &a, 0)), "- ACB BCA");
    EXPECT_EQ(after(bus_mk_list_modify_idx(list, &a, 3)), "B ACA ACA");
    EXPECT_EQ(after(bus_mk_list_modify(list, &b, &c, &position)), "- ACA ACA");
    EXPECT_EQ(after(bus_mk_list_modify(list, &c, &b, &position)), "C ABA ABA");
    EXPECT_EQ(position, 2);
    bus_mk_list_set_eq(list, [](void *, void *) { return 0; });
    bus_mk_list_set_eq(list, nullptr); // keeps it
    EXPECT_EQ(after(bus_mk_list_del(list, &c, nullptr)), "A BA AB");
    bus_mk_list_node *const node = bus_mk_list_get_node_from_tail(list);
    EXPECT_EQ(after(bus_mk_list_get_tail_data(list)), "B B B");
    bus_mk_list_push_node_to_tail(list, node);
    EXPECT_EQ(after(bus_mk_list_get_tail_data(list)), "A BA AB");
    bus_mk_list_remove_node(list, node);
    bus_mk_list_node_free(node);
    EXPECT_EQ(after(bus_mk_list_del_idx(list, bus_mk_list_cnt(list))), "B  ");
    bus_mk_list_destroy(list);
}

// Guards that the process ends there, with the text.
TEST(ListDeathTest, missing_list_or_node_ends_the_process) {
    EXPECT_DEATH(bus_mk_list_cnt(nullptr), "assertion failed: list != NULL");
    EXPECT_DEATH(bus_mk_list_del_node(bus_mk_list_new(nullptr), nullptr), "failed: node != NULL");
}

} // namespace
