#include "bus_client/internal.h"

#include <cstring>

namespace bus {
namespace {

// Posts one message to the server. False: it was refused, and is freed.
bool post(client_t &client, const char *topic, Action action, const char *data, int len) noexcept {
    MessagePtr message = ownMessage(client, topic, action, data, len);
    if (message) {
        BUS_CLIENT_TRACE("==>", &client, message.get());
    }
    const bus_mk_sent sent = handOver(client.server->message_queue, message, bus_mk_q_tail);
    if (sent != bus_mk_sent::kDone) {
        countLost(sent, client.counters.bus_full, client.counters.no_memory);
        return false;
    }
    count(client.counters.sent);
    return true;
}

int publish(client_t *client, const char *topic, Action action, const char *data,
            int len) noexcept {
    if (!client || !client->server || !topic) {
        return -1;
    }
    if (data && len < 0) {
        logFormatError();
        return -1;
    }
    if (!post(*client, topic, action, data, len)) {
        BUS_LOG(4, "  %s %s ==> server %s failed, topic: %s, queue is full\n", TAG,
                client->name.get(), wordOf(action).data(), topic);
    }
    BUS_LOG(1, "  %s %s %s end, topic: %s\n", TAG, client->name.get(), wordOf(action).data(),
            topic);
    return 0;
}

} // namespace
} // namespace bus

int busClientPublish(client_t *client, const char *topic, const char *data, int len) noexcept {
    BUS_LOG(2, "  client: %p, server: %p. topic: %p\n", static_cast<const void *>(client),
            static_cast<const void *>(client ? client->server : nullptr),
            static_cast<const void *>(topic));
    return bus::publish(client, topic, bus::Action::kPublish, data, len);
}

int busClientPublishSticky(client_t *client, const char *topic, const char *data,
                           int len) noexcept {
    return bus::publish(client, topic, bus::Action::kPublishSticky, data, len);
}

int busClientRemoveSticky(client_t *client, const char *jsondata) noexcept {
    if (!client || !client->server || !jsondata) {
        return -1;
    }
    if (!bus::fitsPayload(std::strlen(jsondata)) || !bus::isJsonArray(jsondata)) {
        bus::logFormatError();
        return -1;
    }
    if (!bus::post(*client, nullptr, bus::Action::kRemoveSticky, jsondata,
                   static_cast<int>(std::strlen(jsondata)))) {
        BUS_LOG(4, "  %s %s ==> server removeSticky failed, data: %s, queue is full\n", bus::TAG,
                client->name.get(), jsondata);
    }
    BUS_LOG(1, "  %s %s removeSticky end\n", bus::TAG, client->name.get());
    return 0;
}
