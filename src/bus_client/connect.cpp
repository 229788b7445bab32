#include "bus_client/internal.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace bus {
namespace {

bool isFromBus(const message_t &message) noexcept {
    return message.kind == Action::kPublish || message.kind == Action::kRequest;
}

int countUnread(void *item, void *unread) noexcept {
    if (isFromBus(*static_cast<const message_t *>(item))) {
        count(*static_cast<Counter *>(unread));
    }
    return 0;
}

// What the node has counted goes into the bus's sums.
void countLeft(client_t &client) noexcept {
    if (client.message_queue) {
        bus_mk_q_visit(client.message_queue, countUnread, &client.counters.unread);
    }
    if (client.server) {
        addCounters(client.server->left, client.counters);
    }
}

} // namespace
} // namespace bus

client_t::client_t() noexcept
    : timer_queue{bus_mk_q_new(bus::kClientQueue, bus::_timer_equal)},
      message_queue{bus_mk_q_new(bus::kClientQueue, bus::_message_equal)} {
    bus_mk_thread_mutex_init(&oncall_mutex);
    bus_mk_thread_cond_init(&oncall_cond);
    bus_mk_thread_cond_init(&turn_cond);
}

client_t::~client_t() {
    bus::countLeft(*this);
    bus_mk_thread_mutex_destroy(&oncall_mutex);
    bus_mk_thread_cond_destroy(&oncall_cond);
    bus_mk_thread_cond_destroy(&turn_cond);
    if (message_queue) {
        bus_mk_q_clear(message_queue, bus::busClientExMessageDelete, 0);
    }
    if (timer_queue) {
        bus_mk_q_clear(timer_queue, bus::busClientExTimerDelete, 0);
    }
}

namespace bus {

client_t *retain(client_t &client) noexcept {
    client.references.fetch_add(1, std::memory_order_relaxed);
    return &client;
}

void release(client_t *client) noexcept {
    if (client && client->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete client;
    }
}

namespace {

ClientPtr newClient(server_t *server, const char *name) noexcept {
    ClientPtr client{new (std::nothrow) client_t};
    if (client) {
        client->server = server;
        client->name.reset(bus_mk_strdup(name));
    }
    const bool whole = client && client->name && client->timer_queue && client->message_queue;
    return whole ? std::move(client) : nullptr;
}

// False when the node is not to be: the bus did not take it or gave no answer in time, or memory is
// short. A join that finds the bus's queue full is none of these: the node is then not on the bus.
bool join(client_t &client, const Deadline &deadline) noexcept {
    bus_mk_text response;
    const Call result = call(client, kJoinUrl, {}, deadline, response);
    const bool joined =
        result == Call::kAnswered && client.registered.load(std::memory_order_acquire);
    if (!joined && result != Call::kRefused) {
        return false;
    }
    BUS_LOG(3, "  %s %s connect end, payload: %s\n", TAG, client.name.get(),
            orNull(response.get()));
    return true;
}

// Whether a node that has not gone has the name. The entries that it looks at stay while it does.
bool isTaken(const server_t &server, const char *name) noexcept {
    const auto visit = [](void *item, void *wanted) {
        const auto *const entry = static_cast<const node_t *>(item);
        return node_name_equal(wanted, item) == 0 && !entry->node->departed.load() ? 1 : 0;
    };
    return bus_mk_q_visit(server.nodes_queue, visit, const_cast<char *>(name)) != 0;
}

// Takes a node that makes no call any more out of everybody's reach. What calls it has still waits:
// for good where it never ran, or where the bus looked away while the last of them came.
void abandon(client_t &client) noexcept {
    // A join that is handled meanwhile registers the node before it counts as done.
    if (client.joins_under_way.load(std::memory_order_acquire) > 0 ||
        client.registered.load(std::memory_order_acquire)) {
        depart(client);
    }
    while (const MessagePtr request = takeRequest(client)) {
        countAlone(client.counters.taken);
        answerRequest(client, *request, nullptr);
    }
}

// The two requests that change a node's subscriptions, and what they are called in the log.
struct Change {
    const char *url;
    const char *verb;
};
constexpr Change kSubscribe{kSubscribeUrl, "subscribe"};
constexpr Change kUnsubscribe{kUnsubscribeUrl, "unsubscribe"};

int changeTopics(client_t &client, const char *jsondata, const Change &change,
                 const Deadline &deadline) noexcept {
    BUS_LOG(2, "  %s %s %s begin, %s\n", TAG, client.name.get(), change.verb, jsondata);
    const std::string_view topics{jsondata};
    if (!fitsPayload(topics.size()) || !isJsonArray(jsondata)) {
        logFormatError();
        return -1;
    }
    bus_mk_text response;
    call(client, change.url, topics, deadline, response);
    BUS_LOG(1, "  %s %s %s end, payload: %s\n", TAG, client.name.get(), change.verb,
            orNull(response.get()));
    return 0;
}

int changeTopics(client_t *client, const char *jsondata, const Change &change) noexcept {
    if (!client || !client->server || !jsondata) {
        return -1;
    }
    return changeTopics(*client, jsondata, change, deadlineOf(*client->server));
}

} // namespace
} // namespace bus

client_t *busClientConnect(Zelvo_t *busManager, const char *name, onmessage_callback onmessage,
                           oncall_callback oncall, void *userdata) noexcept {
    if (!busManager || !name || !busManager->server) {
        return nullptr;
    }
    bus::server_t *const server = busManager->server;
    BUS_LOG(3, "  %s %s connect begin, busManager: %p, server: %p, name: %p\n", bus::TAG, name,
            static_cast<const void *>(busManager), static_cast<const void *>(server),
            static_cast<const void *>(name));
    if (bus::isTaken(*server, name)) {
        BUS_LOG(4, "  %s %s already exist\n", bus::TAG, name);
        return nullptr;
    }
    if (!bus::isCallable(name)) {
        BUS_LOG(4, "  %s %s cannot be called by this name\n", bus::TAG, name);
    }
    bus::ClientPtr client = bus::newClient(server, name);
    if (!client) {
        BUS_LOG(5, "  %s connect failed\n", bus::TAG);
        return nullptr;
    }
    client->onmessage_func = onmessage;
    client->oncall_func = oncall;
    client->userdata = userdata;
    const bus::Deadline deadline = bus::deadlineOf(*server);
    if (!bus::join(*client, deadline)) {
        BUS_LOG(5, "  %s connect failed\n", bus::TAG);
        bus::abandon(*client);
        return nullptr;
    }
    bus::changeTopics(*client, bus::kEventSubscription, bus::kSubscribe, deadline);
    return client.release();
}

int busClientSubscribe(client_t *client, const char *jsondata) noexcept {
    return bus::changeTopics(client, jsondata, bus::kSubscribe);
}

int busClientUnsubscribe(client_t *client, const char *jsondata) noexcept {
    return bus::changeTopics(client, jsondata, bus::kUnsubscribe);
}

int busClientClose(client_t *client) noexcept {
    if (!client) {
        return 0;
    }
    if (client->registered.load(std::memory_order_acquire)) {
        bus::leaveBus(*client);
    }
    bus::abandon(*client);
    BUS_LOG(3, "  %s %s close\n", bus::TAG, client->name.get());
    bus::release(client);
    return 0;
}
