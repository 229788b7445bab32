#include "bus_server/internal.h"

#include <memory>
#include <new>
#include <optional>
#include <string>

namespace bus {
namespace {

struct Service {
    server_t &server;
    const message_t &request;
    node_t *sender; // the entry of the record that made the request, or null
};
using Answer = std::optional<std::string>; // nothing: the call has been ended already

// ---- join ----

bool store(server_t &server, std::unique_ptr<node_t> entry) noexcept {
    if (!entry || !entry->name || !entry->topics_queue || !server.directory.add(*entry)) {
        return false;
    }
    entry->joined = ++server.joins;
    entry->place = bus_mk_q_append(server.nodes_queue, entry.get());
    if (!entry->place) {
        server.directory.remove(*entry);
        return false;
    }
    entry->node->registered.store(true, std::memory_order_release);
    static_cast<void>(entry.release());
    return true;
}

std::unique_ptr<node_t> newEntry(const char *name, client_t *client) noexcept {
    std::unique_ptr<node_t> entry{new (std::nothrow) node_t};
    if (entry) {
        entry->name.reset(bus_mk_strdup(name));
        entry->node = retain(*client);
        entry->topics_queue = bus_mk_q_new(kServerQueue, node_topic_equal);
    }
    return entry;
}

// Puts client on the bus. False, and the reason in the log, unless it has gone: it is not.
bool admit(server_t &server, client_t &client, const char *name) noexcept {
    if (client.departed.load()) {
        return false;
    }
    if (server.directory.nodes() >= kServerQueue) {
        BUS_LOG(4, "  %s %s join failed, registry is full\n", TAG, name);
        return false;
    }
    if (!store(server, newEntry(name, &client))) {
        count(server.counters.no_memory);
        BUS_LOG(5, "  %s %s join failed\n", TAG, name);
        return false;
    }
    return true;
}

Answer _join(const Service &call) {
    const char *const name = call.request.name;
    node_t *const holder = call.server.directory.find(name);
    if (holder && holder->node->departed.load()) {
        takeOff(call.server, *holder);
        busServerExNodeDelete(holder);
    } else if (holder) {
        BUS_LOG(4, "  %s, %s already exist\n", TAG, name);
        if (call.sender) {
            return std::string{kEmptyAnswer};
        }
        endCall(call.server, call.request); // by name it would go to the node that holds the name
        return std::nullopt;
    }
    auto *const client =
        call.request.holds_node ? static_cast<client_t *>(call.request.node) : nullptr;
    // Made first: what can fail for lack of memory fails while the registry is unchanged.
    std::string accepted{kEmptyAnswer};
    const std::string notice = joinNotice(name);
    if (!client || !admit(call.server, *client, name)) {
        endCall(call.server, call.request); // an answer by name would find nobody
        return std::nullopt;
    }
    if (publishNotice(call.server, kEventTopic, notice)) {
        BUS_LOG(2, "  %s %s node joined\n", TAG, name);
    }
    return accepted;
}

// ---- topics ----

void subscribe(server_t &server, node_t &node, const char *topic) noexcept {
    const char *const name = node.name.get();
    bus_mk_text copy{bus_mk_strdup(topic)};
    if (!copy) {
        BUS_LOG(4, "  %s topic malloc error %s\n", TAG, name);
        return;
    }
    if (server.directory.isSubscribed(node, topic)) {
        BUS_LOG(4, "  %s %s already subscribe topic %s\n", TAG, name, topic);
        return;
    }
    if (!server.directory.subscribe(node, topic)) {
        BUS_LOG(4, "  %s topic malloc error %s\n", TAG, name);
        return;
    }
    if (bus_mk_q_send(node.topics_queue, copy.get(), bus_mk_q_tail) != 0) {
        server.directory.unsubscribe(node, topic);
        BUS_LOG(4, "  %s %s subscribe topic %s failed, queue is full\n", TAG, name, topic);
        return;
    }
    static_cast<void>(copy.release());
    replaySticky(server, node, topic);
}

void unsubscribe(server_t &server, const node_t &node, char *topic) noexcept {
    const bus_mk_text removed{static_cast<char *>(bus_mk_q_delete(node.topics_queue, topic))};
    if (!removed) {
        BUS_LOG(4, "  %s already unsubscribe topic %s\n", node.name.get(), topic);
        return;
    }
    server.directory.unsubscribe(node, topic);
}

Answer _subscribe(const Service &call) {
    if (call.sender) {
        forEachTopic(call.request,
                     [&](char *topic) { subscribe(call.server, *call.sender, topic); });
    }
    return std::string{kEmptyAnswer};
}

Answer _unsubscribe(const Service &call) {
    if (call.sender) {
        forEachTopic(call.request,
                     [&](char *topic) { unsubscribe(call.server, *call.sender, topic); });
    }
    return std::string{kEmptyAnswer};
}

// ---- nodes ----

int appendName(void *entry, void *array) {
    cJSON *const name = cJSON_CreateString(static_cast<node_t *>(entry)->node->name.get());
    return name && cJSON_AddItemToArray(static_cast<cJSON *>(array), name) ? 0 : -1;
}

Answer _nodes(const Service &call) {
    const JsonPtr object{cJSON_CreateObject()};
    cJSON *const array = cJSON_AddArrayToObject(object.get(), "data");
    if (!array || bus_mk_q_visit(call.server.nodes_queue, appendName, array) != 0) {
        return std::string{kNoNodesAnswer};
    }
    const JsonText printed{cJSON_Print(object.get())};
    return printed ? std::string{printed.get()} : std::string{};
}

// ---- counters ----

Answer _stats(const Service &call) {
    return call.server.has_stats ? statsText(call.server) : std::string{kUnknownAnswer};
}

// ---- leave ----

// Only the answer is made here; its delivery takes the node off the registry.
Answer _disjoin(const Service &call) {
    const char *const name = call.request.name;
    if (!call.sender) {
        BUS_LOG(5, "  %s %s already disjoin\n", TAG, name);
        return std::string{kEmptyAnswer};
    }
    std::string notice = disjoinNotice(name);
    BUS_LOG(1, "  %s %s disjoin\n", TAG, name);
    return notice;
}

// ---- dispatch ----

enum Match { kWhole, kPrefix };

struct Route {
    std::string_view path;
    Match match;
    Answer (*run)(const Service &);
};
// The first row that matches is taken.
constexpr Route kPaths[] = {
    {kJoinPath, kWhole, _join},
    {kSubscribePath, kPrefix, _subscribe},
    {kUnsubscribePath, kPrefix, _unsubscribe},
    {kNodesPath, kPrefix, _nodes},
    {kDisjoinPath, kPrefix, _disjoin},
    {kStatsPath, kWhole, _stats},
};

Answer serve(const Service &call, std::string_view path) {
    if (path.size() <= 1) {
        BUS_LOG(5, "  %s not url path\n", TAG);
        return std::string{};
    }
    for (const Route &route : kPaths) {
        if (route.match == kWhole ? path == route.path : path.starts_with(route.path)) {
            return route.run(call);
        }
    }
    return std::string{kUnknownAnswer};
}

} // namespace

void _busServerService(server_t &server, const Request &request) noexcept {
    const message_t &message = request.message;
    try {
        const Service call{server, message, request.sender};
        if (const Answer text = serve(call, request.url.path)) {
            answer(server, message, *text);
        }
    } catch (const std::bad_alloc &) {
        count(server.counters.no_memory);
        BUS_LOG(5, "  %s response failed\n", TAG);
        endCall(server, message);
    }
}

} // namespace bus
