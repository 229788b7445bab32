#include "bus_mk_list.h"

#include <gtest/gtest.h>

namespace {

char g_letters[] = {'A', 'B', 'C', 'b'}; // an item is the address of one
auto &[a, b, c, smallB] = g_letters;

int sameLetter(void *key, void *stored) { // large or small
    return (*static_cast<char *>(key) | 32) == (*static_cast<char *>(stored) | 32) ? 0 : -1;
}

TEST(List, keeps_its_order_from_both_ends) {
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
    for (const auto &[item, idx] : {std::pair{&b, 5}, {&a, 0}, {&smallB, 2}, {&c, 1}}) {
        bus_mk_list_add(list, item, idx);
    }
    EXPECT_EQ(after(bus_mk_list_modify_idx(list, &a, 0)), "- ACBb bBCA");
    EXPECT_EQ(after(bus_mk_list_modify_idx(list, &a, 3)), "B ACAb bACA");
    EXPECT_EQ(after(bus_mk_list_del(list, &b, nullptr)), "- ACAb bACA"); // by address
    bus_mk_list_set_eq(list, sameLetter);
    bus_mk_list_set_eq(list, nullptr); // keeps it
    int position = 0;
    EXPECT_EQ(after(bus_mk_list_modify(list, &b, &c, &position)), "b ACAC CACA");
    EXPECT_EQ(position, 4);
    bus_mk_list_node *const node = bus_mk_list_get_node_from_tail(list);
    EXPECT_EQ(after(bus_mk_list_get_tail_data(list)), "A ACA ACA");
    EXPECT_EQ(after(bus_mk_list_del(list, &a, nullptr)), "A CA AC"); // the one nearest the head
    bus_mk_list_push_node_to_tail(list, node);
    EXPECT_EQ(after(bus_mk_list_get_tail_data(list)), "C CAC CAC");
    bus_mk_list_remove_node(list, node);
    bus_mk_list_node_free(node);
    EXPECT_EQ(after(bus_mk_list_del_idx(list, bus_mk_list_cnt(list))), "A C C");
    bus_mk_list_destroy(list);
}

// Guards that the process ends there, with the text.
TEST(ListDeathTest, missing_list_or_node_ends_the_process) {
    EXPECT_DEATH(bus_mk_list_cnt(nullptr), "assertion failed: list != NULL");
    EXPECT_DEATH(bus_mk_list_del_node(bus_mk_list_new(nullptr), nullptr), "failed: node != NULL");
}

} // namespace
