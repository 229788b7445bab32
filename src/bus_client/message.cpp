#include "bus_client/internal.h"
#include "bus_mk_pool.h"

#include <cstring>
#include <new>

namespace bus {
namespace {

// A text that may be absent and ends with a NUL, measured once.
class Text {
public:
    // NOLINTBEGIN(google-explicit-constructor): stands for the text
    Text(const char *text) noexcept : text_{text}, size_{text ? std::strlen(text) + 1 : 0} {}
    Text(std::string_view text) noexcept : text_{text.data()}, size_{text.size() + 1} {}
    // NOLINTEND(google-explicit-constructor)
    const char *get() const noexcept { return text_; }
    std::size_t size() const noexcept { return size_; } // with the NUL
    std::string_view view() const noexcept {
        return text_ ? std::string_view{text_, size_ - 1} : std::string_view{};
    }

private:
    const char *text_;
    std::size_t size_;
};

// Everything a message is made from.
struct Fields {
    Text name;
    Text topic;
    Text url;
    Text action;
    Action kind;
    void *node;
    Text request_name;
    bool hasPayload;
    const char *data; // of the payload; null: a payload without data
    int len;
    std::uint64_t call;
};

Fields fieldsOf(const message_t &message) noexcept {
    const payload_t *const payload = message.payload;
    return {message.name,
            message.topic,
            message.url,
            message.action,
            message.kind,
            message.node,
            message.request_name,
            payload != nullptr,
            payload ? payload->data : nullptr,
            payload ? payload->len : 0,
            message.call};
}

// Hands out the block piece by piece, copying what each piece is to hold.
class Cursor {
public:
    explicit Cursor(void *block) noexcept : next_{static_cast<char *>(block)} {}

