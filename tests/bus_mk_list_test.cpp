#include "bus_mk_list.h"

#include <gtest/gtest.h>

#include <string>

namespace {

char g_letters[] = {'A', 'B', 'C', 'X', 'b'}; // an item is the address of one
auto &[a, b, c, x, smallB] = g_letters;

int sameLetter(void *key, void *stored) { // large or small
    return (*static_cast<char *>(key) | 32) == (*static_cast<char *>(stored) | 32) ? 0 : -1;
}

TEST(List, keeps_its_order_from_both_ends) {
    bus_mk_list *const list = bus_mk_list_new(nullptr);
    int position = 0;
    // What a call gave, what the list then holds from the head on and from the tail on, its count.
    const auto after = [list](const void *result) {
        std::string told{result ? *static_cast<const char *>(result) : '-'};
        for (const int direct : {0, 1}) {
            const bus_mk_list_iter next = bus_mk_list_iter_get(list, direct);
            told += ' ';
            while (const void *const item = next(list)) {
                told += *static_cast<const char *>(item);
            }
        }
        return told + ' ' + std::to_string(bus_mk_list_cnt(list));
    };
    for (int i = 0; i < 600; ++i) { // more nodes than are kept for reuse
        bus_mk_list_add(list, &x, -1);
    }
    bus_mk_list_del_if(list, sameLetter, &x);
    EXPECT_EQ(after(bus_mk_list_get_node_from_tail(list)), "-   0");
    for (const auto &[item, idx] : {std::pair{&b, 5}, {&a, 0}, {&c, -1}, {&x, 2}, {&smallB, 4}}) {
        EXPECT_NE(bus_mk_list_add(list, item, idx), nullptr);
    }
    EXPECT_EQ(after(bus_mk_list_modify_idx(list, &a, 0)), "- ABXCb bCXBA 5");
    EXPECT_EQ(after(bus_mk_list_modify_idx(list, &a, 4)), "C ABXAb bAXBA 5");
    EXPECT_EQ(after(bus_mk_list_del(list, &smallB, &position)), "b ABXA AXBA 4"); // by address
    bus_mk_list_set_eq(list, sameLetter);
    bus_mk_list_set_eq(list, nullptr); // keeps it
    EXPECT_EQ(after(bus_mk_list_modify(list, &smallB, &c, &position)), "B ACXA AXCA 4");
    EXPECT_EQ(after(bus_mk_list_del(list, &b, &position)), "- ACXA AXCA 4");
    EXPECT_EQ(after(bus_mk_list_del(list, nullptr, &position)), "- ACXA AXCA 4");
    EXPECT_EQ(position, 2);
    EXPECT_EQ(after(bus_mk_list_del(list, &a, nullptr)), "A CXA AXC 3"); // the one nearest the head
    bus_mk_list_node *const node = bus_mk_list_get_node_from_tail(list);
    EXPECT_EQ(after(bus_mk_list_get_tail_data(list)), "X CX XC 2");
    EXPECT_EQ(bus_mk_list_push_node_to_tail(list, nullptr), -1);
    EXPECT_EQ(bus_mk_list_push_node_to_tail(list, node), 0);
    EXPECT_EQ(after(bus_mk_list_get_tail_data(list)), "A CXA AXC 3");
    EXPECT_EQ(bus_mk_list_remove_node(list, nullptr), -1);
    EXPECT_EQ(bus_mk_list_remove_node(list, node), 0);
    bus_mk_list_node_free(node);
    EXPECT_EQ(after(bus_mk_list_del_idx(list, 1)), "C X X 1");
    bus_mk_list_destroy(list);
}

// Guards that the process ends there, with the text.
TEST(ListDeathTest, missing_list_or_node_ends_the_process) {
    EXPECT_DEATH(bus_mk_list_cnt(nullptr), "assertion failed: list != NULL");
    EXPECT_DEATH(bus_mk_list_del_node(bus_mk_list_new(nullptr), nullptr), "failed: node != NULL");
}

} // namespace
