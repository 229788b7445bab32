#include "bus_server/internal.h"

#include <cstring>
#include <optional>

namespace bus {
namespace {

// ---- requests ----

node_t *senderOf(const server_t &server, const message_t &request) noexcept {
    node_t *const entry = server.directory.find(request.name);
    return entry && entry->node == request.node ? entry : nullptr;
}

// The record that made request, as long as something keeps it: its entry or the message itself.
client_t *callerOf(const node_t *sender, const message_t &request) noexcept {
    if (sender) {
        return sender->node;
    }
    return request.holds_node ? static_cast<client_t *>(request.node) : nullptr;
}

// Other nodes' deadlock checks read which host the caller is waiting for.
void noteCall(const Request &request) noexcept {
    if (client_t *const caller = callerOf(request.sender, request.message)) {
        caller->call_name.fill('\0');
        request.url.host.copy(caller->call_name.data(), kMaxHost);
        caller->call_number = request.message.call;
    }
}

// A request names its maker as the requester already; it is handed on as it is.
bool forward(server_t &server, const Request &request, const node_t &target) noexcept {
    client_t &client = *target.node;
    BUS_SERVER_TRACE("==>", &server, request.taken.get(), client.name.get());
    return sendToNode(server, client, request.taken, [&client] {
        BUS_LOG(4, "  %s server ==> %s request failed, queue is full\n", TAG, client.name.get());
    });
}

void callNode(server_t &server, const Request &request) noexcept {
    const message_t &message = request.message;
    if (_busServerHasDeadLock(&server, message.name, message.name) == 0) {
        refuseRing(server, message);
        return;
    }
    const node_t *const target = server.directory.find(request.url.host);
    if (!target || !forward(server, request, *target)) {
        answer(server, message, kUnknownAnswer);
    }
}

struct Host {
    std::string_view name;
    void (*run)(server_t &, const Request &);
};
constexpr Host kReservedHosts[] = {
    {kKeysHost, _busServerKeys},
    {kBusHost, _busServerService},
};

void _busServerRequest(server_t &server, MessagePtr &taken) noexcept {
    const message_t &message = *taken;
    if (!message.url) {
        return;
    }
    const std::optional<Url> url = splitUrl(message.url);
    if (!url) {
        BUS_LOG(5, "  %s not url path\n", TAG);
        answer(server, message, kUnknownAnswer);
        return;
    }
    BUS_LOG(1, "  %s host: %.*s, path: %.*s\n", TAG, static_cast<int>(url->host.size()),
            url->host.data(), static_cast<int>(url->path.size()), url->path.data());
    const Request request{taken, message, *url, senderOf(server, message)};
    noteCall(request);
    for (const Host &host : kReservedHosts) {
        if (selects(url->host, host.name)) {
            host.run(server, request);
            return;
        }
    }
    callNode(server, request);
}

// ---- answers ----

// One level 1 line for each entry of the registry up to the addressee.
void logSearch(server_t &server, const message_t &response) noexcept {
    const auto visit = [](void *item, void *arg) {
        const char *const name = static_cast<const node_t *>(item)->name.get();
        const char *const wanted = static_cast<const char *>(arg);
        BUS_LOG(1, "  %s name: %s, request_name: %s\n", TAG, name, orNull(wanted));
        return wanted && std::strcmp(name, wanted) == 0 ? 1 : 0;
    };
    bus_mk_q_visit(server.nodes_queue, visit, response.request_name);
}

// Only the server's own answer to a leave request takes a node off the bus: another node's answer,
// or a stored value, may look the same.
bool isLeaveNotice(const server_t &server, const message_t &response) noexcept {
    if (response.node != &server || !response.url || !response.payload) {
        return false;
    }
    const Url url = splitUrl(response.url).value_or(Url{});
    return selects(url.host, kBusHost) && url.path.starts_with(kDisjoinPath) &&
           std::string_view{response.payload->data}.starts_with(kDisjoinNotice);
}

// Whether client waits for this answer, or the answer is one to whatever it waits for.
bool isAwaited(const client_t &client, const message_t &response) noexcept {
    return response.call == 0 || response.call == client.waiting_call.load();
}

// Hands client its answer (no payload: none) and wakes it. False: it does not wait for it any more,
// and nothing is changed.
bool deliver(client_t &client, const message_t &response, const payload_t *payload) noexcept {
    const bus_mk_guard lock{client.oncall_mutex};
    if (!isAwaited(client, response)) {
        return false;
    }
    client.call_name.fill('\0');
    const bool hasText = payload && payload->data;
    const std::size_t length = hasText ? static_cast<std::size_t>(payload->len) : 0;
    client.call_response.reset(hasText ? static_cast<char *>(std::malloc(length + 1)) : nullptr);
    if (client.call_response) {
        std::memcpy(client.call_response.get(), payload->data, length);
        client.call_response.get()[length] = '\0';
    } else if (hasText) {
        count(client.counters.no_memory);
        BUS_LOG(5, "  %s response failed\n", TAG);
    }
    client.waiting_call.store(0);
    if (client.caller_sleeps) {
        bus_mk_thread_cond_signal(&client.oncall_cond);
    }
    return true;
}

void dropLate(client_t &client, const message_t &response) noexcept {
    count(client.counters.late_answers);
    BUS_LOG(1, "  %s %s late response dropped, url: %s\n", TAG, client.name.get(),
            orNull(response.url));
}

void _busServerResponse(server_t &server, MessagePtr &message) noexcept {
    const message_t &response = *message;
    if (logEnabled(1)) {
        logSearch(server, response);
    }
    node_t *const entry =
        response.request_name ? server.directory.find(response.request_name) : nullptr;
    if (!entry) {
        countAlone(server.counters.no_addressee);
        return;
    }
    client_t &client = *entry->node;
    const bool awaited = isAwaited(client, response);
    if (awaited) {
        BUS_SERVER_TRACE("==>", &server, &response, client.name.get());
    }
    // The name is free, and the record out of reach, before the leaving node wakes and is closed.
    const bool leaving = awaited && isLeaveNotice(server, response);
    if (leaving) {
        takeOff(server, *entry);
    }
    if (!awaited || !deliver(client, response, response.payload)) {
        dropLate(client, response);
    }
    if (leaving) {
        busServerExNodeDelete(entry);
        BUS_LOG(2, "  %s %s disjoin\n", TAG, response.request_name);
    }
}

// ---- the loop ----

void _busServerExitAction(server_t &server, MessagePtr & /*message*/) noexcept {
    BUS_LOG(3, "  %s %s exit end\n", TAG, server.name.get());
    server.running.store(0);
}

// It has woken the loop, which looks at the departed nodes before each message.
void _busServerDepart(server_t & /*server*/, MessagePtr & /*message*/) noexcept {}

struct Route {
    Action action;
    void (*run)(server_t &, MessagePtr &);
};
constexpr Route kActions[] = {
    {Action::kPublish, _busServerPublishAction},
    {Action::kRequest, _busServerRequest},
    {Action::kExit, _busServerExitAction},
    {Action::kResponse, _busServerResponse},
    {Action::kPublishSticky, _busServerPublishSticky},
    {Action::kRemoveSticky, _busServerRemoveSticky},
    {Action::kDepart, _busServerDepart},
};

void dispatch(server_t &server, MessagePtr &message) noexcept {
    BUS_SERVER_TRACE("<==", &server, message.get(), message->name);
    if (!message->action || !message->name) {
        BUS_LOG(4, "  %s message body not action | name\n", TAG);
        return;
    }
    for (const Route &route : kActions) {
        if (route.action == message->kind) {
            route.run(server, message);
            return;
        }
    }
    BUS_LOG(1, "  %s not implement\n", TAG);
}

bool enterLoop(server_t &server) noexcept {
    const bus_mk_guard lock{server.loop_mutex};
    if (server.looping) {
        return false;
    }
    server.looping = true;
    server.running.store(1);
    return true;
}

// Nodes that wait for the answer to their leave request wait in vain now. Noted first: no node's
// mutex is taken under the registry's.
void wakeLeaving(server_t &server) noexcept {
    const auto noteNode = [](void *item, void *arg) {
        wakeLater(*static_cast<server_t *>(arg), *static_cast<node_t *>(item)->node);
        return 0;
    };
    bus_mk_q_visit(server.nodes_queue, noteNode, &server);
    while (client_t *const client = takeToWake(server)) {
        const bus_mk_guard lock{client->oncall_mutex};
        bus_mk_thread_cond_signal(&client->oncall_cond);
    }
}

void leaveLoop(server_t &server) noexcept {
    wakeAll(server);
    wakeLeaving(server);
    const bus_mk_guard lock{server.loop_mutex};
    server.looping = false;
    bus_mk_thread_cond_signal(
        &server.loop_ended); // under the mutex: the server may be deleted next
}

// While messages wait, only some of the sleeping nodes are woken between two of them.
constexpr int kWakesAMessage = 40;

void wakeSome(server_t &server) noexcept {
    for (int woken = 0; woken < kWakesAMessage || bus_mk_q_empty(server.message_queue); ++woken) {
        if (!wakeNext(server)) {
            return;
        }
    }
}

} // namespace

int _busServerLogMessage(int level, const char *direction, const server_t *server,
                         const message_t *message, const char *target, int line) noexcept {
    BUS_LOG(level,
            "  %s #%4d# %s %s %s,  action: %s, topic: %s,  url: %s, requestor: %s, payload:%s, "
            "payload len: %d\n",
            TAG, line, orNull(server ? server->name.get() : nullptr), direction, orNull(target),
            orNull(message->action), orNull(message->topic), orNull(message->url),
            orNull(message->request_name), tracedPayload(message->payload),
            message->payload ? message->payload->len : 0);
    return 0;
}

Answered answer(server_t &server, const message_t &request, std::string_view text) noexcept {
    MessagePtr response;
    if (fitsPayload(text.size())) {
        response.reset(busClientExMessageNew(kServerName, nullptr, request.url, action::kResponse,
                                             &server, request.name, text.data(),
                                             static_cast<int>(text.size())));
    }
    if (!response) {
        count(server.counters.no_memory);
        BUS_LOG(5, "  %s response failed\n", TAG);
        endCall(server, request);
        return Answered::kNotMade;
    }
    response->call = request.call;
    BUS_SERVER_TRACE("==>", &server, response.get(), server.name.get());
    const bus_mk_sent sent = postToServer(server, response);
    if (sent != bus_mk_sent::kDone) {
        countLost(sent, server.counters.queue_full, server.counters.no_memory);
        endCall(server, request);
        return Answered::kRefused;
    }
    count(server.counters.posted);
    return Answered::kQueued;
}

void endCall(server_t &server, const message_t &request) noexcept {
    if (client_t *const caller = callerOf(senderOf(server, request), request)) {
        deliver(*caller, request, nullptr);
    }
}

int busServerRun(server_t *server) noexcept {
    BUS_LOG(3, "  %s running\n", TAG);
    if (!server) {
        return -1;
    }
    if (!enterLoop(*server)) {
        BUS_LOG(4, "  %s server is running\n", TAG);
        return 0;
    }
    while (server->running.load() == 1) {
        if (server->to_wake) {
            wakeSome(*server);
        }
        MessagePtr message{static_cast<message_t *>(bus_mk_q_recv(server->message_queue, 0, 0, 1))};
        if (message) {
            countAlone(server->counters.taken);
            takeOffDeparted(*server);
            dispatch(*server, message);
            // The message may have been a call to a node that has gone meanwhile, and whose wake-up
            // was lost. Such a node looks at its queue once more after it has put itself on the
            // list: one of the two finds the call.
            takeOffDeparted(*server);
        }
    }
    BUS_LOG(3, "  %s spin exit\n", TAG);
    leaveLoop(*server);
    return 0;
}

} // namespace bus
