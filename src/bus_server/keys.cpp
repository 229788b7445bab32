// The key store's requests: one JSON object, kept parsed for reading and as text for the file.
#include "bus_server/internal.h"

#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace bus {
namespace {

// Puts value under key at the end of object, in place of the member that has the key in any case,
// and prints the object. Null: no memory, and every key has the value that it had.
JsonText put(cJSON *object, const char *key, JsonPtr value) noexcept {
    cJSON *const old = cJSON_GetObjectItem(object, key);
    JsonPtr replaced{old ? cJSON_DetachItemViaPointer(object, old) : nullptr};
    // A file made by hand may have the key again: no get sees that, until the first is gone.
    while (cJSON *const hidden = cJSON_GetObjectItem(object, key)) {
        cJSON_Delete(cJSON_DetachItemViaPointer(object, hidden));
    }
    JsonText text;
    if (value && cJSON_AddItemToObject(object, key, value.get())) {
        cJSON *const added = value.release();
        text.reset(cJSON_Print(object));
        value.reset(text ? nullptr : cJSON_DetachItemViaPointer(object, added));
    }
    if (!text && replaced) { // at the end: some versions insert nothing before another member
        cJSON_AddItemToArray(object, replaced.release());
    }
    return text;
}

std::string setKey(server_t &server, const char *key, const cJSON *data, bool persist) {
    JsonPtr fresh{server.store ? nullptr : cJSON_CreateObject()};
    cJSON *const object = server.store ? server.store.get() : fresh.get();
    JsonText text = object ? put(object, key, JsonPtr{cJSON_Duplicate(data, 1)}) : nullptr;
    if (!text) {
        throw std::bad_alloc{};
    }
    server.keys = std::move(text);
    if (fresh) {
        server.store = std::move(fresh);
    }
    if (persist) {
        _busSetKeys(server);
    }
    return std::string{kEmptyAnswer};
}

std::string getKey(const server_t &server, const char *key) {
    const cJSON *const value = cJSON_GetObjectItem(server.store.get(), key);
    if (!value) {
        return std::string{kEmptyAnswer};
    }
    const JsonText printed{cJSON_Print(value)};
    if (!printed) {
        throw std::bad_alloc{};
    }
    return printed.get();
}

std::string_view textOf(const cJSON *object, const char *member) noexcept {
    const char *const text = cJSON_GetStringValue(cJSON_GetObjectItem(object, member));
    return text ? text : "";
}

// Whether the file has to be read: until there is a store; and as long as there is a file that
// could not be used, before it is written, and once it has changed: it may be large.
bool needsFile(const server_t &server, bool persist) {
    using State = KeyFile::State;
    const State state = server.key_file.state;
    return (!server.keys && state != State::kCut && state != State::kForeign) ||
           (state != State::kTaken && state != State::kAbsent &&
            (persist || _busKeysChanged(server)));
}

std::string serve(server_t &server, const char *payload, const char *key) {
    const JsonPtr json = parseJson(payload);
    const std::string_view operation = textOf(json.get(), "operation");
    const cJSON *const data = cJSON_GetObjectItem(json.get(), "data");
    const bool set = data && operation.starts_with("set");
    const bool persist = set && textOf(json.get(), "persist").starts_with("true");
    const bool reads = needsFile(server, persist);
    if (reads || persist) {
        wakeAll(server); // a disk may be slow
    }
    if (reads) {
        _busGetKeys(server);
    }
    if (set) {
        return setKey(server, key, data, persist);
    }
    if (operation.starts_with("get") && server.store) {
        return getKey(server, key);
    }
    return std::string{kEmptyAnswer};
}

} // namespace

void _busServerKeys(server_t &server, const Request &request) noexcept {
    const message_t &message = request.message;
    try {
        const bool hasData = message.payload && message.payload->data;
        const std::string key{request.url.path.substr(1)};
        const std::string text =
            hasData ? serve(server, message.payload->data, key.c_str()) : std::string{kEmptyAnswer};
        if (answer(server, message, text) == Answered::kRefused) {
            BUS_LOG(4, "  %s server pusblish  %s failed, queue is full\n", TAG, server.name.get());
        }
    } catch (const std::bad_alloc &) {
        count(server.counters.no_memory);
        BUS_LOG(5, "  %s malloc failed\n", TAG);
        endCall(server, message);
    }
}

} // namespace bus
