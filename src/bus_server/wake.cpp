// Nodes that sleep while publications and calls come for them. Waking a thread costs more than
// several messages; so the server handles what waits for it first, and what comes for a node
// meanwhile needs no waking of its own.
#include "bus_server/internal.h"

namespace bus {

void wakeLater(server_t &server, client_t &client) noexcept {
    client.next_to_wake = nullptr;
    (server.to_wake ? server.to_wake_last->next_to_wake : server.to_wake) = &client;
    server.to_wake_last = &client;
}

client_t *takeToWake(server_t &server) noexcept {
    client_t *const client = server.to_wake;
    if (client) {
        server.to_wake = client->next_to_wake;
    }
    return client;
}

bool wakeNext(server_t &server) noexcept {
    client_t *const client = takeToWake(server);
    if (client) {
        bus_mk_q_wake(client->message_queue); // after which the node may be closed at any time
    }
    return client != nullptr;
}

void wakeAll(server_t &server) noexcept {
    while (wakeNext(server)) {}
}

} // namespace bus
