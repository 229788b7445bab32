#include "bus_server/internal.h"

#include <cstring>
#include <memory>
#include <new>

namespace bus {
namespace {

struct ServerDelete {
    void operator()(server_t *server) const noexcept { delete server; }
};

void clear(bus_mk_q_t *queue, bus_mk_q_delete_callback deleteItem) noexcept {
    if (queue) {
        bus_mk_q_clear(queue, deleteItem, 0);
    }
}

// Lengths first: most names differ in length.
int textEqual(const char *a, const char *b) noexcept {
    const std::size_t length = std::strlen(a);
    return length == std::strlen(b) && std::strncmp(a, b, length) == 0 ? 0 : -1;
}

MessagePtr exitMessage(server_t &server) noexcept {
    return MessagePtr{busClientExMessageNew(server.name.get(), nullptr, nullptr, action::kExit,
                                            &server, kNoRequest, nullptr, 0)};
}

// False: memory stayed short, and the loop goes on.
bool postExit(server_t &server) noexcept {
    bus_mk_sent sent{};
    const auto post = [&] {
        MessagePtr exit = exitMessage(server);
        sent = postToServer(server, exit);
        return sent == bus_mk_sent::kDone;
    };
    if (attemptAgain(post)) {
        count(server.counters.posted);
        return true;
    }
    countLost(sent, server.counters.queue_full, server.counters.no_memory);
    return false;
}

void stopLoop(server_t &server) noexcept {
    {
        const bus_mk_guard lock{server.loop_mutex};
        if (!server.looping) {
            return;
        }
    }
    // Refused only for want of memory: the loop gives some back.
    while (!postExit(server)) {}
    const bus_mk_guard lock{server.loop_mutex};
    while (server.looping) {
        bus_mk_thread_cond_wait(&server.loop_ended, &server.loop_mutex);
    }
}

} // namespace

node_t::~node_t() {
    clear(topics_queue, _budServerExCharDelete);
    release(node);
}

server_t::server_t() noexcept
    : nodes_queue(bus_mk_q_new(kServerQueue, node_name_equal)),
      message_queue(bus_mk_q_new(kServerQueue, nullptr)),
      sticky_queue(bus_mk_q_new(kServerQueue, sticky_topic_equal)),
      name(bus_mk_strdup(kServerName)) {
    bus_mk_thread_mutex_init(&loop_mutex);
    bus_mk_thread_cond_init(&loop_ended);
}

server_t::~server_t() {
    clear(nodes_queue, busServerExNodeDelete);
    clear(message_queue, busClientExMessageDelete);
    clear(sticky_queue, busClientExMessageDelete);
    for (client_t *client = departed.exchange(nullptr); client;) {
        ClientPtr gone{client};
        client = client->next_departed;
    }
    bus_mk_thread_cond_destroy(&loop_ended);
    bus_mk_thread_mutex_destroy(&loop_mutex);
}

server_t *busServerNew(const char *homepath) noexcept {
    BUS_LOG(3, "  %s new\n", TAG);
    std::unique_ptr<server_t, ServerDelete> server{new (std::nothrow) server_t};
    if (!server || !server->nodes_queue || !server->message_queue || !server->sticky_queue ||
        !server->name) {
        return nullptr;
    }
    if (homepath) {
        server->path.reset(bus_mk_strdup(homepath));
        if (!server->path) {
            return nullptr;
        }
    }
    return server.release();
}

int busServerExit(server_t *server) noexcept {
    if (!server) {
        return 0;
    }
    BUS_LOG(3, "  %s %s exit begin\n", TAG, server->name.get());
    if (!postExit(*server)) {
        BUS_LOG(5, "  %s %s exit failed\n", TAG, server->name.get());
    }
    return 0;
}

int busServerDelete(server_t *server) noexcept {
    if (server) {
        stopLoop(*server);
        BUS_LOG(3, "  %s %s delete\n", TAG, server->name.get());
        delete server;
    }
    return 0;
}

int busServerExNodeDelete(void *client) noexcept {
    delete static_cast<node_t *>(client);
    return 0;
}

int _budServerExCharDelete(void *topic) noexcept {
    std::free(topic);
    return 0;
}

int node_name_equal(void *a, void *b) noexcept {
    const auto *const entry = static_cast<const node_t *>(b);
    return a && entry && entry->name ? textEqual(static_cast<const char *>(a), entry->name.get())
                                     : -1;
}

int node_topic_equal(void *a, void *b) noexcept {
    return textEqual(static_cast<const char *>(a), static_cast<const char *>(b));
}

int sticky_topic_equal(void *a, void *b) noexcept {
    const auto *const stored = static_cast<const message_t *>(b);
    return a && stored && stored->topic ? textEqual(static_cast<const char *>(a), stored->topic)
                                        : -1;
}

bus_mk_sent postToServer(server_t &server, MessagePtr &message) noexcept {
    return handOver(server.message_queue, message, bus_mk_q_tail, kServerQueue);
}

} // namespace bus
