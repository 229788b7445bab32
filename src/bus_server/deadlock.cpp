#include "bus_server/internal.h"

#include <cstring>

namespace bus {
namespace {

// Whether the call that call_name stands for is not waited for any more: its time was up.
bool hasGivenUp(const client_t &client) noexcept {
    return client.call_number != 0 && client.call_number != client.waiting_call.load();
}

bool isReserved(const char *host) noexcept {
    return selects(host, kBusHost) || selects(host, kKeysHost);
}

} // namespace

int _busServerHasDeadLock(server_t *server, const char *host, const char *target) noexcept {
    const std::size_t nodes = server->directory.nodes();
    for (std::size_t step = 0;; ++step) {
        // A node may bear the name of a reserved host; a call to that name is none to the node.
        const bool reserved = step > 0 && isReserved(host);
        const node_t *const node = host && !reserved ? server->directory.find(host) : nullptr;
        if (!node) {
            BUS_LOG(4, "  %s client %s is exit\n", TAG, host ? host : "host is null");
            return -1;
        }
        const client_t &client = *node->node;
        const char *const calls = client.call_name.data();
        if (step == nodes || *calls == '\0' || hasGivenUp(client)) {
            return -1;
        }
        BUS_LOG(2, "  %s %s call %s, target: %s\n", TAG, host, calls, target);
        if (!isReserved(calls) && std::strcmp(calls, target) == 0) {
            return 0;
        }
        host = calls;
    }
}

void refuseRing(server_t &server, const message_t &request) noexcept {
    BUS_LOG(5, "  bus server exist deadlock\n");
    if (answer(server, request, kEmptyAnswer) == Answered::kNotMade) {
        return;
    }
    if (!publishNotice(server, kErrorTopic, kDeadlockNotice)) {
        BUS_LOG(5, "  %s bus.error publish failed\n", TAG);
    }
}

} // namespace bus
