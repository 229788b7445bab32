// The key store: one JSON object, kept parsed for reading and as text for the file.
#include "bus_server/internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace bus {
namespace {

struct FileClose {
    void operator()(std::FILE *file) const noexcept { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileClose>;

std::string fileName(const server_t &server) {
    return std::string{server.path ? server.path.get() : "."} + "/keys.json";
}

// ---- the file ----

// The file's text, as far as it can be read; null for an empty file.
bus_mk_text readAll(std::FILE *file, std::size_t &size) {
    std::fseek(file, 0, SEEK_END);
    const long end = std::ftell(file);
    size = end > 0 ? static_cast<std::size_t>(end) : 0;
    if (size == 0) {
        return nullptr;
    }
    bus_mk_text text{static_cast<char *>(std::malloc(size + 1))};
    if (!text) {
        throw std::bad_alloc{};
    }
    std::fseek(file, 0, SEEK_SET);
    const std::size_t got = std::fread(text.get(), 1, size, file);
    if (got != size) {
        BUS_LOG(5, "  %s read localKeys error\n", kServerTag);
        size = got;
    }
    text.get()[size] = '\0';
    return text;
}

// The whole text as a JSON object, or null.
JsonPtr parseStore(const char *text, std::size_t size) {
    JsonPtr json = std::strlen(text) == size ? parseJson(text, true) : nullptr;
    return cJSON_IsObject(json.get()) ? std::move(json) : nullptr;
}

// Renames the file to the first free name of keys.json.bad, keys.json.bad.1 and so on.
bool setAside(const std::string &name) {
    std::string aside = name + ".bad";
    for (int i = 1; !platform::renameFile(name.c_str(), aside.c_str()); ++i) {
        if (platform::fileKind(aside.c_str()) == platform::FileKind::kNone) {
            BUS_LOG(5, "  %s %s is no key store and cannot be set aside\n", kServerTag,
                    name.c_str());
            return false;
        }
        aside = name + ".bad." + std::to_string(i);
    }
    BUS_LOG(5, "  %s %s is no key store, kept as %s\n", kServerTag, name.c_str(), aside.c_str());
    return true;
}

FilePtr openStore(const std::string &name) {
    const bool readable = platform::fileKind(name.c_str()) == platform::FileKind::kRegular;
    errno = 0;
    FilePtr file{readable ? platform::openFile(name.c_str(), "rb") : nullptr};
    if (!file && errno == ENOMEM) {
        throw std::bad_alloc{};
    }
    if (!file) {
        BUS_LOG(5, "  %s fopen failed, file: %s\n", kServerTag, name.c_str());
    }
    return file;
}

// ---- set and get ----

// Puts value under key at the end of object, in place of the member that has the key in any case,
// and prints the object. Null: no memory, and every key has the value that it had.
bus_mk_text put(cJSON *object, const char *key, JsonPtr value) noexcept {
    cJSON *const old = cJSON_GetObjectItem(object, key);
    int position = 0;
    for (const cJSON *item = object->child; old && item != old; item = item->next) {
        ++position;
    }
    JsonPtr replaced{old ? cJSON_DetachItemViaPointer(object, old) : nullptr};
    // A file made by hand may have the key again: no get sees that, until the first is gone.
    while (cJSON *const hidden = cJSON_GetObjectItem(object, key)) {
        cJSON_Delete(cJSON_DetachItemViaPointer(object, hidden));
    }
    bus_mk_text text;
    if (value && cJSON_AddItemToObject(object, key, value.get())) {
        cJSON *const added = value.release();
        text.reset(cJSON_Print(object));
        value.reset(text ? nullptr : cJSON_DetachItemViaPointer(object, added));
    }
    if (!text && replaced) {
        cJSON_InsertItemInArray(object, position, replaced.release());
    }
    return text;
}

std::string setKey(server_t &server, const char *key, const cJSON *data, bool persist) {
    JsonPtr fresh{server.store ? nullptr : cJSON_CreateObject()};
    cJSON *const object = server.store ? server.store.get() : fresh.get();
    bus_mk_text text = object ? put(object, key, JsonPtr{cJSON_Duplicate(data, 1)}) : bus_mk_text{};
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
    const bus_mk_text printed{cJSON_Print(value)};
    if (!printed) {
        throw std::bad_alloc{};
    }
    return printed.get();
}

std::string_view textOf(const cJSON *object, const char *member) noexcept {
    const char *const text = cJSON_GetStringValue(cJSON_GetObjectItem(object, member));
    return text ? text : "";
}

std::string serve(server_t &server, const char *payload, const char *key) {
    const JsonPtr json = parseJson(payload);
    const std::string_view operation = textOf(json.get(), "operation");
    const cJSON *const data = cJSON_GetObjectItem(json.get(), "data");
    if (!server.keys) {
        _busGetKeys(server);
    }
    if (data && operation.starts_with("set")) {
        return setKey(server, key, data, textOf(json.get(), "persist").starts_with("true"));
    }
    if (operation.starts_with("get") && server.store) {
        return getKey(server, key);
    }
    return std::string{kEmptyAnswer};
}

} // namespace

void _busGetKeys(server_t &server) {
    const std::string name = fileName(server);
    server.foreign_file = false;
    if (platform::fileKind(name.c_str()) == platform::FileKind::kNone) {
        BUS_LOG(3, "  %s not exist, file: %s\n", kServerTag, name.c_str());
        return;
    }
    FilePtr file = openStore(name);
    if (!file) {
        server.foreign_file = true;
        return;
    }
    std::size_t size = 0;
    bus_mk_text text = readAll(file.get(), size);
    file.reset(); // some systems do not rename an open file
    if (!text) {
        return;
    }
    server.store = parseStore(text.get(), size);
    if (server.store) {
        server.keys = std::move(text);
    } else {
        server.foreign_file = !setAside(name);
    }
}

void _busSetKeys(server_t &server) {
    const std::string name = fileName(server);
    if (server.foreign_file && !setAside(name)) {
        return;
    }
    server.foreign_file = false;
    switch (
        platform::replaceFile(name.c_str(), server.keys.get(), std::strlen(server.keys.get()))) {
    case platform::FileResult::kDone:
        break;
    case platform::FileResult::kNotOpened:
        BUS_LOG(5, "  %s fopen failed, file: %s\n", kServerTag, name.c_str());
        break;
    case platform::FileResult::kNotWritten:
        BUS_LOG(5, "  %s write localKeys error, file: %s\n", kServerTag, name.c_str());
        break;
    }
}

void _busServerKeys(server_t &server, const Request &request) noexcept {
    const message_t &message = request.message;
    try {
        const bool hasData = message.payload && message.payload->data;
        const std::string key{request.url.path.substr(1)};
        const std::string text =
            hasData ? serve(server, message.payload->data, key.c_str()) : std::string{kEmptyAnswer};
        if (answer(server, message, text) == Answered::kRefused) {
            BUS_LOG(4, "  %s server pusblish  %s failed, queue is full\n", kServerTag,
                    server.name.get());
        }
    } catch (const std::bad_alloc &) {
        BUS_LOG(5, "  %s malloc failed\n", kServerTag);
        endCall(server, message);
    }
}

} // namespace bus
