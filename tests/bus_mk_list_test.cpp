#include "bus_mk_list.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

std::array<char, 128> g_items; // item c is the address of g_items[c], so keys are plain letters

void *item(char c) {
    return &g_items[static_cast<std::size_t>(c)];
}
char letter(const void *data) {
    return data ? static_cast<char>(static_cast<const char *>(data) - g_items.data()) : '-';
}
int caseless(void *key, void *stored) {
    return (letter(key) | 32) == (letter(stored) | 32) ? 0 : -1;
}

class List : public testing::Test {
protected:
    ~List() override { bus_mk_list_destroy(list_); }
    void fill(const std::string &letters) {
        while (bus_mk_list_cnt(list_) > 0) {
            bus_mk_list_del_idx(list_, 1);
        }
        for (const char c : letters) {
            bus_mk_list_add(list_, item(c), -1);
        }
    }
    // The letters from the head on; the walk from the tail has to agree.
    std::string letters() {
        std::string forward;
        std::string back;
        const bus_mk_list_iter next = bus_mk_list_iter_get(list_, 0);
        while (void *const data = next(list_)) {
            forward += letter(data);
        }
        EXPECT_EQ(next(list_), nullptr);
        const bus_mk_list_iter previous = bus_mk_list_iter_get(list_, 1);
        while (void *const data = previous(list_)) {
            back.insert(back.begin(), letter(data));
        }
        EXPECT_EQ(forward, back);
        EXPECT_EQ(bus_mk_list_cnt(list_), static_cast<int>(forward.size()));
        return forward;
    }

    bus_mk_list *list_ = bus_mk_list_new(nullptr);
};

TEST_F(List, add_inserts_before_a_position_counted_from_0) {
    const struct {
        const char *before;
        int idx;
        const char *after;
    } kCases[] = {
        {"", -1, "X"},      {"", 0, "X"},       {"", 5, "X"},        {"ABC", 0, "XABC"},
        {"ABC", 2, "ABXC"}, {"ABC", 3, "ABCX"}, {"ABC", -1, "ABCX"}, {"ABC", 2147483647, "ABCX"}};
    for (const auto &c : kCases) {
        fill(c.before);
        EXPECT_NE(bus_mk_list_add(list_, item('X'), c.idx), nullptr);
        EXPECT_EQ(letters(), c.after) << c.before << " " << c.idx;
    }
}

TEST_F(List, positions_count_from_1) {
    for (const auto &[idx, found, left] : {std::tuple{1, 'A', "BC"},
                                           {2, 'B', "AC"},
                                           {3, 'C', "AB"},
                                           {0, '-', "ABC"},
                                           {4, '-', "ABC"},
                                           {-1, '-', "ABC"}}) {
        fill("ABC");
        EXPECT_EQ(letter(bus_mk_list_get_idx(list_, idx)), found);
        EXPECT_EQ(letter(bus_mk_list_modify_idx(list_, item(found), idx)), found);
        EXPECT_EQ(letters(), "ABC");
        EXPECT_EQ(letter(bus_mk_list_del_idx(list_, idx)), found);
        EXPECT_EQ(letters(), left);
    }
}

TEST_F(List, search_takes_the_match_nearest_the_head) {
    bus_mk_list_set_eq(list_, caseless);
    bus_mk_list_set_eq(list_, nullptr); // keeps it
    fill("AbB");
    int idx = 77;
    EXPECT_EQ(letter(bus_mk_list_find(list_, item('B'), &idx)), 'b');
    EXPECT_EQ(idx, 2);
    EXPECT_EQ(bus_mk_list_find(list_, item('x'), &idx), nullptr);
    EXPECT_EQ(bus_mk_list_find(list_, nullptr, &idx), nullptr);
    EXPECT_EQ(idx, 2);
    EXPECT_EQ(letter(bus_mk_list_modify(list_, item('B'), item('y'), nullptr)), 'b');
    EXPECT_EQ(letter(bus_mk_list_del(list_, item('b'), &idx)), 'B');
    EXPECT_EQ(idx, 3);
    EXPECT_EQ(letters(), "Ay");
}

TEST_F(List, nodes_change_hands) {
    EXPECT_EQ(bus_mk_list_get_node_from_tail(list_), nullptr);
    EXPECT_EQ(bus_mk_list_get_tail_data(list_), nullptr);
    EXPECT_EQ(bus_mk_list_push_node_to_tail(list_, nullptr), -1);
    EXPECT_EQ(bus_mk_list_remove_node(list_, nullptr), -1);
    bus_mk_list_node *const a = bus_mk_list_add(list_, item('A'), -1);
    bus_mk_list_node *const b = bus_mk_list_add(list_, item('B'), -1);
    bus_mk_list_add(list_, item('C'), -1);
    EXPECT_EQ(bus_mk_list_remove_node(list_, b), 0);
    EXPECT_EQ(letters(), "AC");
    EXPECT_EQ(bus_mk_list_push_node_to_tail(list_, b), 0);
    EXPECT_EQ(letter(bus_mk_list_get_tail_data(list_)), 'B');
    EXPECT_EQ(bus_mk_list_get_node_from_tail(list_), b);
    bus_mk_list_node_free(b);
    EXPECT_EQ(letter(bus_mk_list_del_node(list_, a)), 'A');
    EXPECT_EQ(letters(), "C");
}

TEST(ListDeathTest, missing_list_or_node_ends_the_process) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    bus_mk_list *const list = bus_mk_list_new(nullptr);
    EXPECT_DEATH(bus_mk_list_cnt(nullptr), "assertion failed: list != NULL");
    EXPECT_DEATH(bus_mk_list_add(nullptr, list, 0), "assertion failed: list != NULL");
    EXPECT_DEATH(bus_mk_list_del_node(list, nullptr), "assertion failed: node != NULL");
    bus_mk_list_destroy(list);
}

} // namespace
