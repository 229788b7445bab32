// Single operations of the bus, for a machine that counts instructions: everything runs in one
// thread, so that each run counts the same. The bus does not run while something is sent to it, and
// is run to its exit then. A caller that looks for its answer lets the bus and the called node run
// instead of giving up the processor: the program is linked with that function wrapped.
//
// usage: bench_cost --list | OPERATION
// What is to be counted is done inside countedPart. bench/cost.py runs this and compares.
#include "bus_client/internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr char kTopic[] = "measured";
constexpr char kPayload[] = "sixty-four bytes, which is what most of the publications carry..";
constexpr int kPayloadSize = sizeof kPayload - 1;
constexpr char kLastTopic[] = "the last";

class World;
World *caller = nullptr; // whose bus runs while somebody waits for an answer

char *answer(void *, client_t *, char *, char *, int) {
    constexpr char kAnswer[] = "twenty-three bytes here";
    void *const text = std::malloc(sizeof kAnswer);
    return text ? static_cast<char *>(std::memcpy(text, kAnswer, sizeof kAnswer)) : nullptr;
}

// By the first letter: how many instructions a comparison takes depends on where the texts lie.
int hear(void *, client_t *node, char *topic, char *, int) {
    return *topic == *kLastTopic ? busClientSpinExit(node) : 0;
}

// A bus without a thread, and its nodes.
class World {
public:
    explicit World(int level = 5)
        : bus_{busClientNew((R"({"path":"cost.log","homePath":".","persistSync":false,"level":)" +
                             std::to_string(level) + "}")
                                .c_str())} {
        caller = this;
    }
    World(const World &) = delete;
    World &operator=(const World &) = delete;
    ~World() {
        for (client_t *const node : nodes_) {
            busClientClose(node);
        }
        run();
        busClientDelete(bus_);
        caller = nullptr;
    }

    client_t *join(const std::string &name) {
        client_t *const node = busClientConnect(bus_, name.c_str(), hear, answer, nullptr);
        if (!node || !node->registered.load()) {
            throw std::runtime_error("a node could not join");
        }
        return nodes_.emplace_back(node);
    }
    client_t *subscriber(int number) {
        client_t *const node = join("subscriber-" + std::to_string(number));
        busClientSubscribe(node, "[\"measured\"]");
        return node;
    }
    void leave(client_t *node) {
        bus_->server->running.store(1); // the bus is said to run while it is left
        std::erase(nodes_, node);
        busClientClose(node);
    }
    bus::server_t &server() const { return *bus_->server; }
    // Everything that waits for the bus.
    void run() {
        busClientServerExit(bus_);
        busClientBindServer(bus_);
    }
    // Everything that waits for the node.
    static void spin(client_t *node) {
        bus_mk_q_send(node->message_queue,
                      bus::busClientExMessageNew("x", kLastTopic, nullptr, bus::action::kPublish,
                                                 nullptr, bus::kNoRequest, nullptr, 0),
                      -1);
        busClientSpin(node);
    }
    // The bus's and the called nodes' parts in a call.
    void letOthersRun() {
        run();
        for (client_t *const node : nodes_) {
            while (const bus::MessagePtr request = bus::takeRequest(*node)) {
                bus::answerRequest(*node, *request, node->oncall_func);
            }
        }
        run();
    }

private:
    Zelvo_t *bus_;
    std::vector<client_t *> nodes_;
};

using Body = std::function<void()>;

// Calls body(0), body(1) and so on.
void times(int count, const auto &body) {
    for (int i = 0; i < count; ++i) {
        body(i);
    }
}

void publish(client_t *node, int count) {
    times(count, [&](int) { busClientPublish(node, kTopic, kPayload, kPayloadSize); });
}

} // namespace

extern "C" {
bool __real__Z19bus_mk_thread_yieldv();
bool __wrap__Z19bus_mk_thread_yieldv();
bool __wrap__Z19bus_mk_thread_yieldv() {
    if (World *const world = std::exchange(caller, nullptr)) {
        world->letOthersRun();
        caller = world;
        return true;
    }
    return __real__Z19bus_mk_thread_yieldv();
}

__attribute__((noinline)) void countedPart(const Body &body);
void countedPart(const Body &body) {
    body();
}
}

