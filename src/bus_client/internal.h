// What the files of the client module share.
#ifndef ZELVO_BUS_CLIENT_INTERNAL_H
#define ZELVO_BUS_CLIENT_INTERNAL_H

#include "bus_client_ex.h"
#include "bus_log.h"
#include "bus_protocol.h"
#include "bus_server_ex.h"

#include <chrono>
#include <optional>
#include <string_view>

struct Zelvo_t {
    bus::server_t *server; // null when making it failed
};

namespace bus {

inline namespace client_module { // as the server's
inline constexpr char TAG[] = "Vek-client";
}

// Writes the trace line of a message; none for "settimer". direction: "<==" taken, "==>" sent.
int _busClientLogMessage(int level, const char *direction, const client_t *client,
                         const message_t *message, const char *target, int line) noexcept;

// A message of client's own that belongs to no request.
MessagePtr ownMessage(client_t &client, const char *topic, Action action, const char *data,
                      int len) noexcept;

// The line of arguments that are refused.
void logFormatError() noexcept;

// When a call ends at the latest; nothing: never.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;
// That of a call which is made now.
Deadline deadlineOf(const server_t &server) noexcept;

// How a call went. Only for the first is there an answer; for the next two nothing was sent.
// kStopped: a leave request, and the bus has stopped.
enum class Call { kAnswered, kRefused, kNoMemory, kTimedOut, kStopped };

// Calls url and waits; answer is then the answer (may be null), out of reach of other threads that
// call through the node.
Call call(client_t &client, const char *url, std::string_view data, const Deadline &deadline,
          bus_mk_text &answer) noexcept;

// Takes the node off the bus for good, if it is on it: it makes no call and joins no more. Waits
// for the server's answer as long as the bus runs and the time limit of calls allows, and departs
// without it otherwise.
void leaveBus(client_t &client) noexcept;
// Leaves the taking off to the server, which does it when it runs next, if the node is on the bus
// or joins later. Never waits, never fails.
void depart(client_t &client) noexcept;

// The first request that waits for the node, or null.
MessagePtr takeRequest(client_t &client) noexcept;
// Answers one request that another node made (the callee's side of a call); handler may be null.
void answerRequest(client_t &client, const message_t &request, oncall_callback handler) noexcept;

// The spin loop's timer steps, in the node's thread: remove the timer that a "killtimer" names; run
// the handler of each timer that is due before the pass ends, of those that wait when it begins;
// and, while timers wait and no message does, pause for at most 3 ms, until the next message or
// look.
void _killTimer(client_t &client, const message_t &message) noexcept;
void timerPass(client_t &client) noexcept;
void timerPause(client_t &client) noexcept;

} // namespace bus

// Nothing is evaluated unless debug lines are written.
#define BUS_CLIENT_TRACE(direction, client, message)                                               \
    do {                                                                                           \
        if (::bus::logEnabled(2)) {                                                                \
            ::bus::_busClientLogMessage(2, (direction), (client), (message),                       \
                                        (client)->server->name.get(), __LINE__);                   \
        }                                                                                          \
    } while (false)

#endif
