// Doubly linked list of untyped pointers with a count, an equality function and one cursor.
// It never copies, inspects or frees what the pointers lead to. Store no null pointers: a null
// result could not be told from a stored one.
// Positions: add counts from 0 (how many nodes stand before the new one); everything else counts
//            from 1 (1 = head).
// Threads:   none inside; one thread at a time.
// Failure:   a missing list ends the process ("list != NULL"); out of range and no match give
//            null and change nothing.
#ifndef ZELVO_BUS_MK_LIST_H
#define ZELVO_BUS_MK_LIST_H

struct bus_mk_list;
struct bus_mk_list_node;
using bus_mk_list_node_t = bus_mk_list_node;

// Called with (key, stored item): 0 for a match, -1 otherwise. The key is whatever the caller
// searches with and need not be of the item's type.
using bus_mk_list_equal = int (*)(void *key, void *stored);
// Returns the next stored pointer and moves the cursor; null once the cursor has run off the end.
using bus_mk_list_iter = void *(*)(bus_mk_list *list);

// A null eq_func compares pointers. Null when memory is short.
bus_mk_list *bus_mk_list_new(bus_mk_list_equal eq_func) noexcept;
// Frees the nodes and the list, not the data.
void bus_mk_list_destroy(bus_mk_list *list) noexcept;
int bus_mk_list_cnt(const bus_mk_list *list) noexcept;
// A null eq_func keeps the current one.
void bus_mk_list_set_eq(bus_mk_list *list, bus_mk_list_equal eq_func) noexcept;

// Inserts before 0-based position idx; a negative idx, or one not below the count, appends.
// Null when memory is short: the list is unchanged. The node stays the list's.
bus_mk_list_node *bus_mk_list_add(bus_mk_list *list, void *data, int idx) noexcept;

// The first match from the head: looked up, removed, or replaced by dst. The stored pointer is
// returned; its 1-based position goes to *idx when idx is given and something matched. A null key
// matches nothing.
void *bus_mk_list_find(bus_mk_list *list, void *data, int *idx) noexcept;
void *bus_mk_list_del(bus_mk_list *list, void *data, int *idx) noexcept;
void *bus_mk_list_modify(bus_mk_list *list, void *src, void *dst, int *idx) noexcept;

// The same by 1-based position. Positions are reached from the head.
void *bus_mk_list_get_idx(bus_mk_list *list, int idx) noexcept;
void *bus_mk_list_del_idx(bus_mk_list *list, int idx) noexcept;
void *bus_mk_list_modify_idx(bus_mk_list *list, void *dst, int idx) noexcept;

// Puts the cursor on the head (direct 0) or the tail and returns the iterator that walks from
// there. One iteration at a time; after removing the node under the cursor, start again.
bus_mk_list_iter bus_mk_list_iter_get(bus_mk_list *list, int direct) noexcept;

void *bus_mk_list_get_tail_data(const bus_mk_list *list) noexcept;

// Operations on nodes themselves. A node taken out belongs to the caller, its links null; it can
// be appended to a list again, which then owns it. -1: node is null.
bus_mk_list_node *bus_mk_list_get_node_from_tail(bus_mk_list *list) noexcept;
int bus_mk_list_push_node_to_tail(bus_mk_list *list, bus_mk_list_node *node) noexcept;
int bus_mk_list_remove_node(bus_mk_list *list, bus_mk_list_node *node) noexcept;
// Takes a node of this list out, frees it and returns what it stored.
void *bus_mk_list_del_node(bus_mk_list *list, bus_mk_list_node *node) noexcept;
// Frees a node that stands in no list.
void bus_mk_list_node_free(bus_mk_list_node *node) noexcept;

#endif
