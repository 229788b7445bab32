#include "bus_server/internal.h"

#include <cstring>
#include <optional>
#include <utility>

namespace bus {
namespace {

// ---- requests ----

// Other nodes' deadlock checks read which host the caller is waiting for.
void noteCall(const message_t &request, std::string_view host) noexcept {
    if (auto *const caller = static_cast<client_t *>(request.node)) {
        caller->call_name.fill('\0');
        host.copy(caller->call_name.data(), kMaxHost);
    }
}

bool forward(server_t &server, const message_t &request, const node_t &target) noexcept {
    client_t &client = *target.node;
    MessagePtr copy{copyForRequest(request, request.name)};
    if (!copy) {
        return false;
    }
    BUS_SERVER_TRACE("==>", &server, copy.get(), client.name.get());
    const bool taken = handOver(client.message_queue, copy, -1);
    if (!taken) {
        BUS_LOG(4, "  %s server ==> %s request failed, queue is full\n", kServerTag,
                client.name.get());
    }
    return taken;
}

void callNode(server_t &server, const message_t &request, const Url &url) noexcept {
    if (_busServerHasDeadLock(&server, request.name, request.name) == 0) {
        refuseRing(server, request);
        return;
    }
    const node_t *const target = server.directory.find(url.host);
    if (!target || !forward(server, request, *target)) {
        answer(server, request, kUnknownAnswer);
    }
}

struct Host {
    std::string_view name;
    void (*run)(server_t &, const message_t &, const Url &);
};
constexpr Host kReservedHosts[] = {
    {kKeysHost, _busServerKeys},
    {kBusHost, _busServerService},
};

void _busServerRequest(server_t &server, message_t &request) noexcept {
    if (!request.url) {
        return;
    }
    const std::optional<Url> url = splitUrl(request.url);
    if (!url) {
        BUS_LOG(5, "  %s not url path\n", kServerTag);
        answer(server, request, kUnknownAnswer);
        return;
    }
    BUS_LOG(1, "  %s host: %.*s, path: %.*s\n", kServerTag, static_cast<int>(url->host.size()),
            url->host.data(), static_cast<int>(url->path.size()), url->path.data());
    noteCall(request, url->host);
    for (const Host &host : kReservedHosts) {
        if (selects(url->host, host.name)) {
            host.run(server, request, *url);
            return;
        }
    }
    callNode(server, request, *url);
}

// ---- answers ----

// One level 1 line for each entry of the registry up to the addressee.
void logSearch(server_t &server, const message_t &response) noexcept {
    const auto visit = [](void *item, void *arg) {
        const char *const name = static_cast<const node_t *>(item)->name.get();
        const char *const wanted = static_cast<const char *>(arg);
        BUS_LOG(1, "  %s name: %s, request_name: %s\n", kServerTag, name, orNull(wanted));
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
    const std::optional<Url> url = splitUrl(response.url);
    if (!url || !selects(url->host, kBusHost) || !url->path.starts_with(kDisjoinPath)) {
        return false;
    }
    return std::string_view{response.payload->data}.starts_with(kDisjoinNotice);
}

void leave(server_t &server, node_t &entry) noexcept {
    const auto unsubscribe = [](void *topic, void *arg) {
        auto &[all, node] = *static_cast<std::pair<Directory *, const node_t *> *>(arg);
        all->unsubscribe(*node, static_cast<const char *>(topic));
        return 0;
    };
    std::pair<Directory *, const node_t *> arg{&server.directory, &entry};
    bus_mk_q_visit(entry.topics_queue, unsubscribe, &arg);
    server.directory.remove(entry);
    bus_mk_q_take_out(server.nodes_queue, entry.place);
    entry.node->registered.store(false, std::memory_order_release);
}

void _busServerResponse(server_t &server, message_t &response) noexcept {
    if (logEnabled(1)) {
        logSearch(server, response);
    }
    node_t *const entry =
        response.request_name ? server.directory.find(response.request_name) : nullptr;
    if (!entry) {
        return;
    }
    client_t &client = *entry->node;
    BUS_SERVER_TRACE("==>", &server, &response, client.name.get());
    // The name is free, and the record out of reach, before the leaving node wakes and is closed.
    const bool leaving = isLeaveNotice(server, response);
    if (leaving) {
        leave(server, *entry);
    }
    deliver(client, response.payload);
    if (leaving) {
        busServerExNodeDelete(entry);
        BUS_LOG(2, "  %s %s disjoin\n", kServerTag, response.request_name);
    }
}

// ---- the loop ----

void _busServerExitAction(server_t &server, message_t & /*message*/) noexcept {
    BUS_LOG(3, "  %s %s exit end\n", kServerTag, server.name.get());
    server.running.store(0);
}

struct Route {
    std::string_view action;
    void (*run)(server_t &, message_t &);
};
constexpr Route kActions[] = {
    {action::kPublish, _busServerPublishAction},
    {action::kRequest, _busServerRequest},
    {action::kExit, _busServerExitAction},
    {action::kResponse, _busServerResponse},
    {action::kPublishSticky, _busServerPublishSticky},
    {action::kRemoveSticky, _busServerRemoveSticky},
};

void dispatch(server_t &server, message_t &message) noexcept {
    BUS_SERVER_TRACE("<==", &server, &message, message.name);
    if (!message.action || !message.name) {
        BUS_LOG(4, "  %s message body not action | name\n", kServerTag);
        return;
    }
    const std::string_view wanted{message.action};
    for (const Route &route : kActions) {
        if (route.action == wanted) {
            route.run(server, message);
            return;
        }
    }
    BUS_LOG(1, "  %s not implement\n", kServerTag);
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

void leaveLoop(server_t &server) noexcept {
    const bus_mk_guard lock{server.loop_mutex};
    server.looping = false;
    bus_mk_thread_cond_signal(
        &server.loop_ended); // under the mutex: the server may be deleted next
}

} // namespace

int _busServerLogMessage(int level, const char *direction, const server_t *server,
                         const message_t *message, const char *target, int line) noexcept {
    BUS_LOG(level,
            "  %s #%4d# %s %s %s,  action: %s, topic: %s,  url: %s, requestor: %s, payload:%s, "
            "payload len: %d\n",
            kServerTag, line, orNull(server ? server->name.get() : nullptr), direction,
            orNull(target), orNull(message->action), orNull(message->topic), orNull(message->url),
            orNull(message->request_name), tracedPayload(message->payload),
            message->payload ? message->payload->len : 0);
    return 0;
}

Answered answer(server_t &server, const message_t &request, std::string_view text) noexcept {
    MessagePtr response{busClientExMessageNew(kServerName, nullptr, request.url, action::kResponse,
                                              &server, request.name, text.data(),
                                              static_cast<int>(text.size()))};
    if (response) {
        BUS_SERVER_TRACE("==>", &server, response.get(), server.name.get());
        if (postToServer(server, response)) {
            return Answered::kQueued;
        }
        endCall(request);
        return Answered::kRefused;
    }
    BUS_LOG(5, "  %s response failed\n", kServerTag);
    endCall(request);
    return Answered::kNotMade;
}

void endCall(const message_t &request) noexcept {
    if (auto *const caller = static_cast<client_t *>(request.node)) {
        deliver(*caller, nullptr);
    }
}

void deliver(client_t &client, const payload_t *payload) noexcept {
    client.call_name.fill('\0');
    const bus_mk_guard lock{client.oncall_mutex};
    client.call_response.reset();
    if (payload && payload->data) {
        const auto length = static_cast<std::size_t>(payload->len);
        client.call_response.reset(static_cast<char *>(std::malloc(length + 1)));
        if (client.call_response) {
            std::memcpy(client.call_response.get(), payload->data, length);
            client.call_response.get()[length] = '\0';
        }
    }
    client.answered = true;
    bus_mk_thread_cond_signal(&client.oncall_cond);
}

int busServerRun(server_t *server) noexcept {
    BUS_LOG(3, "  %s running\n", kServerTag);
    if (!server) {
        return -1;
    }
    if (!enterLoop(*server)) {
        BUS_LOG(4, "  %s server is running\n", kServerTag);
        return 0;
    }
    while (server->running.load() == 1) {
        const MessagePtr message{
            static_cast<message_t *>(bus_mk_q_recv(server->message_queue, 0, 0, 1))};
        if (message) {
            dispatch(*server, *message);
        }
    }
    BUS_LOG(3, "  %s spin exit\n", kServerTag);
    leaveLoop(*server);
    return 0;
}

} // namespace bus
