// Bounded queue of untyped pointers; all traffic of the bus passes through one, and every
// registry is one. It stores pointers and never copies or frees what they lead to; null is never
// stored.
// Threads:   any thread may call anything; bus_mk_q_clear with flag 0 needs sole use.
// Blocking:  only a receive with flag 0 waits, without time limit, while the queue is empty, and
//            bus_mk_q_wait. Only a successful send wakes them. A send never waits.
// Positions: insertion counts from 0 (negative = tail), everything else from 1 (1 = head).
// Callbacks: equality, delete and visit functions run under the queue's mutexes; never operate on
//            the same queue from one.
// Cost:      appending and taking the head lock different mutexes, and meet once for all the items
//            that were appended meanwhile. No system call is made while nobody sleeps, but that a
//            receiver gives up the processor: once when it has emptied a short batch, and up to 32
//            times before it sleeps. Memory grows with what waits, and is given back when a
//            receiver sleeps, or with the queue.
// The queue itself is not tested for null.
#ifndef ZELVO_BUS_MK_QUEUE_H
#define ZELVO_BUS_MK_QUEUE_H

#include "bus_mk_list.h"

struct bus_mk_queue;
using bus_mk_q_t = bus_mk_queue;

inline constexpr int bus_mk_q_tail = -1; // as a position

// Applied to each item by bus_mk_q_clear; the result is not examined.
using bus_mk_q_delete_callback = int (*)(void *item);
// Applied to each item by bus_mk_q_visit; a result other than 0 ends the walk.
using bus_mk_q_visitor = int (*)(void *item, void *arg);

// q_size is the capacity; a null eq_func compares pointers. Null when memory is short.
bus_mk_q_t *bus_mk_q_new(int q_size, bus_mk_list_equal eq_func) noexcept;

// Inserts before position pos, counted from 0 (negative = tail).
// 0: the queue holds the item. -1 (full, null, no memory): it is still yours.
int bus_mk_q_send(bus_mk_q_t *q, void *data, int pos) noexcept;

// The same, and tells why an item was refused. An append (-1) has extra places beyond the capacity,
// for the few items that must not be lost to a flood of others. data is not null.
enum class bus_mk_sent { kDone, kFull, kNoMemory };
bus_mk_sent bus_mk_q_offer(bus_mk_q_t *q, void *data, int pos, int extra) noexcept;
// The same for an append without extra places, which leaves the waking to the caller: with wake set
// a receiver sleeps, and goes on sleeping whatever else is sent, until the caller calls
// bus_mk_q_wake.
bus_mk_sent bus_mk_q_post(bus_mk_q_t *q, void *data, bool &wake) noexcept;
void bus_mk_q_wake(bus_mk_q_t *q) noexcept;

// The item at position pos. flag 0 waits while the queue is empty, any other value never waits;
// del 1 leaves the item in place (it stays the queue's), any other value removes it (it becomes
// yours). Null: nothing at pos, the queue empty, or another receiver was faster after a wait.
void *bus_mk_q_recv(bus_mk_q_t *q, int flag, int del, int pos) noexcept;

// Waits while the queue is empty, at most the given time; it may end earlier.
void bus_mk_q_wait(bus_mk_q_t *q, unsigned milliseconds) noexcept;

// The first item from the head for which the equality function matches (data, item): removed and
// yours, or left in place with its position in *dinx (dinx may be null). Null: no match.
void *bus_mk_q_delete(bus_mk_q_t *q, void *data) noexcept;
void *bus_mk_q_find(bus_mk_q_t *q, void *data, int *dinx) noexcept;

// Removes the item at position pos, counted from 1. Null when there is none.
void *bus_mk_q_delete_index(bus_mk_q_t *q, int pos) noexcept;

bool bus_mk_q_full(bus_mk_q_t *q) noexcept;
// Whether it holds nothing, without a lock. An item that was there before the call, and is not
// taken during it, is seen.
bool bus_mk_q_empty(const bus_mk_q_t *q) noexcept;
int bus_mk_q_count(bus_mk_q_t *q) noexcept;
// The most items that it has held at once.
int bus_mk_q_highest(bus_mk_q_t *q) noexcept;

// Appends like bus_mk_q_send with -1 and returns the item's place, by which bus_mk_q_take_out
// removes it without a search. Null where a send would give -1. A place is good until its item
// leaves the queue.
bus_mk_list_node *bus_mk_q_append(bus_mk_q_t *q, void *data) noexcept;
void *bus_mk_q_take_out(bus_mk_q_t *q, bus_mk_list_node *place) noexcept;

// Calls visit(item, arg) from the head on, until it gives a result other than 0; returns that
// result, or 0. The queue stands still meanwhile.
int bus_mk_q_visit(bus_mk_q_t *q, bus_mk_q_visitor visit, void *arg) noexcept;

// Removes every item, head first, and calls delete_f on it (null: nothing is called). flag 0 then
// destroys the queue; with any other value it stays, empty. Always 0.
int bus_mk_q_clear(bus_mk_q_t *q, bus_mk_q_delete_callback delete_f, int flag) noexcept;

#endif
