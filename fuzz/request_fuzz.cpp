// An input is a list of calls into the library, one a line: a letter, a tab, an address or a topic,
// a tab, a payload. kCalls has the letters. The bus, the node that makes the calls and the one that
// answers them live on from input to input.
#include "fuzz_support.h"
#include "test_support.h"

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

// A node with its thread: it keeps the last publication, and answers a call with the payload.
class Node {
public:
    Node(const FuzzedBus &bus, const char *name)
        : client_{busClientConnect(bus.get(), name, hear, reply, this)} {
        REQUIRE(client_);
        thread_ = std::thread{[this] { busClientSpin(client_); }};
    }
    ~Node() {
        busClientSpinExit(client_);
        thread_.join();
        busClientClose(client_);
    }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;

    client_t *get() const { return client_; }
    // To be read after a call to the node, which comes behind the publication.
    const std::string &heard() const { return heard_; }

private:
    static int hear(void *self, client_t *, char *topic, char *data, int len) {
        if (std::strcmp(topic, "probe") == 0) {
            static_cast<Node *>(self)->heard_.assign(data ? data : "",
                                                     static_cast<std::size_t>(len));
        }
        return 0;
    }
    static char *reply(void *, client_t *, char *, char *data, int) {
        return data ? strdup(data) : nullptr;
    }

    client_t *client_;
    std::string heard_;
    std::thread thread_;
};

class World {
public:
    World()
        : bus_{(R"({"level":0,"path":"/dev/null","size":0,"stats":true,"homePath":")" +
                home().path() + "\"}")
                   .c_str()} {
        busClientSubscribe(echo_.get(), R"(["probe"])");
    }
    const FuzzedBus &bus() const { return bus_; }
    client_t *caller() const { return caller_.get(); }

    // Everything still has to work, and nothing be lost, after what an input did.
    void check(const std::string &bytes) const {
        const int size = static_cast<int>(bytes.size());
        busClientCall(caller(), "/bus/join", nullptr, 0); // the input may have left
        REQUIRE(busClientPublish(caller(), "probe", bytes.data(), size) == 0);
        REQUIRE(answered(caller(), "/echo/x", "ping") == "ping");
        REQUIRE(echo_.heard() == bytes);
        const std::string nodes = answered(caller(), "/bus/nodes");
        REQUIRE(nodes.find("\"echo\"") != nodes.npos && nodes.find("\"caller\"") != nodes.npos);
        REQUIRE(std::count(nodes.begin(), nodes.end(), ',') == 1);
        REQUIRE(isJsonObject(answered(caller(), "/bus/stats")));
    }

private:
    static const TempDir &home() {
        static const TempDir directory;
        return directory;
    }

    FuzzedBus bus_;
    Node echo_{bus_, "echo"};
    Node caller_{bus_, "caller"};
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
        busClientCall(world->caller(), line.text.c_str(), line.payload.data(), line.size());
    if (!answer) { // only when the input has left the bus before
        REQUIRE(!busClientCall(world->caller(), "/bus/nodes", nullptr, 0));
    } else if (line.text.starts_with("/echo/")) {
        REQUIRE(answer == std::string{line.payload.c_str()});
    } else if (line.text.size() < 2 || line.text.compare(1, 5, "echo/") != 0) {
        REQUIRE(*answer == '\0' || isJson(answer));
    }
}

void publish(const Line &line) {
    REQUIRE(busClientPublish(world->caller(), line.text.c_str(), line.payload.data(),
                             line.size()) == 0);
}

void publishSticky(const Line &line) {
    REQUIRE(busClientPublishSticky(world->caller(), line.text.c_str(), line.payload.data(),
                                   line.size()) == 0);
}

void removeSticky(const Line &line) {
    busClientRemoveSticky(world->caller(), line.text.c_str());
}

void subscribe(const Line &line) {
    busClientSubscribe(world->caller(), line.text.c_str());
}

void unsubscribe(const Line &line) {
    busClientUnsubscribe(world->caller(), line.text.c_str());
}

void connect(const Line &line) {
    busClientClose(
        busClientConnect(world->bus().get(), line.text.c_str(), nullptr, nullptr, nullptr));
}

struct Call {
    const char *letter;
    void (*run)(const Line &);
};
constexpr Call kCalls[] = {
    {"c", call},      {"p", publish},     {"s", publishSticky}, {"r", removeSticky},
    {"b", subscribe}, {"u", unsubscribe}, {"n", connect},
};

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