    template <typename Record>
    Record *record() noexcept {
        auto *const made = new (next_) Record{};
        next_ += sizeof(Record);
        return made;
    }
    char *bytes(const char *source, std::size_t size) noexcept {
        char *const copy = next_;
        std::memcpy(copy, source, size);
        next_ += size;
        return copy;
    }
    char *text(const Text &source) noexcept {
        return source.get() ? bytes(source.get(), source.size()) : nullptr;
    }

private:
    char *next_;
};

static_assert(alignof(message_t) >= alignof(payload_t) &&
              sizeof(message_t) % alignof(payload_t) == 0);

// Most messages are small, and made in one thread and freed in another.
void *newBlock(std::size_t size, const char *name) noexcept {
    void *const block = size <= bus_mk_pool_block ? bus_mk_pool_get() : std::malloc(size);
    if (!block && name) {
        BUS_LOG(5, "  %s name malloc error %s\n", TAG, name);
    }
    return block;
}

void freeBlock(message_t *message) noexcept {
    if (message->size <= bus_mk_pool_block) {
        bus_mk_pool_put(message);
    } else {
        std::free(message);
    }
}

// What pointer leads to in the block at from, found in its copy at to.
template <typename Pointer>
Pointer *moved(Pointer *pointer, const void *from, void *to) noexcept {
    if (!pointer) {
        return nullptr;
    }
    const auto offset = reinterpret_cast<const char *>(pointer) - static_cast<const char *>(from);
    return reinterpret_cast<Pointer *>(static_cast<char *>(to) + offset);
}

// Copies the block as a whole: what is inside keeps its place.
message_t *copyWhole(const message_t &message) noexcept {
    void *const block = newBlock(message.size, message.name);
    if (!block) {
        return nullptr;
    }
    std::memcpy(block, &message, message.size);
    auto *const copy = static_cast<message_t *>(block);
    for (char *message_t::*const text : {&message_t::name, &message_t::topic, &message_t::url,
                                         &message_t::action, &message_t::request_name}) {
        copy->*text = moved(copy->*text, &message, block);
    }
    copy->payload = moved(copy->payload, &message, block);
    if (copy->payload) {
        copy->payload->data = moved(copy->payload->data, &message, block);
        copy->payload->len = copy->payload->data ? copy->payload->len : 0;
    }
    copy->holds_node = false;
    return copy;
}

message_t *make(const Fields &from) noexcept {
    const std::size_t dataSize = from.data ? static_cast<std::size_t>(from.len) + 1 : 0;
    const std::size_t size = sizeof(message_t) + (from.hasPayload ? sizeof(payload_t) : 0) +
                             from.name.size() + from.topic.size() + from.url.size() +
                             from.action.size() + from.request_name.size() + dataSize;
    void *const block = newBlock(size, from.name.get());
    if (!block) {
        return nullptr;
    }
    Cursor cursor{block};
    auto *const message = cursor.record<message_t>();
    message->payload = from.hasPayload ? cursor.record<payload_t>() : nullptr;
    // What bus and receiver read comes first, in as few cache lines as it can.
    message->topic = cursor.text(from.topic);
    message->url = cursor.text(from.url);
    if (from.data) {
        message->payload->len = from.len;
        message->payload->data = cursor.bytes(from.data, dataSize - 1);
        cursor.bytes("", 1); // its NUL
    }
    message->name = cursor.text(from.name);
    message->action = cursor.text(from.action);
    message->kind = from.kind;
    message->node = from.node;
    message->request_name = cursor.text(from.request_name);
    message->call = from.call;
    message->size = size;
    return message;
}

} // namespace

message_t *busClientExMessageNew(const char *name, const char *topic, const char *url,
                                 const char *action, void *node, const char *request_name,
                                 const char *data, int data_len) noexcept {
    const Text word{action};
    return make({name, topic, url, word, actionOf(word.view()), node, request_name, data != nullptr,
                 data, data_len, 0});
}

message_t *busClientExMessageCopy(const void *message) noexcept {
    return message ? copyWhole(*static_cast<const message_t *>(message)) : nullptr;
}

message_t *copyWithAction(const message_t &message, Action action) noexcept {
    Fields fields = fieldsOf(message);
    fields.action = wordOf(action);
    fields.kind = action;
    return make(fields);
}

int busClientExMessageDelete(void *message) noexcept {
    auto *const record = static_cast<message_t *>(message);
    if (!record) {
        return 0;
    }
    if (record->holds_node) {
        auto *const client = static_cast<client_t *>(record->node);
        client->joins_under_way.fetch_sub(1, std::memory_order_acq_rel);
        release(client);
    }
    freeBlock(record);
    return 0;
}

void holdNode(message_t &message, client_t &client) noexcept {
    message.node = retain(client);
    message.holds_node = true;
    client.joins_under_way.fetch_add(1, std::memory_order_relaxed);
}

bus_mk_sent handOver(bus_mk_q_t *q, MessagePtr &message, int pos, int extra) noexcept {
    if (!message) {
        return bus_mk_sent::kNoMemory;
    }
    const bus_mk_sent sent = bus_mk_q_offer(q, message.get(), pos, extra);
    if (sent == bus_mk_sent::kDone) {
        static_cast<void>(message.release());
    }
    return sent;
}

const char *tracedPayload(const payload_t *payload) noexcept {
    if (!payload) {
        return "NULL";
    }
    const bool shown = payload->data && payload->len >= 1 && payload->len < 200;
    return shown ? payload->data : "BinaryData...";
}

int _message_equal(void *key, void *stored) noexcept {
    const auto *const message = static_cast<const message_t *>(stored);
    if (!message || !message->action) {
        return -1;
    }
    const std::string_view wanted{static_cast<const char *>(key)};
    return wanted.starts_with(message->action) ? 0 : -1;
}

int _busClientLogMessage(int level, const char *direction, const client_t *client,
                         const message_t *message, const char *target, int line) noexcept {
    if (message->action && std::string_view{message->action}.starts_with(action::kSetTimer)) {
        return 0;
    }
    BUS_LOG(level,
            "  %s #%4d# %s %s %s,  action: %s, topic: %s,  url: %s, payload: %s, "
            "payload len: %d\n",
            TAG, line, orNull(client->name.get()), direction, orNull(target),
            orNull(message->action), orNull(message->topic), orNull(message->url),
            tracedPayload(message->payload), message->payload ? message->payload->len : 0);
    return 0;
}

void logFormatError() noexcept {
    BUS_LOG(5, "  %s  params format error\n", TAG);
}

MessagePtr ownMessage(client_t &client, const char *topic, Action action, const char *data,
                      int len) noexcept {
    constexpr std::string_view kNone{kNoRequest}; // measured already
    return MessagePtr{make({client.name.get(), topic, nullptr, wordOf(action), action, &client,
                            kNone, data != nullptr, data, len, 0})};
}

} // namespace bus
