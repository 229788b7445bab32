// keys.json. KeyFile::State says what is known of it; a file that is there and can't be used is not
// overwritten.
#include "bus_server/internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <system_error>
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

void logReason(const std::string &name, const char *consequence, const std::error_code &error) {
    BUS_LOG(4, "  %s %s %s: %s\n", TAG, name.c_str(), consequence, error.message().c_str());
}

// ---- reading ----

platform::FileLook _busGetAccess(const std::string &name, std::error_code &error) noexcept {
    return platform::lookAtFile(name.c_str(), error);
}

// Null: error says why.
FilePtr openStore(const std::string &name, platform::FileKind kind, std::error_code &error) {
    FilePtr file;
    if (kind == platform::FileKind::kRegular) {
        file.reset(platform::openFile(name.c_str(), "rb"));
        error = {file ? 0 : errno, std::generic_category()};
    } else if (kind == platform::FileKind::kOther) {
        error = std::make_error_code(std::errc::not_supported);
    }
    if (error == std::errc::not_enough_memory) {
        throw std::bad_alloc{};
    }
    return file;
}

// What could be read of a file; no text where that is nothing.
struct Reading {
    JsonText text;
    std::size_t size;
    bool whole;
};

Reading readAll(std::FILE *file) {
    const std::int64_t end = platform::seekEnd(file);
    if (end <= 0) {
        return {nullptr, 0, end == 0};
    }
    const auto size = static_cast<std::size_t>(end);
    JsonText text{static_cast<char *>(cJSON_malloc(size + 1))};
    if (!text) {
        throw std::bad_alloc{};
    }
    std::rewind(file);
    // A byte more than there was: a file that grows meanwhile is not whole.
    const std::size_t got = std::fread(text.get(), 1, size + 1, file);
    text.get()[std::min(got, size)] = '\0';
    return {std::move(text), std::min(got, size), got == size};
}

// The JSON object with which the text begins, or null.
JsonPtr parseStore(const Reading &reading) {
    JsonPtr json = reading.text ? parseJson(reading.text.get()) : nullptr;
    return cJSON_IsObject(json.get()) ? std::move(json) : nullptr;
}

// Puts a copy of every member of from at the end of object, in place of those of its key.
void putAll(cJSON *object, const cJSON *from) {
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, from) {
        while (cJSON *const old = cJSON_GetObjectItem(object, item->string)) {
            cJSON_Delete(cJSON_DetachItemViaPointer(object, old));
        }
        JsonPtr copy{cJSON_Duplicate(item, 1)};
        if (!copy || !cJSON_AddItemToObject(object, item->string, copy.get())) {
            throw std::bad_alloc{};
        }
        static_cast<void>(copy.release());
    }
}

// Makes what the file holds the store, under what has been set while it could not be read.
void take(server_t &server, JsonPtr json, JsonText text) {
    if (server.store) {
        putAll(json.get(), server.store.get());
        text.reset(cJSON_Print(json.get()));
        if (!text) {
            throw std::bad_alloc{};
        }
    }
    server.store = std::move(json);
    server.keys = std::move(text);
}

// ---- writing ----

// Makes the first free one of keys.json.bad, keys.json.bad.1 and so on; empty: error says why.
std::string reserveAside(const std::string &file, std::error_code &error) {
    constexpr int kMost = 1000;
    std::string aside = file + ".bad";
    error = platform::makeFile(aside.c_str());
    for (int i = 1; i < kMost && error == std::errc::file_exists; ++i) {
        aside = file + ".bad." + std::to_string(i);
        error = platform::makeFile(aside.c_str());
    }
    return error ? std::string{} : aside;
}

// A failure that goes on is told of once, but for a file that can't be opened.
void logWritten(server_t &server, const std::string &name, platform::FileResult result,
                const std::error_code &error) {
    using platform::FileResult;
    const bool news = std::exchange(server.key_file.written, result) != result;
    if (result == FileResult::kNotOpened) {
        BUS_LOG(5, "  %s fopen failed, file: %s\n", TAG, name.c_str());
    } else if (news && result == FileResult::kNotWritten) {
        BUS_LOG(5, "  %s write localKeys error, file: %s\n", TAG, name.c_str());
    } else if (news && result == FileResult::kDoneInPlace) {
        BUS_LOG(4, "  %s %s can't be replaced as a whole here, it is written in place\n", TAG,
                name.c_str());
    }
    if (news && error) {
        logReason(name, "is not written", error);
    }
}

