// The server's records, and the functions of the server that the client module calls.
#ifndef ZELVO_BUS_SERVER_EX_H
#define ZELVO_BUS_SERVER_EX_H

#include "bus_client_ex.h"
#include "bus_server/directory.h"
#include "platform/platform.h"

#include <atomic>
#include <cstdint>

namespace bus {

inline constexpr int kServerQueue = 2048; // places in each queue of the server, and topics a node

// One node on the bus.
struct node_t {
    bus_mk_text name;
    client_t *node = nullptr;           // a reference is owned
    bus_mk_q_t *topics_queue = nullptr; // texts, in the order of subscription, none twice
    std::uint64_t joined = 0;           // grows from node to node
    bus_mk_list_node *place = nullptr;  // in nodes_queue

    node_t() = default;
    ~node_t();
    node_t(const node_t &) = delete;
    node_t &operator=(const node_t &) = delete;
};

// What is known of keys.json. Up to kCut it must not be overwritten.
struct KeyFile {
    enum class State {
        kUnread,   // nothing
        kUnopened, // it can't be opened
        kCut,      // it has not been read to its end
        kAbsent,   // there was none
        kForeign, // it does not begin with a JSON object; it is set aside when the store is written
        kTaken    // what it held stands in the store, or it held nothing
    };
    State state = State::kUnread;
    platform::FileLook look;                                    // at the file of that state
    platform::FileResult written = platform::FileResult::kDone; // the last write's
    bool flush = true;              // a write is on the disk before it is answered
    bool leftovers_removed = false; // of processes that died while they wrote
};

// The router. Its loop's thread alone changes the registry, the topics and the sticky store; other
// threads append to message_queue and look names up in nodes_queue.
struct server_t {
    bus_mk_q_t *nodes_queue = nullptr;   // the registry: node_t, in the order in which they joined
    bus_mk_q_t *message_queue = nullptr; // everything sent to the server, its own answers included
    bus_mk_q_t *sticky_queue = nullptr;  // message_t, at most one a topic
    bus_mk_text name;
    std::atomic<int> running{0}; // 1 while the loop is to go on
    JsonText keys;               // the key store's text; null until it is loaded or set
    bus_mk_text path;            // the home directory, or null

    JsonPtr store; // keys, parsed
    Directory directory;
    std::uint64_t joins = 0;
    // Nodes that have gone without waiting for the server, one reference each.
    std::atomic<client_t *> departed{nullptr};
    // Nodes that sleep and have been sent messages, first and last. They can't go away meanwhile.
    // When the loop ends, all nodes, one after the other.
    client_t *to_wake = nullptr;
    client_t *to_wake_last = nullptr;
    int call_timeout = 0;   // milliseconds that a call waits at most; 0 or less: no limit
    bool has_stats = false; // whether "/bus/stats" is answered
    KeyFile key_file;
    bool looping BUS_MK_GUARDED_BY(loop_mutex) = false; // a thread is inside busServerRun
    bus_mk_thread_mutex_t loop_mutex;
    bus_mk_thread_cond_t loop_ended; // signalled when looping becomes false

    NodeCounters left; // sums of the nodes whose records are freed
    ServerCounters counters;

    server_t() noexcept;
    ~server_t();
    server_t(const server_t &) = delete;
    server_t &operator=(const server_t &) = delete;
};

// Makes a server; homepath may be null and is copied. Null when memory is short.
server_t *busServerNew(const char *homepath) noexcept;
// Runs the loop in the calling thread until it takes an exit message. -1: server is null. 0: it
// has ended, or it was running already. What is still queued stays queued.
int busServerRun(server_t *server) noexcept;
// Queues an exit message behind everything that waits, in the places of postToServer; lost, with an
// error in the log, when these stay taken or memory stays short. Always 0.
int busServerExit(server_t *server) noexcept;
// Stops a loop that still runs, waits for its end, and frees everything. Null is accepted.
int busServerDelete(server_t *server) noexcept;

// Free an entry of the registry, and a topic text; null is accepted. Always 0.
int busServerExNodeDelete(void *client) noexcept;
int _budServerExCharDelete(void *topic) noexcept;

// Queue equality, exact: a name with a node_t, a topic with a topic text, a topic with a message_t.
int node_name_equal(void *a, void *b) noexcept;
int node_topic_equal(void *a, void *b) noexcept;
int sticky_topic_equal(void *a, void *b) noexcept;

// Appends a message that must get through a flood of publications: an answer, a leave request, an
// exit. About one of them is under way for each node, so as many places are kept for them. As
// handOver.
bus_mk_sent postToServer(server_t &server, MessagePtr &message) noexcept;

// Runs attempt() until it gives true, and for long enough that memory which is short may come back.
// Whether it has.
template <typename Attempt>
bool attemptAgain(Attempt attempt) noexcept {
    for (int left = 1000; left > 0; --left) {
        if (attempt()) {
            return true;
        }
        platform::yieldThread();
    }
    return false;
}

} // namespace bus

#endif