namespace {

// ---- publications ----

void publishAt(int level, int count) {
    World world{level};
    client_t *const node = world.join("publisher");
    countedPart([&] { publish(node, count); });
}
void publishQuietly(int count) {
    publishAt(5, count);
}
void publishLogged(int count) {
    publishAt(2, count);
}

void routeTo(int subscribers, int count) {
    World world;
    client_t *const node = world.join("publisher");
    times(subscribers, [&](int i) { world.subscriber(i); });
    publish(node, count);
    countedPart([&] { world.run(); });
}
void routeToOne(int count) {
    routeTo(1, count);
}
void routeToEight(int count) {
    routeTo(8, count);
}

void receive(int count) {
    World world;
    client_t *const node = world.subscriber(1);
    publish(world.join("publisher"), count);
    world.run();
    countedPart([&] { World::spin(node); });
}

void sticky(int count) {
    World world;
    client_t *const node = world.join("publisher");
    world.subscriber(1);
    countedPart([&] {
        times(count, [&](int) { busClientPublishSticky(node, kTopic, kPayload, kPayloadSize); });
        world.run();
    });
}

// ---- calls ----

void call(int count) {
    World world;
    client_t *const node = world.join("node-a");
    world.join("node-b");
    countedPart([&] {
        times(count, [&](int) {
            if (!busClientCall(node, "/node-b/answer", "sixteen bytes...", 16)) {
                throw std::runtime_error("a call was not answered");
            }
        });
    });
}

// A request as a caller's thread posts it, which then waits.
void ask(client_t *node, const char *url) {
    auto *const request =
        bus::busClientExMessageNew(node->name.get(), nullptr, url, bus::action::kRequest, node,
                                   node->name.get(), "sixteen bytes...", 16);
    bus_mk_q_send(node->server->message_queue, request, -1);
}

// Requests of as many nodes, forwarded to one, answered by it, and the answers handed over.
void callParts(int count, int counted) {
    World world;
    std::vector<client_t *> callers;
    times(count, [&](int i) { callers.push_back(world.join("caller-" + std::to_string(i))); });
    client_t *const node = world.join("node-b");
    for (client_t *const from : callers) {
        ask(from, "/node-b/answer");
    }
    const Body parts[] = {
        [&] { world.run(); },
        [&] {
            while (const bus::MessagePtr request = bus::takeRequest(*node)) {
                bus::answerRequest(*node, *request, answer);
            }
        },
        [&] { world.run(); },
    };
    for (int i = 0; i < 3; ++i) {
        i == counted ? countedPart(parts[i]) : parts[i]();
    }
}
void requestForwarded(int count) {
    callParts(count, 0);
}
void requestAnswered(int count) {
    callParts(count, 1);
}
void answerHandedOver(int count) {
    callParts(count, 2);
}

void subscribe(int count) {
    World world;
    client_t *const node = world.join("node-a");
    countedPart([&] {
        times(count, [&](int) {
            busClientSubscribe(node, "[\"measured\"]");
            busClientUnsubscribe(node, "[\"measured\"]");
        });
    });
}

void joinAndLeave(int count) {
    World world;
    world.join("node-a");
    countedPart([&] { times(count, [&](int) { world.leave(world.join("node-b")); }); });
}

void keys(int count) {
    constexpr std::string_view set = R"({"operation":"set","data":"a value of 23 bytes ..."})";
    constexpr std::string_view get = R"({"operation":"get"})";
    World world;
    client_t *const node = world.join("node-a");
    countedPart([&] {
        times(count, [&](int i) {
            const std::string url = "/localKeys/key-" + std::to_string(i % 10);
            busClientCall(node, url.c_str(), set.data(), static_cast<int>(set.size()));
            busClientCall(node, url.c_str(), get.data(), static_cast<int>(get.size()));
        });
    });
}

// ---- timers ----

int ignore(void *, client_t *, int) {
    return 0;
}

void timersFire(int count) {
    World world;
    client_t *const node = world.join("node-a");
    countedPart([&] {
        times(count, [&](int i) { busClientSettimer(node, ignore, 0, i, nullptr); });
        World::spin(node);
    });
}

void timersKilled(int count) {
    World world;
    client_t *const node = world.join("node-a");
    countedPart([&] {
        times(count, [&](int) {
            busClientKilltimer(node, busClientSettimer(node, ignore, 3'600'000, 0, nullptr));
        });
        World::spin(node);
    });
}

// ---- what stands beneath ----

void messages(int count) {
    countedPart([&] {
        times(count, [&](int) {
            const bus::MessagePtr message{
                bus::busClientExMessageNew("publisher", kTopic, nullptr, bus::action::kPublish,
                                           nullptr, bus::kNoRequest, kPayload, kPayloadSize)};
            const bus::MessagePtr copy{bus::busClientExMessageCopy(message.get())};
        });
    });
}

void logLines(int count) {
    bus::bus_log_init(2, "cost.log", 0, 20);
    countedPart([&] {
        times(count, [](int) { BUS_LOG(2, "  %s %s call response, %s\n", "a", "b", kPayload); });
    });
    bus::bus_log_exit();
}

struct Operation {
    std::string_view name;
    int count; // of repetitions; queues have room for as many
    void (*run)(int count);
};
constexpr Operation kOperations[] = {
    {"publish", 1000, publishQuietly},
    {"publish at log level 2", 500, publishLogged},
    {"route to 1 subscriber", 1000, routeToOne},
    {"route to 8 subscribers", 500, routeToEight},
    {"receive a publication", 1000, receive},
    {"publish and route a sticky one", 500, sticky},
    {"call", 200, call},
    {"forward a request", 100, requestForwarded},
    {"answer a request", 100, requestAnswered},
    {"hand an answer over", 100, answerHandedOver},
    {"subscribe and unsubscribe", 100, subscribe},
    {"join and leave", 50, joinAndLeave},
    {"set and get a key", 100, keys},
    {"set a timer that fires", 500, timersFire},
    {"set a timer and kill it", 500, timersKilled},
    {"make and copy a message", 1000, messages},
    {"write a line of the log", 1000, logLines},
};

} // namespace

int main(int argc, char **argv) {
    const std::string_view wanted = argc == 2 ? argv[1] : "";
    for (const Operation &operation : kOperations) {
        if (wanted == "--list") {
            std::printf("%.*s,%d\n", static_cast<int>(operation.name.size()), operation.name.data(),
                        operation.count);
        } else if (wanted == operation.name) {
            operation.run(operation.count);
            return 0;
        }
    }
    return wanted == "--list" ? 0 : 2;
}
