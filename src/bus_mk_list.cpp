#include "bus_mk_list.h"

#include "bus_mk_assert.h"

#include <cstdint>
#include <new>

struct bus_mk_list_node {
    void *data;
    bus_mk_list_node *next;
    bus_mk_list_node *pre;
};

struct bus_mk_list {
    std::int32_t node_cnt;
    bus_mk_list_equal eq;
    bus_mk_list_node *tail;
    bus_mk_list_node *head;
    bus_mk_list_node *cur;
};

namespace {

int default_eq(void *key, void *stored) {
    return key == stored ? 0 : -1;
}

// The way to what is in a list.
template <typename List>
List &checked(List *list) noexcept {
    BUS_MK_ASSERT(list, "list != NULL");
    return *list;
}

void *bus_mk_list_iter_forward(bus_mk_list *list) {
    bus_mk_list_node *const node = checked(list).cur;
    list->cur = node ? node->next : nullptr;
    return node ? node->data : nullptr;
}

void *bus_mk_list_iter_back(bus_mk_list *list) {
    bus_mk_list_node *const node = checked(list).cur;
    list->cur = node ? node->pre : nullptr;
    return node ? node->data : nullptr;
}

bus_mk_list_node *nodeAt(bus_mk_list *list, std::int64_t idx) noexcept {
    if (idx > checked(list).node_cnt || idx < 1) {
        return nullptr;
    }
    bus_mk_list_node *node = list->head;
    for (std::int64_t i = 1; i < idx; ++i) {
        node = node->next;
    }
    return node;
}

bus_mk_list_node *nodeMatching(bus_mk_list *list, void *key, int *idx) noexcept {
    bus_mk_list_node *node = checked(list).head;
    if (!key) {
        return nullptr;
    }
    for (int position = 1; node; node = node->next, ++position) {
        if (list->eq(key, node->data) == 0) {
            if (idx) {
                *idx = position;
            }
            return node;
        }
    }
    return nullptr;
}

// Links node in front of next; a null next appends.
void link(bus_mk_list &list, bus_mk_list_node *node, bus_mk_list_node *next) noexcept {
    bus_mk_list_node *const pre = next ? next->pre : list.tail;
    node->next = next;
    node->pre = pre;
    (pre ? pre->next : list.head) = node;
    (next ? next->pre : list.tail) = node;
    ++list.node_cnt;
}

void unlink(bus_mk_list &list, bus_mk_list_node *node) noexcept {
    (node->pre ? node->pre->next : list.head) = node->next;
    (node->next ? node->next->pre : list.tail) = node->pre;
    node->next = nullptr;
    node->pre = nullptr;
    --list.node_cnt;
}

void *_del_node(bus_mk_list &list, bus_mk_list_node *node) noexcept {
    BUS_MK_ASSERT(node, "node != NULL");
    unlink(list, node);
    void *const data = node->data;
    delete node;
    return data;
}

void *replace(bus_mk_list_node *node, void *data) noexcept {
    if (!node) {
        return nullptr;
    }
    void *const old = node->data;
    node->data = data;
    return old;
}

} // namespace

bus_mk_list *bus_mk_list_new(bus_mk_list_equal eq_func) noexcept {
    return new (std::nothrow) bus_mk_list{0, eq_func ? eq_func : default_eq, {}, {}, {}};
}

void bus_mk_list_destroy(bus_mk_list *list) noexcept {
    while (bus_mk_list_node *const node = checked(list).head) {
        list->head = node->next;
        delete node;
    }
    delete list;
}

int bus_mk_list_cnt(const bus_mk_list *list) noexcept {
    return checked(list).node_cnt;
}

void bus_mk_list_set_eq(bus_mk_list *list, bus_mk_list_equal eq_func) noexcept {
    bus_mk_list_equal &eq = checked(list).eq;
    eq = eq_func ? eq_func : eq;
}

bus_mk_list_node *bus_mk_list_add(bus_mk_list *list, void *data, int idx) noexcept {
    bus_mk_list_node *const next = nodeAt(list, std::int64_t{idx} + 1);
    auto *const node = new (std::nothrow) bus_mk_list_node{data, nullptr, nullptr};
    if (node) {
        link(*list, node, next);
    }
    return node;
}

void *bus_mk_list_find(bus_mk_list *list, void *data, int *idx) noexcept {
    const bus_mk_list_node *const node = nodeMatching(list, data, idx);
    return node ? node->data : nullptr;
}

void *bus_mk_list_del(bus_mk_list *list, void *data, int *idx) noexcept {
    bus_mk_list_node *const node = nodeMatching(list, data, idx);
    return node ? _del_node(*list, node) : nullptr;
}

void *bus_mk_list_modify(bus_mk_list *list, void *src, void *dst, int *idx) noexcept {
    return replace(nodeMatching(list, src, idx), dst);
}

void *bus_mk_list_get_idx(bus_mk_list *list, int idx) noexcept {
    const bus_mk_list_node *const node = nodeAt(list, idx);
    return node ? node->data : nullptr;
}

void *bus_mk_list_del_idx(bus_mk_list *list, int idx) noexcept {
    bus_mk_list_node *const node = nodeAt(list, idx);
    return node ? _del_node(*list, node) : nullptr;
}

void *bus_mk_list_modify_idx(bus_mk_list *list, void *dst, int idx) noexcept {
    return replace(nodeAt(list, idx), dst);
}

bus_mk_list_iter bus_mk_list_iter_get(bus_mk_list *list, int direct) noexcept {
    bus_mk_list &whole = checked(list);
    whole.cur = direct == 0 ? whole.head : whole.tail;
    return direct == 0 ? bus_mk_list_iter_forward : bus_mk_list_iter_back;
}

void *bus_mk_list_get_tail_data(const bus_mk_list *list) noexcept {
    const bus_mk_list_node *const node = checked(list).tail;
    return node ? node->data : nullptr;
}

bus_mk_list_node *bus_mk_list_get_node_from_tail(bus_mk_list *list) noexcept {
    bus_mk_list_node *const node = checked(list).tail;
    if (node) {
        unlink(*list, node);
    }
    return node;
}

int bus_mk_list_push_node_to_tail(bus_mk_list *list, bus_mk_list_node *node) noexcept {
    bus_mk_list &whole = checked(list);
    if (!node) {
        return -1;
    }
    link(whole, node, nullptr);
    return 0;
}

int bus_mk_list_remove_node(bus_mk_list *list, bus_mk_list_node *node) noexcept {
    bus_mk_list &whole = checked(list);
    if (!node) {
        return -1;
    }
    unlink(whole, node);
    return 0;
}

void *bus_mk_list_del_node(bus_mk_list *list, bus_mk_list_node *node) noexcept {
    return _del_node(checked(list), node);
}

void bus_mk_list_node_free(bus_mk_list_node *node) noexcept {
    delete node;
}
