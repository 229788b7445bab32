// What node and server count. An increment is relaxed and takes no lock; a reader sees each counter
// as it was at some recent moment, not all of them at one moment.
#ifndef ZELVO_BUS_COUNTERS_H
#define ZELVO_BUS_COUNTERS_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace bus {

inline constexpr std::size_t kCacheLine = 64;

using Counter = std::atomic<std::uint64_t>;

// Any thread may count.
inline void count(Counter &counter, std::uint64_t more = 1) noexcept {
    counter.fetch_add(more, std::memory_order_relaxed);
}

// For a counter that one thread alone writes: no locked instruction.
inline void countAlone(Counter &counter) noexcept {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Of one node. Those of different writers lie in different cache lines.
struct NodeCounters {
    // the node's own thread
    alignas(kCacheLine) Counter taken{0}; // publications and requests taken from its queue
    Counter calls_given_up{0}; // leave requests that a bus which stopped left without an answer

    // any thread that uses the node
    alignas(kCacheLine) Counter sent{0}; // messages that the bus's queue took
    Counter bus_full{0};                 // messages that it refused
    Counter no_memory{0};                // messages that could not be made
    Counter own_full{0};                 // timers, timer and exit requests without a place
    Counter calls_made{0};
    Counter calls_answered{0};
    Counter calls_refused{0};
    Counter calls_timed_out{0};

    // the server's thread
    alignas(kCacheLine) Counter queue_full{0}; // messages for the node that its queue refused
    Counter late_answers{0};                   // answers to calls that it no longer waited for
    Counter unread{0}; // messages for the node that were still queued when it was freed
};

// Adds what one node has counted to sums.
inline void addCounters(NodeCounters &sums, const NodeCounters &node) noexcept {
    constexpr Counter NodeCounters::*kAll[] = {
        &NodeCounters::taken,          &NodeCounters::sent,          &NodeCounters::bus_full,
        &NodeCounters::no_memory,      &NodeCounters::own_full,      &NodeCounters::calls_made,
        &NodeCounters::calls_answered, &NodeCounters::calls_refused, &NodeCounters::calls_timed_out,
        &NodeCounters::calls_given_up, &NodeCounters::queue_full,    &NodeCounters::late_answers,
        &NodeCounters::unread,
    };
    for (Counter NodeCounters::*const counter : kAll) {
        count(sums.*counter, (node.*counter).load(std::memory_order_relaxed));
    }
}

// Of the server.
struct ServerCounters {
    // its own thread
    alignas(kCacheLine) Counter taken{0}; // messages taken from the bus's queue
    Counter sent{0};                      // messages that nodes' queues took
    Counter no_addressee{0};              // answers for a name that is not on the bus
    Counter sticky_full{0};               // sticky messages that found the store full

    // any thread
    alignas(kCacheLine) Counter posted{0}; // the bus's own messages in its queue: answers, exits
    Counter queue_full{0};                 // those that found no place
    Counter no_memory{0};                  // copies, answers, notices, exits that could not be made
    Counter calls{0};                      // numbers handed out to calls; by any thread
};

} // namespace bus

#endif
