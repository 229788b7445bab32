#include "bus_protocol.h"

#include "bus_mk_str.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <new>

namespace bus {
namespace {

constinit thread_local bool heapWasShort = false;

void *allocateJson(std::size_t size) {
    void *const block = std::malloc(size);
    heapWasShort = heapWasShort || !block;
    return block;
}

// The text as a JSON string, quotation marks included.
std::string quoted(const char *text) {
    const JsonPtr json{cJSON_CreateString(text)};
    const JsonText printed{json ? cJSON_PrintUnformatted(json.get()) : nullptr};
    if (!printed) {
        throw std::bad_alloc{};
    }
    return printed.get();
}

} // namespace

Action actionOf(std::string_view text) noexcept {
    const auto *const found = std::find(std::begin(kActionWords), std::end(kActionWords), text);
    return found == std::end(kActionWords) ? Action::kOther
                                           : static_cast<Action>(found - std::begin(kActionWords));
}

std::optional<Url> splitUrl(std::string_view url) noexcept {
    const std::size_t slash = url.find('/', 2);
    if (slash - 1 > kMaxHost) { // npos too
        return std::nullopt;
    }
    return Url{url.substr(1, slash - 1), url.substr(slash)};
}

bool selects(std::string_view host, std::string_view reserved) noexcept {
    return !host.empty() && reserved.substr(0, host.size()) == host;
}

bool isCallable(std::string_view name) noexcept {
    return !name.empty() && name.size() <= kMaxHost &&
           name.find('/', 1) == std::string_view::npos && !selects(name, kBusHost) &&
           !selects(name, kKeysHost);
}

std::string joinNotice(const char *name) {
    return "{\"event\":\"join\", \"name\": " + quoted(name) + "}";
}

std::string disjoinNotice(const char *name) {
    return std::string{kDisjoinNotice} + ", \"name\":" + quoted(name) + "}";
}

void useHeapForJson() noexcept {
    cJSON_Hooks hooks{allocateJson, std::free};
    cJSON_InitHooks(&hooks);
}

JsonPtr parseJson(const char *text) {
    heapWasShort = false;
    JsonPtr json{cJSON_Parse(text)};
    if (!json && heapWasShort) {
        throw std::bad_alloc{};
    }
    return json;
}

bool isJsonArray(const char *text) noexcept {
    const JsonPtr json{cJSON_Parse(text)};
    return cJSON_IsArray(json.get()) != 0;
}

} // namespace bus
