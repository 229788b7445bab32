// An input is a list of calls into the library, one a line: a letter, a tab, an address or a topic,
// a tab, a payload. kCalls has the letters. The bus, the node that makes the calls and the one that
// answers them live on from input to input.
#include "fuzz_support.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace {

constexpr int kInputsOfABus = 512; // its key store only grows
constexpr int kCallsOfAnInput = 64;

// Keeps the last publication, and answers a call with the payload.
class Echo {
public:
    Echo(const RunningBus &bus, const char *name) : node_{bus.get(), name, hear, reply, this} {}

    const Node &node() const { return node_; }
    // To be read after a call to the node, which comes behind the publication.
    const std::string &heard() const { return heard_; }

private:
    static int hear(void *self, client_t *, char *topic, char *data, int len) {
        if (std::strcmp(topic, "probe") == 0) {
            static_cast<Echo *>(self)->heard_.assign(data ? data : "",
                                                     static_cast<std::size_t>(len));
        }
        return 0;
    }
    static char *reply(void *, client_t *, char *, char *data, int) {
        return data ? strdup(data) : nullptr;
    }

    std::string heard_;
    Node node_; // last: its thread uses the others
};

struct World {
    static const TempDir &home() {
        static const TempDir directory;
        return directory;
    }

    RunningBus bus{R"({"level":0,"path":"/dev/null","size":0,"stats":true,"homePath":")" +
                   home().path() + "\"}"};
    Echo echo{bus, "echo"};
    Echo other{bus, "caller"};
    client_t *const caller = other.node().get();

    World() { busClientSubscribe(echo.node().get(), R"(["probe"])"); }

    // Everything still has to work, and nothing be lost, after what an input did.
    void check(const std::string &bytes) const {
        const int size = static_cast<int>(bytes.size());
        busClientCall(caller, "/bus/join", nullptr, 0); // the input may have left
        REQUIRE(busClientPublish(caller, "probe", bytes.data(), size) == 0);
        REQUIRE(answered(other.node(), "/echo/x", "ping") == "ping");
        REQUIRE(echo.heard() == bytes);
        const std::string nodes = answered(other.node(), "/bus/nodes");
        REQUIRE(nodes.find("\"echo\"") != nodes.npos && nodes.find("\"caller\"") != nodes.npos);
        REQUIRE(std::count(nodes.begin(), nodes.end(), ',') == 1);
        REQUIRE(isJsonObject(answered(other.node(), "/bus/stats")));
    }
};
std::optional<World> world;

struct Line {
    std::string letter, text, payload;

    explicit Line(std::string_view line)
        : letter{cut(line, '\t')},
          text{cut(line, '\t')},
          payload{line} {}
    int size() const { return static_cast<int>(payload.size()); }

    // Takes what stands before the mark off the rest.
    static std::string_view cut(std::string_view &rest, char mark) {
        const std::string_view first = rest.substr(0, rest.find(mark));
        rest.remove_prefix(std::min(first.size() + 1, rest.size()));
        return first;
    }
};

bool isJson(const char *text) {
    return Json{cJSON_ParseWithOpts(text, nullptr, 1)} != nullptr;
}

void call(const Line &line) {
    const char *const answer =
        busClientCall(world->caller, line.text.c_str(), line.payload.data(), line.size());
    if (!answer) { // only when the input has left the bus before
        REQUIRE(!busClientCall(world->caller, "/bus/nodes", nullptr, 0));
    } else if (line.text.starts_with("/echo/")) {
        REQUIRE(answer == std::string{line.payload.c_str()});
    } else if (line.text.size() < 2 || line.text.compare(1, 5, "echo/") != 0) {
        REQUIRE(*answer == '\0' || isJson(answer));
    }
}

template <auto Function>
void publish(const Line &line) {
    REQUIRE(Function(world->caller, line.text.c_str(), line.payload.data(), line.size()) == 0);
}

template <auto Function>
void change(const Line &line) {
    Function(world->caller, line.text.c_str());
}

void connect(const Line &line) {
    busClientClose(
        busClientConnect(world->bus.get(), line.text.c_str(), nullptr, nullptr, nullptr));
}

struct Call {
    const char *letter;
    void (*run)(const Line &);
};
constexpr Call kCalls[] = {{"c", call},
                           {"p", publish<busClientPublish>},
                           {"s", publish<busClientPublishSticky>},
                           {"r", change<busClientRemoveSticky>},
                           {"b", change<busClientSubscribe>},
                           {"u", change<busClientUnsubscribe>},
                           {"n", connect}};

void run(const Line &line) {
    for (const Call &call : kCalls) {
        if (line.letter == call.letter) {
            call.run(line);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    world.emplace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static int inputs = 0;
    if (++inputs % kInputsOfABus == 0) {
        world.reset();
        world.emplace();
    }
    const std::string bytes{reinterpret_cast<const char *>(data), size};
    std::string_view rest = bytes;
    for (int calls = 0; !rest.empty() && calls < kCallsOfAnInput; ++calls) {
        run(Line{Line::cut(rest, '\n')});
    }
    world->check(bytes);
    return 0;
}
