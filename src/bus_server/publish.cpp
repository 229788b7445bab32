#include "bus_server/internal.h"

#include <new>
#include <utility>

namespace bus {
namespace {

// Forgets the topic's sticky message; null when there is none.
MessagePtr takeSticky(server_t &server, const char *topic) noexcept {
    Topic *const entry = server.directory.topic(topic);
    if (!entry || !entry->sticky) {
        return nullptr;
    }
    MessagePtr stored{entry->sticky};
    bus_mk_q_take_out(server.sticky_queue, entry->place);
    entry->sticky = nullptr;
    server.directory.prune(topic);
    return stored;
}

void keepSticky(server_t &server, MessagePtr message) noexcept {
    bus_mk_list_node *const place = bus_mk_q_append(server.sticky_queue, message.get());
    Topic *const entry = place ? server.directory.makeTopic(message->topic) : nullptr;
    if (entry) {
        entry->place = place;
        entry->sticky = message.release();
        return;
    }
    if (place) {
        bus_mk_q_take_out(server.sticky_queue, place);
    }
    if (bus_mk_q_full(server.sticky_queue)) {
        countAlone(server.counters.sticky_full);
    } else {
        count(server.counters.no_memory);
        BUS_LOG(5, "  %s %s sticky topic %s not kept\n", TAG, message->name, message->topic);
    }
}

void sendCopy(server_t &server, client_t &client, MessagePtr copy) noexcept {
    if (!copy) {
        count(server.counters.no_memory);
        return;
    }
    BUS_SERVER_TRACE("==>", &server, copy.get(), client.name.get());
    sendToNode(server, client, copy, [&] {
        BUS_LOG(4, "  %s server ==> %s pusblish topic %s failed, queue is full\n", TAG,
                client.name.get(), copy->topic);
    });
}

// Hands every subscriber of the message's topic a copy, and the last one the message itself where
// that is given away.
void fanOut(server_t &server, const message_t &message, MessagePtr *givenAway) noexcept {
    const Topic *const topic = message.topic ? server.directory.topic(message.topic) : nullptr;
    if (!topic) {
        return;
    }
    for (const node_t *const &node : topic->subscribers) {
        const bool last = &node == &topic->subscribers.back();
        sendCopy(server, *node->node,
                 last && givenAway ? std::move(*givenAway)
                                   : MessagePtr{busClientExMessageCopy(&message)});
    }
}

} // namespace

int _busServerPublish(server_t *server, const message_t *message) noexcept {
    fanOut(*server, *message, nullptr);
    return 0;
}

bool publishNotice(server_t &server, const char *topic, std::string_view text) noexcept {
    const MessagePtr notice{busClientExMessageNew(kServerName, topic, nullptr, action::kPublish,
                                                  &server, kNoRequest, text.data(),
                                                  static_cast<int>(text.size()))};
    if (!notice) {
        count(server.counters.no_memory);
        return false;
    }
    _busServerPublish(&server, notice.get());
    return true;
}

void replaySticky(server_t &server, const node_t &node, const char *topic) noexcept {
    const Topic *const entry = server.directory.topic(topic);
    if (!entry || !entry->sticky) {
        return;
    }
    MessagePtr copy{busClientExMessageCopy(entry->sticky)};
    if (!copy) {
        count(server.counters.no_memory);
        return;
    }
    client_t &client = *node.node;
    BUS_SERVER_TRACE("==>", &server, copy.get(), client.name.get());
    sendToNode(server, client, copy, [&client] {
        BUS_LOG(4, "  %s server pusblish  %s failed, queue is full\n", TAG, client.name.get());
    });
}

void _busServerPublishAction(server_t &server, MessagePtr &message) noexcept {
    fanOut(server, *message, &message);
}

// The copy that is about to be kept already carries the action that subscribers see.
void _busServerPublishSticky(server_t &server, MessagePtr &taken) noexcept {
    const message_t &message = *taken;
    if (!message.topic) {
        return;
    }
    MessagePtr copy{copyWithAction(message, Action::kPublish)};
    if (!copy) {
        count(server.counters.no_memory);
        return;
    }
    _busServerPublish(&server, copy.get());
    if (takeSticky(server, message.topic)) {
        BUS_LOG(4, "  %s %s remove old then add new payload, topic %s\n", TAG, message.name,
                message.topic);
    }
    keepSticky(server, std::move(copy));
}

void _busServerRemoveSticky(server_t &server, MessagePtr &taken) noexcept try {
    const message_t &message = *taken;
    forEachTopic(message, [&](const char *topic) {
        if (!takeSticky(server, topic)) {
            BUS_LOG(4, "  %s %s already removeSticky topic %s\n", TAG, message.name, topic);
        }
    });
} catch (const std::bad_alloc &) {
    count(server.counters.no_memory);
    BUS_LOG(5, "  %s %s removeSticky failed\n", TAG, taken->name);
}

} // namespace bus
