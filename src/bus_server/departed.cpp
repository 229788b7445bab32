// Nodes that leave the bus: by request, or without waiting for it.
#include "bus_server/internal.h"

#include <utility>

namespace bus {
namespace {

// Nobody else will answer the calls that wait for a node that has gone.
void answerWaiting(server_t &server, client_t &client) noexcept {
    char key[] = "request";
    while (void *const item = bus_mk_q_delete(client.message_queue, key)) {
        const MessagePtr request{static_cast<message_t *>(item)};
        count(client.counters.unread);
        answer(server, *request, kNoHandlerAnswer);
    }
}

} // namespace

void takeOff(server_t &server, node_t &entry) noexcept {
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

void takeOffDeparted(server_t &server) noexcept {
    if (!server.departed.load(std::memory_order_relaxed)) {
        return;
    }
    for (client_t *next = server.departed.exchange(nullptr); next;) {
        const ClientPtr client{next};
        next = client->next_departed;
        if (client->registered.load(std::memory_order_relaxed)) {
            node_t *const entry = server.directory.find(client->name.get());
            takeOff(server, *entry);
            busServerExNodeDelete(entry);
            BUS_LOG(2, "  %s %s disjoin\n", TAG, client->name.get());
        }
        answerWaiting(server, *client);
    }
}

} // namespace bus