// As platform::replaceFile, with a file that is no store set aside, which error concerns too.
platform::FileResult replaceStore(const server_t &server, const std::string &file,
                                  std::error_code &error) {
    const char *const text = server.keys.get();
    platform::Replacement with{{text, std::strlen(text)}, server.key_file.flush, nullptr};
    if (server.key_file.state != KeyFile::State::kForeign) {
        return platform::replaceFile(file.c_str(), with, error);
    }
    const std::string aside = reserveAside(file, error);
    if (aside.empty()) {
        if (server.key_file.written != platform::FileResult::kNotWritten) {
            BUS_LOG(5, "  %s %s can't be set aside\n", TAG, file.c_str());
        }
        return platform::FileResult::kNotWritten;
    }
    with.aside = aside.c_str();
    const platform::FileResult result = platform::replaceFile(file.c_str(), with, error);
    std::error_code unseen;
    const platform::FileLook kept = platform::lookAtFile(aside.c_str(), unseen);
    if (kept.size > 0) {
        BUS_LOG(5, "  %s %s is no key store, kept as %s\n", TAG, file.c_str(), aside.c_str());
    } else if (kept.kind == platform::FileKind::kRegular) { // nothing has taken its place
        platform::removeFile(aside.c_str());
    }
    return result;
}

} // namespace

void _busGetKeys(server_t &server) {
    using State = KeyFile::State;
    State &state = server.key_file.state;
    const State before = std::exchange(state, State::kUnread);
    const std::string name = fileName(server);
    std::error_code error;
    const platform::FileLook look = _busGetAccess(name, error);
    if (look.kind == platform::FileKind::kNone) {
        if (!server.keys) {
            BUS_LOG(3, "  %s not exist, file: %s\n", TAG, name.c_str());
        }
        state = State::kAbsent;
        return;
    }
    const FilePtr file = openStore(name, look.kind, error);
    if (!file) {
        BUS_LOG(5, "  %s fopen failed, file: %s\n", TAG, name.c_str());
        server.key_file.look = look;
        state = State::kUnopened;
        if (state != before) {
            logReason(name, "is not read, and left as it is", error);
        }
        return;
    }
    errno = 0;
    Reading reading = readAll(file.get());
    error = {errno, std::generic_category()};
    JsonPtr json = parseStore(reading);
    const bool isStore = json || reading.size == 0;
    if (json) {
        take(server, std::move(json), std::move(reading.text));
    }
    server.key_file.look = look;
    state = !reading.whole ? State::kCut : isStore ? State::kTaken : State::kForeign;
    if (state == State::kCut && state != before) {
        BUS_LOG(5, "  %s read localKeys error\n", TAG);
        logReason(name, "is not read to its end, and left as it is", error);
    } else if (state == State::kForeign && state != before) {
        BUS_LOG(5, "  %s %s is no key store, and counts as empty\n", TAG, name.c_str());
    }
}

bool _busKeysChanged(const server_t &server) {
    std::error_code unseen;
    return _busGetAccess(fileName(server), unseen) != server.key_file.look;
}

void _busSetKeys(server_t &server) {
    if (server.key_file.state <= KeyFile::State::kCut) {
        return; // a look at it has said why
    }
    const std::string name = fileName(server);
    const std::string file = platform::followLinks(name);
    if (!std::exchange(server.key_file.leftovers_removed, true)) {
        platform::removeLeftovers(file.c_str());
    }
    std::error_code error;
    const platform::FileResult result = replaceStore(server, file, error);
    if (result == platform::FileResult::kDone || result == platform::FileResult::kDoneInPlace) {
        server.key_file.state = KeyFile::State::kTaken;
    }
    logWritten(server, name, result, error);
}

} // namespace bus
