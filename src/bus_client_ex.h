// The records that client and server share: the message, a node's client record, a timer.
#ifndef ZELVO_BUS_CLIENT_EX_H
#define ZELVO_BUS_CLIENT_EX_H

#include "bus_client.h"
#include "bus_counters.h"
#include "bus_mk_queue.h"
#include "bus_mk_str.h"
#include "bus_mk_thread.h"
#include "bus_protocol.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

namespace bus {

struct server_t;

// len bytes of data, any bytes, and one NUL behind them, so that texts can be used as strings.
struct payload_t {
    char *data;
    int len;
};

// Everything that travels through a queue. One thread holds a message at a time; handing it to a
// queue hands it over. The record, its texts and its payload are one block of memory: the pointers
// lead into it (or are null) and are not released on their own.
struct message_t {
    char *name;         // the node that made the message, or kServerName
    char *topic;        // of a publication
    char *url;          // of a request or response
    char *action;       // one of action::k...
    void *node;         // the record of its maker, client_t or server_t; not owned
    char *request_name; // the node whose request the message belongs to, or kNoRequest
    payload_t *payload;
    Action kind; // of action
    // Whether the message owns a reference to node, a client_t: a join request, which is the only
    // message whose maker the server reaches without finding it in its registry.
    bool holds_node;
    // The call that a request or response belongs to; 0: none in particular.
    std::uint64_t call;
    std::size_t size; // of the block, all of it
};

// Makes a message. Texts and data may be null; data_len is looked at only with data. Null when
// memory is short, with a line in the log.
message_t *busClientExMessageNew(const char *name, const char *topic, const char *url,
                                 const char *action, void *node, const char *request_name,
                                 const char *data, int data_len) noexcept;
// A deep copy that shares node, without owning a reference to it. Null for null, or when memory is
// short.
message_t *busClientExMessageCopy(const void *message) noexcept;
// The same with another action.
message_t *copyWithAction(const message_t &message, Action action) noexcept;
// Frees a message, with the reference that it owns; null is accepted. Always 0. The delete function
// of message queues.
int busClientExMessageDelete(void *message) noexcept;
// Makes message, of which client is the maker, own a reference to it.
void holdNode(message_t &message, client_t &client) noexcept;

// The payload as a trace line shows it: the text of 1 to 199 bytes of data, "BinaryData..." for any
// other length, "NULL" for no payload.
const char *tracedPayload(const payload_t *payload) noexcept;

// Whether a payload can have so many bytes.
inline bool fitsPayload(std::size_t size) noexcept {
    return size <= static_cast<std::size_t>(std::numeric_limits<int>::max());
}

struct MessageDelete {
    void operator()(message_t *message) const noexcept { busClientExMessageDelete(message); }
};
using MessagePtr = std::unique_ptr<message_t, MessageDelete>;

// Offers message to q and lets go of it when q has taken it; otherwise it stays where it is. A null
// one could not be made for want of memory, which is the result then.
bus_mk_sent handOver(bus_mk_q_t *q, MessagePtr &message, int pos, int extra = 0) noexcept;

// Counts a message that was not taken, by its cause.
inline void countLost(bus_mk_sent cause, Counter &full, Counter &noMemory) noexcept {
    count(cause == bus_mk_sent::kFull ? full : noMemory);
}

// One pending timer.
struct timer_t {
    int id;
    int type;
    double timeout; // due time, milliseconds of clock_gettimestamp
    void *userdata;
    timer_callback timer_func;
};

// A timer of client with its next id, due mstimeout milliseconds from now. Ids run from 2 to
// 32767 and start again. Null when client is null or memory is short.
timer_t *busClientExTimerNew(client_t *client, timer_callback timer_func, long mstimeout, int type,
                             void *userdata) noexcept;
// Frees a timer; null is accepted. Always 0.
int busClientExTimerDelete(void *timer) noexcept;
// Matches the int at key with the id of a timer.
int _timer_equal(void *key, void *stored) noexcept;
// Matches the action text at key with a message whose action is a prefix of it.
int _message_equal(void *key, void *stored) noexcept;

inline constexpr int kClientQueue = 1024; // places in each queue of a node

// A node's record is freed with its last reference. The application has one from connect to close;
// a queued join request, an entry of the registry and the list of departed nodes have one each.
client_t *retain(client_t &client) noexcept;
void release(client_t *client) noexcept; // null is accepted

struct ClientRelease {
    void operator()(client_t *client) const noexcept { release(client); }
};
using ClientPtr = std::unique_ptr<client_t, ClientRelease>;

} // namespace bus

// One node.
struct client_t {
    bus_mk_text name;
    // The host that the node is calling, or empty. Only the server's thread touches it.
    std::array<char, bus::kMaxHost + 1> call_name{};
    bus::server_t *server = nullptr; // not owned
    bus_mk_q_t *timer_queue = nullptr;
    bus_mk_q_t *timerout_queue = nullptr; // unused
    bus_mk_q_t *message_queue = nullptr;
    bus_mk_thread_mutex_t oncall_mutex; // also of the record's other shared fields, as marked
    bus_mk_thread_cond_t oncall_cond;   // signalled when an answer is there
    bus_mk_text call_response BUS_MK_GUARDED_BY(oncall_mutex);
    onmessage_callback onmessage_func = nullptr;
    oncall_callback oncall_func = nullptr;
    void *userdata = nullptr;
    std::atomic<int> timerid{0}; // the last id handed out
    std::atomic<int> running{1}; // 0 once the node has left the bus for good
    // 1 while a call is under way: a node makes one at a time.
    int wait_callresponse BUS_MK_GUARDED_BY(oncall_mutex) = 0;
    int turn_waiters BUS_MK_GUARDED_BY(oncall_mutex) = 0;      // threads that wait for their turn
    bool turn_offered BUS_MK_GUARDED_BY(oncall_mutex) = false; // to those of them there were then
    std::uint32_t turn_offers BUS_MK_GUARDED_BY(oncall_mutex) = 0; // how often it has been
    bus_mk_thread_cond_t turn_cond;                                // signalled with each offer
    // Whether the caller sleeps, or is about to: no signal is left over for a later call.
    bool caller_sleeps BUS_MK_GUARDED_BY(oncall_mutex) = false;
    // The number of the call that waits for its answer, or 0. Written under oncall_mutex; the
    // server's look at a chain of calls reads it without.
    std::atomic<std::uint64_t> waiting_call{0};
    // No timer in timer_queue is due earlier, so that a pass that finds nothing due costs one look.
    std::atomic<double> earliest_due{std::numeric_limits<double>::infinity()};
    // Whether the server knows the node. Written by the server's thread only.
    std::atomic<bool> registered{false};
    // Whether the node has gone for good without an answer of the server's to its leave request, or
    // to its join; the server takes it off the bus, if it is on it, when it meets the record in its
    // list of such nodes.
    std::atomic<bool> departed{false};
    client_t *next_departed = nullptr;
    std::uint64_t call_number = 0; // of the call that call_name stands for, likewise the server's
    client_t *next_to_wake = nullptr; // in the server's list of nodes that it has yet to wake
    std::atomic<int> references{1};
    std::atomic<int> joins_under_way{0}; // requests to join that hold one of them
    bus::NodeCounters counters;

    client_t() noexcept;
    ~client_t();
    client_t(const client_t &) = delete;
    client_t &operator=(const client_t &) = delete;
};

#endif
