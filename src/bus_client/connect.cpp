#include "bus_client/internal.h"

#include <cstring>
#include <memory>
#include <new>

client_t::client_t() noexcept
    : timer_queue{bus_mk_q_new(bus::kClientQueue, bus::_timer_equal)},
      message_queue{bus_mk_q_new(bus::kClientQueue, bus::_message_equal)} {
    bus_mk_thread_mutex_init(&wait_callresponse);
    bus_mk_thread_mutex_init(&oncall_mutex);
    bus_mk_thread_cond_init(&oncall_cond);
}

client_t::~client_t() {
    bus_mk_thread_mutex_destroy(&wait_callresponse);
    bus_mk_thread_mutex_destroy(&oncall_mutex);
    bus_mk_thread_cond_destroy(&oncall_cond);
    if (message_queue) {
        bus_mk_q_clear(message_queue, bus::busClientExMessageDelete, 0);
    }
    if (timer_queue) {
        bus_mk_q_clear(timer_queue, bus::busClientExTimerDelete, 0);
    }
}

namespace bus {
namespace {

std::unique_ptr<client_t> newClient(server_t *server, const char *name) noexcept {
    std::unique_ptr<client_t> client{new (std::nothrow) client_t};
    if (client) {
        client->server = server;
        client->name.reset(bus_mk_strdup(name));
    }
    const bool whole = client && client->name && client->timer_queue && client->message_queue;
    return whole ? std::move(client) : nullptr;
}

// False when the bus answered and did not take the node. A join that could not be sent is no
// refusal: the node is then not on the bus.
bool join(client_t &client) noexcept {
    char *response = nullptr;
    if (call(client, kJoinUrl, nullptr, 0, &response) == Call::kAnswered &&
        !client.registered.load(std::memory_order_acquire)) {
        return false;
    }
    BUS_LOG(3, "  %s %s connect end, payload: %s\n", kClientTag, client.name.get(),
            orNull(response));
    return true;
}

// The two requests that change a node's subscriptions, and what they are called in the log.
int changeTopics(client_t *client, const char *jsondata, const char *url,
                 const char *verb) noexcept {
    if (!client || !client->server || !jsondata) {
        return -1;
    }
    BUS_LOG(2, "  %s %s %s begin, %s\n", kClientTag, client->name.get(), verb, jsondata);
    if (!isJsonArray(jsondata)) {
        logFormatError();
        return -1;
    }
    char *response = nullptr;
    call(*client, url, jsondata, static_cast<int>(std::strlen(jsondata)), &response);
    BUS_LOG(1, "  %s %s %s end, payload: %s\n", kClientTag, client->name.get(), verb,
            orNull(response));
    return 0;
}

} // namespace
} // namespace bus

client_t *busClientConnect(Zelvo_t *busManager, const char *name, onmessage_callback onmessage,
                           oncall_callback oncall, void *userdata) noexcept {
    if (!busManager || !name || !busManager->server) {
        return nullptr;
    }
    bus::server_t *const server = busManager->server;
    BUS_LOG(3, "  %s %s connect begin, busManager: %p, server: %p, name: %p\n", bus::kClientTag,
            name, static_cast<const void *>(busManager), static_cast<const void *>(server),
            static_cast<const void *>(name));
    // A registry's key is read only.
    if (bus_mk_q_find(server->nodes_queue, const_cast<char *>(name), nullptr)) {
        BUS_LOG(4, "  %s %s already exist\n", bus::kClientTag, name);
        return nullptr;
    }
    if (!bus::isCallable(name)) {
        BUS_LOG(4, "  %s %s cannot be called by this name\n", bus::kClientTag, name);
    }
    std::unique_ptr<client_t> client = bus::newClient(server, name);
    if (client) {
        client->onmessage_func = onmessage;
        client->oncall_func = oncall;
        client->userdata = userdata;
    }
    if (!client || !bus::join(*client)) {
        BUS_LOG(5, "  %s connect failed\n", bus::kClientTag);
        return nullptr;
    }
    busClientSubscribe(client.get(), bus::kEventSubscription);
    return client.release();
}

int busClientSubscribe(client_t *client, const char *jsondata) noexcept {
    return bus::changeTopics(client, jsondata, bus::kSubscribeUrl, "subscribe");
}

int busClientUnsubscribe(client_t *client, const char *jsondata) noexcept {
    return bus::changeTopics(client, jsondata, bus::kUnsubscribeUrl, "unsubscribe");
}

int busClientClose(client_t *client) noexcept {
    if (!client) {
        return 0;
    }
    if (client->registered.load(std::memory_order_acquire)) {
        bus::leaveBus(*client);
    }
    // Whoever called a node that never ran still waits.
    while (const bus::MessagePtr request = bus::takeRequest(*client)) {
        bus::answerRequest(*client, *request, nullptr);
    }
    BUS_LOG(3, "  %s %s close\n", bus::kClientTag, client->name.get());
    delete client;
    return 0;
}
