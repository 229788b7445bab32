#include "bus_mk_list.h"

#include <gtest/gtest.h>

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
    bus_mk_list_add(list, &b, 5);
    bus_mk_list_add(list, &a, 0);
    bus_mk_list_add(list, &c, 1);
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
    EXPECT_EQ(bus_mk_list_push_node_to_tail(list, node), 0);
    EXPECT_EQ(after(bus_mk_list_get_tail_data(list)), "A BA AB");
    EXPECT_EQ(bus_mk_list_remove_node(list, node), 0);
    bus_mk_list_node_free(node);
    EXPECT_EQ(after(bus_mk_list_del_idx(list, bus_mk_list_cnt(list))), "B  ");
    EXPECT_EQ(bus_mk_list_push_node_to_tail(list, nullptr) + bus_mk_list_remove_node(list, nullptr),
              -2);
    bus_mk_list_destroy(list);
}

// Guards that the process ends there, with the text.
TEST(List, missing_list_or_node_ends_the_process) {
    const char *const missing = "assertion failed: list != NULL";
    bus_mk_list *const list = bus_mk_list_new(nullptr), *const none = nullptr;
    EXPECT_DEATH(bus_mk_list_del_node(list, nullptr), "assertion failed: node != NULL");
    EXPECT_DEATH(bus_mk_list_destroy(none), missing);
    EXPECT_DEATH(bus_mk_list_get_idx(none, 0), missing);
    EXPECT_DEATH(bus_mk_list_remove_node(none, nullptr), missing);
    bus_mk_list_destroy(list);
}
