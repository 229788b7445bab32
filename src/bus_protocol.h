// The one vocabulary of clients and server: actions, reserved names and topics, the grammar of
// addresses, and every JSON text that the library itself writes.
#ifndef ZELVO_BUS_PROTOCOL_H
#define ZELVO_BUS_PROTOCOL_H

#include <cJSON.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace bus {

// What a message asks for. Matched whole.
namespace action {
inline constexpr char kPublish[] = "publish";
inline constexpr char kPublishSticky[] = "publishSticky";
inline constexpr char kRemoveSticky[] = "removeSticky";
inline constexpr char kRequest[] = "request";
inline constexpr char kResponse[] = "response";
inline constexpr char kExit[] = "exit";
inline constexpr char kSetTimer[] = "settimer";
inline constexpr char kKillTimer[] = "killtimer";
inline constexpr char kDepart[] = "depart"; // wakes the server to look at its departed nodes
} // namespace action

// The same, recognised once. kOther: any other text, or none.
enum class Action : unsigned char {
    kOther,
    kPublish,
    kRequest,
    kResponse,
    kPublishSticky,
    kRemoveSticky,
    kSetTimer,
    kKillTimer,
    kExit,
    kDepart,
};
inline constexpr std::string_view kActionWords[] = {
    "", // of kOther, and so on
    action::kPublish,
    action::kRequest,
    action::kResponse,
    action::kPublishSticky,
    action::kRemoveSticky,
    action::kSetTimer,
    action::kKillTimer,
    action::kExit,
    action::kDepart,
};
Action actionOf(std::string_view text) noexcept;
constexpr std::string_view wordOf(Action action) noexcept {
    return kActionWords[static_cast<std::size_t>(action)];
}

inline constexpr char kServerName[] = "busServer";
inline constexpr char kEventTopic[] = "bus.event";
inline constexpr char kErrorTopic[] = "bus.error";
// The request_name of a message that belongs to no request: a text, not an absent pointer.
inline constexpr char kNoRequest[] = "NULL";

// Hosts that the server answers itself. A non-empty prefix of one reaches it as well.
inline constexpr std::string_view kBusHost = "bus";
inline constexpr std::string_view kKeysHost = "localKeys";

// Paths of the bus service.
inline constexpr std::string_view kJoinPath = "/join";
inline constexpr std::string_view kSubscribePath = "/subscribe";
inline constexpr std::string_view kUnsubscribePath = "/unsubscribe";
inline constexpr std::string_view kNodesPath = "/nodes";
inline constexpr std::string_view kDisjoinPath = "/disjoin";
inline constexpr std::string_view kStatsPath = "/stats"; // where the configuration asks for it

// Whole addresses of the library's own requests, and the subscription every node starts with.
inline constexpr char kJoinUrl[] = "/bus/join";
inline constexpr char kSubscribeUrl[] = "/bus/subscribe";
inline constexpr char kUnsubscribeUrl[] = "/bus/unsubscribe";
inline constexpr char kDisjoinUrl[] = "/bus/disjoin";
inline constexpr char kEventSubscription[] = "[\"bus.event\"]";

// Answers.
inline constexpr std::string_view kEmptyAnswer = "{\"data\":\"\"}";
inline constexpr std::string_view kNoNodesAnswer = "{\"data\":[]}";
inline constexpr std::string_view kUnknownAnswer = "{\"data\":\"not implement\"}";
inline constexpr char kNoHandlerAnswer[] = "{\"msg\":\"not implement\"}";

// The notice of a refused ring of calls.
inline constexpr std::string_view kDeadlockNotice =
    "{\"errId\":10001, \"errMsg\": \"bus server deadlock, due to appearing R call A & A call R\"}";

// What the answer to a leave request begins with when it takes the node off the bus.
inline constexpr std::string_view kDisjoinNotice = "{\"event\":\"disjoin\"";

// Bytes of a host name that a client record can hold.
inline constexpr std::size_t kMaxHost = 127;

// An address, split: "/nodeA/play/next" gives "nodeA" and "/play/next". Views into the url; the
// path reaches to its end.
struct Url {
    std::string_view host;
    std::string_view path;
};
// The first character is skipped whatever it is, and the host has at least one character. Nothing
// when no "/" follows the host or the host is longer than kMaxHost.
std::optional<Url> splitUrl(std::string_view url) noexcept;

// Whether host selects the reserved host: the name itself or a non-empty prefix of it.
bool selects(std::string_view host, std::string_view reserved) noexcept;

// Whether a node of this name can be the host of an address.
bool isCallable(std::string_view name) noexcept;

// The notice that node name has joined, and the answer to its leave request. A name stands in them
// as a JSON string. Throw std::bad_alloc.
std::string joinNotice(const char *name);
std::string disjoinNotice(const char *name);

struct JsonDelete {
    void operator()(cJSON *json) const noexcept { cJSON_Delete(json); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDelete>;

// A text that the JSON library has printed, from whatever heap it uses.
struct JsonTextFree {
    void operator()(char *text) const noexcept { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, JsonTextFree>;

// Makes the JSON library use the C runtime's heap, and parseJson able to see that it is short. For
// the whole process, so not while another bus may be using it.
void useHeapForJson() noexcept;
// The text's beginning as JSON, null when it is none. Throws std::bad_alloc when memory is short,
// which cJSON_Parse does not tell from a text that is no JSON.
JsonPtr parseJson(const char *text);

// Whether text parses as a JSON array.
bool isJsonArray(const char *text) noexcept;

} // namespace bus

#endif
