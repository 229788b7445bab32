#include "bus_client/internal.h"

namespace bus {
namespace {

void _message(client_t &client, const message_t &message) noexcept {
    countAlone(client.counters.taken);
    if (!client.onmessage_func) {
        return;
    }
    const payload_t *const payload = message.payload;
    BUS_LOG(1, "  %s %s onmessage func begin\n", TAG, client.name.get());
    client.onmessage_func(client.userdata, &client, message.topic,
                          payload ? payload->data : nullptr, payload ? payload->len : 0);
    BUS_LOG(1, "  %s %s onmessage func end\n", TAG, client.name.get());
}

void _request(client_t &client, const message_t &request) noexcept {
    countAlone(client.counters.taken);
    answerRequest(client, request, client.oncall_func);
}

void _wakeUp(client_t &client, const message_t & /*message*/) noexcept {
    BUS_LOG(0, "  %s %s singal timer_queue\n", TAG, client.name.get());
}

void _exit(client_t &client, const message_t & /*message*/) noexcept {
    leaveBus(client);
    BUS_LOG(3, "  %s %s exit end\n", TAG, client.name.get());
}

struct Route {
    Action action;
    void (*run)(client_t &, const message_t &);
};
constexpr Route kActions[] = {
    {Action::kPublish, _message}, {Action::kRequest, _request}, {Action::kKillTimer, _killTimer},
    {Action::kSetTimer, _wakeUp}, {Action::kExit, _exit},
};

// While the node runs, the head of its queue; then only the requests that reached it before it
// left the bus. Null: none is left.
MessagePtr takeNext(client_t &client) noexcept {
    while (client.running.load(std::memory_order_relaxed) == 1) {
        if (void *const message = bus_mk_q_recv(client.message_queue, 0, 0, 1)) {
            return MessagePtr{static_cast<message_t *>(message)};
        }
    }
    return takeRequest(client);
}

// False: the message is broken, and no timer is looked at on its account.
bool dispatch(client_t &client, const message_t &message) noexcept {
    BUS_CLIENT_TRACE("<==", &client, &message);
    if (!message.action || !message.name) {
        return false;
    }
    for (const Route &route : kActions) {
        if (route.action == message.kind) {
            route.run(client, message);
            break;
        }
    }
    return true;
}

// Memory may come back, and a node that is not asked to stop keeps its thread; a full queue is told
// at once.
bus_mk_sent postExit(client_t &client) noexcept {
    bus_mk_sent sent{};
    attemptAgain([&] {
        MessagePtr message = ownMessage(client, nullptr, Action::kExit, nullptr, 0);
        sent = handOver(client.message_queue, message, 0);
        return sent != bus_mk_sent::kNoMemory;
    });
    return sent;
}

} // namespace
} // namespace bus

int busClientSpin(client_t *client) noexcept {
    BUS_LOG(3, "  %s %s spin running\n", bus::TAG, client ? client->name.get() : "NULL");
    if (!client) {
        return 0;
    }
    while (const bus::MessagePtr message = bus::takeNext(*client)) {
        if (bus::dispatch(*client, *message)) {
            bus::timerPass(*client);
            bus::timerPause(*client);
        }
    }
    BUS_LOG(3, "  %s %s thread exit\n", bus::TAG, client->name.get());
    return 0;
}

int busClientSpinExit(client_t *client) noexcept {
    if (!client) {
        return 0;
    }
    BUS_LOG(3, "  %s %s exit begin\n", bus::TAG, client->name.get());
    const bus_mk_sent sent = bus::postExit(*client);
    if (sent != bus_mk_sent::kDone) {
        bus::countLost(sent, client->counters.own_full, client->counters.no_memory);
        BUS_LOG(4, "  %s %s message queue is full\n", bus::TAG, client->name.get());
    }
    return 0;
}
