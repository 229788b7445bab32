// What the files of the server share. All of it runs in the server's thread, on the message that
// the loop has just taken; the loop frees that message afterwards, unless a handler has handed it
// on.
#ifndef ZELVO_BUS_SERVER_INTERNAL_H
#define ZELVO_BUS_SERVER_INTERNAL_H

#include "bus_log.h"
#include "bus_protocol.h"
#include "bus_server_ex.h"

#include <string>
#include <string_view>

namespace bus {

// Inline, so that a file that sees both modules' insides, as some tests do, has no clash.
inline namespace server_module {
inline constexpr char TAG[] = "Vek-server";
}

// Writes the trace line of a message. direction: "<==" taken, "==>" sent; target: the other end.
int _busServerLogMessage(int level, const char *direction, const server_t *server,
                         const message_t *message, const char *target, int line) noexcept;

// ---- waking, wake.cpp ----

// Notes a node that is to be woken, mostly one that sleeps on its queue; takes the first off the
// note, null: there is none.
void wakeLater(server_t &server, client_t &client) noexcept;
client_t *takeToWake(server_t &server) noexcept;
// Wakes the first, or all, of those that sleep on their queues. False: there was none.
bool wakeNext(server_t &server) noexcept;
void wakeAll(server_t &server) noexcept;

// Sends message to a node. Not taken: it is counted, and logged by logFull(), and is the caller's.
template <typename LogFull>
bool sendToNode(server_t &server, client_t &client, MessagePtr &message, LogFull logFull) noexcept {
    bool wake = false;
    const bus_mk_sent sent = bus_mk_q_post(client.message_queue, message.get(), wake);
    if (sent == bus_mk_sent::kDone) {
        static_cast<void>(message.release());
        if (wake) {
            wakeLater(server, client);
        }
        countAlone(server.counters.sent);
        return true;
    }
    countLost(sent, client.counters.queue_full, server.counters.no_memory);
    logFull();
    return false;
}

// ---- publish.cpp ----

// Appends a copy of message to the queue of every node subscribed to its topic. Always 0.
int _busServerPublish(server_t *server, const message_t *message) noexcept;
// Publishes a notice of the server's own on topic. False: no memory, nothing was sent.
bool publishNotice(server_t &server, const char *topic, std::string_view text) noexcept;
// Hands node a copy of the topic's sticky message, if there is one.
void replaySticky(server_t &server, const node_t &node, const char *topic) noexcept;

void _busServerPublishAction(server_t &server, MessagePtr &message) noexcept;
void _busServerPublishSticky(server_t &server, MessagePtr &taken) noexcept;
void _busServerRemoveSticky(server_t &server, MessagePtr &taken) noexcept;

// Calls run(topic) for each text of the JSON array that is message's payload, in order. Anything
// else in the payload is passed over. Throws std::bad_alloc before the first.
template <typename Run>
void forEachTopic(const message_t &message, Run run) {
    const bool hasData = message.payload && message.payload->data;
    const JsonPtr json = hasData ? parseJson(message.payload->data) : nullptr;
    if (!cJSON_IsArray(json.get())) {
        return;
    }
    const cJSON *element = nullptr;
    cJSON_ArrayForEach(element, json.get()) {
        if (cJSON_IsString(element)) {
            run(element->valuestring);
        }
    }
}

// ---- requests and answers, loop.cpp ----

// A request that the loop has taken, and what is known of it.
struct Request {
    MessagePtr &taken;        // null once it has been handed on
    const message_t &message; // the same
    Url url;
    node_t *sender = nullptr; // the entry of the record that made it; null: that is not on the bus
};

enum class Answered { kQueued, kNotMade, kRefused };

// Queues the answer to request for the server itself, so that it reaches the caller after all that
// was queued before it. An answer that cannot be made or queued ends the call with none, at once.
Answered answer(server_t &server, const message_t &request, std::string_view text) noexcept;
// Ends the call of the record that made request without an answer.
void endCall(server_t &server, const message_t &request) noexcept;

// ---- leaving, departed.cpp ----

// Takes an entry off registry and directory; it is the caller's to free.
void takeOff(server_t &server, node_t &entry) noexcept;
// Takes off the bus the nodes that have gone without waiting for it, and answers the calls that
// wait for them. Costs a load where there is none.
void takeOffDeparted(server_t &server) noexcept;

// ---- service.cpp, keys.cpp ----

// Answer a request to the host "bus", and to the host "localKeys".
void _busServerService(server_t &server, const Request &request) noexcept;
void _busServerKeys(server_t &server, const Request &request) noexcept;
// What server and nodes have counted, as JSON. Throws std::bad_alloc.
std::string statsText(server_t &server);

// ---- the key store's file, key_file.cpp; all throw std::bad_alloc ----

// Reads the file, where there is one, and puts what has been set since on top of it. Nothing is
// taken of a file that can't be read to its end, unless what could be read begins with an object.
void _busGetKeys(server_t &server);
// Whether the file is another than the one that _busGetKeys has seen.
bool _busKeysChanged(const server_t &server);
// Replaces the file by the store, unless it has not been read. One that begins with no JSON object
// is set aside first. What does not succeed leaves the file as it was, and the store in memory.
void _busSetKeys(server_t &server);

// ---- deadlock.cpp ----

// 0 when the chain of calls that starts at node host leads to a node that is calling target, -1
// when it ends elsewhere. A node that has given its call up calls nobody. The chain is left after
// as many steps as there are nodes: a ring that does not hold target is still open while the answer
// of its refused call is queued.
int _busServerHasDeadLock(server_t *server, const char *host, const char *target) noexcept;
// Answers a request that would close a ring, and tells the subscribers of "bus.error".
void refuseRing(server_t &server, const message_t &request) noexcept;

} // namespace bus

// Nothing is evaluated unless verbose lines are written.
#define BUS_SERVER_TRACE(direction, server, message, target)                                       \
    do {                                                                                           \
        if (::bus::logEnabled(1)) {                                                                \
            ::bus::_busServerLogMessage(1, (direction), (server), (message), (target), __LINE__);  \
        }                                                                                          \
    } while (false)

#endif
