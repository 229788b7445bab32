// Zelvo through its public header alone: every node joins by name, the bus runs in a thread of its
// own, handlers in their node's.
#include "scenario.h"

#include <zelvo/bus_client.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace bench;

constexpr std::string_view kNotice = "bus.event"; // of a joining node
constexpr char kNotices[] = "[\"bus.event\"]";

class Bus {
public:
    // The log goes into a file of the working directory; the key store is in the directory home.
    explicit Bus(const std::string &home = ".", int level = 3)
        : bus_{busClientNew((R"({"level":)" + std::to_string(level) +
                             R"(,"path":"zelvo.log","homePath":")" + home + "\"}")
                                .c_str())} {
        if (!bus_) {
            throw std::runtime_error("the bus could not be made");
        }
        loop_ = std::thread(busClientBindServer, bus_);
    }
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;
    ~Bus() {
        busClientServerExit(bus_);
        loop_.join();
        busClientDelete(bus_);
    }
    Zelvo_t *get() const noexcept { return bus_; }

private:
    Zelvo_t *bus_;
    std::thread loop_;
};

class Node {
public:
    Node(const Bus &bus, const std::string &name, onmessage_callback onMessage = nullptr,
         oncall_callback onCall = nullptr, void *userdata = nullptr)
        : client_{busClientConnect(bus.get(), name.c_str(), onMessage, onCall, userdata)} {
        if (!client_) {
            throw std::runtime_error("a node could not join");
        }
    }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    // A wish to exit is dropped while the node's queue is full; each cell has received all before.
    ~Node() {
        if (thread_.joinable()) {
            busClientSpinExit(client_);
            thread_.join();
        }
        busClientClose(client_);
    }
    void start() { thread_ = std::thread(busClientSpin, client_); }
    // A node whose thread does not run must not collect notices.
    void stayQuiet() { busClientUnsubscribe(client_, kNotices); }
    void subscribe(const char *topics) { busClientSubscribe(client_, topics); }
    client_t *get() const noexcept { return client_; }

private:
    client_t *client_;
    std::thread thread_;
};

using Nodes = std::vector<std::unique_ptr<Node>>;

std::string topicsOf(int node, int topics) {
    std::string list = "[";
    for (int topic = 0; topic < topics; ++topic) {
        list += (topic ? ",\"" : "\"") + std::to_string(node) + "." + std::to_string(topic) + "\"";
    }
    return list + "]";
}

Nodes others(const Bus &bus, const Shape &shape) {
    Nodes all;
    for (int i = 0; i < shape.others; ++i) {
        auto &node = *all.emplace_back(std::make_unique<Node>(bus, "other-" + std::to_string(i)));
        node.stayQuiet();
        if (shape.otherTopics > 0) {
            node.subscribe(topicsOf(i, shape.otherTopics).c_str());
        }
    }
    return all;
}

char *answer(void *, client_t *, char *, char *, int) {
    char *const text = static_cast<char *>(std::malloc(kAnswer.size() + 1));
    if (text) {
        std::memcpy(text, kAnswer.data(), kAnswer.size());
        text[kAnswer.size()] = '\0';
    }
    return text;
}

int ignoreTimer(void *, client_t *, int) {
    return 0;
}

class ZelvoCaller final : public Caller {
public:
    explicit ZelvoCaller(const Shape &shape)
        : bus_{".", shape.logLevel},
          others_{others(bus_, shape)} {
        caller_.stayQuiet();
        callee_.start();
        for (int i = 0; i < shape.timers; ++i) {
            busClientSettimer(callee_.get(), ignoreTimer, 3'600'000, 0, nullptr);
        }
    }
    std::size_t call() override {
        const char *const text = busClientCall(caller_.get(), "/node-b/answer", kRequest.data(),
                                               static_cast<int>(kRequest.size()));
        return text ? std::strlen(text) : 0;
    }

private:
    Bus bus_;
    Nodes others_;
    Node callee_{bus_, "node-b", nullptr, answer};
    Node caller_{bus_, "node-a"};
};

class ZelvoPublisher final : public Publisher {
public:
    ZelvoPublisher(const Shape &shape, Sink &sink, bool notices = true)
        : bus_{".", shape.logLevel},
          others_{others(bus_, shape)},
          seats_(static_cast<std::size_t>(shape.topics * shape.subscribers)) {
        for (int i = 0; i < shape.publishers; ++i) {
            auto node = std::make_unique<Node>(bus_, "publisher-" + std::to_string(i));
            node->stayQuiet();
            publishers_.push_back({std::move(node), Topic{i % shape.topics}});
        }
        for (int topic = 0; topic < shape.topics; ++topic) {
            for (int i = 0; i < shape.subscribers; ++i) {
                subscribe(Topic{topic}, {&sink, i}, notices);
            }
        }
    }
    void publish(int publisher, std::string_view payload) override {
        const Outlet &outlet = publishers_[static_cast<std::size_t>(publisher)];
        busClientPublish(outlet.node->get(), outlet.topic.text(), payload.data(),
                         static_cast<int>(payload.size()));
    }

private:
    struct Outlet {
        std::unique_ptr<Node> node;
        Topic topic;
    };
    struct Seat {
        Sink *sink;
        int number;
    };
    void subscribe(const Topic &topic, const Seat &taken, bool notices) {
        const std::size_t number = subscribers_.size();
        Seat &seat = seats_[number];
        seat = taken;
        auto &node = *subscribers_.emplace_back(std::make_unique<Node>(
            bus_, "subscriber-" + std::to_string(number), onMessage, nullptr, &seat));
        node.subscribe((std::string{"[\""} + topic.text() + "\"]").c_str());
        if (!notices) {
            node.stayQuiet();
        }
        node.start();
    }
    static int onMessage(void *userdata, client_t *, char *topic, char *data, int length) {
        if (std::string_view{topic} != kNotice) {
            const auto &seat = *static_cast<Seat *>(userdata);
            seat.sink->receive(seat.number, data, static_cast<std::size_t>(length));
        }
        return 0;
    }

    Bus bus_;
    Nodes others_;
    std::vector<Outlet> publishers_;
    std::vector<Seat> seats_;
    Nodes subscribers_;
};

std::unique_ptr<Caller> caller(const Shape &shape) {
    return std::make_unique<ZelvoCaller>(shape);
}
std::unique_ptr<Publisher> publisher(const Shape &shape, Sink &sink) {
    return std::make_unique<ZelvoPublisher>(shape, sink);
}

// ---- the key store ----

// A directory with a store of so many keys, which the bus reads at its first request.
class StoreDirectory {
public:
    explicit StoreDirectory(int keys) : path_{"store-" + std::to_string(keys)} {
        std::filesystem::create_directory(path_);
        std::ofstream file{path_ + "/keys.json"};
        for (int i = 0; i < keys; ++i) {
            file << (i ? ',' : '{') << "\"key-" << i << R"(":"a value of 23 bytes ...")";
        }
        file << '}';
    }
    StoreDirectory(const StoreDirectory &) = delete;
    StoreDirectory &operator=(const StoreDirectory &) = delete;
    ~StoreDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string &path() const noexcept { return path_; }

private:
    std::string path_;
};

template <int Keys, bool Set>
Result keys(int milliseconds) {
    constexpr std::string_view set = R"({"operation":"set","data":"a value of 23 bytes ..."})";
    constexpr std::string_view get = R"({"operation":"get"})";
    const StoreDirectory store{Keys};
    const Bus bus{store.path()};
    Node node{bus, "node-a"};
    node.stayQuiet();
    std::vector<std::string> urls;
    urls.reserve(Keys);
    const auto call = [&](const std::string &url, std::string_view data) {
        const char *const text =
            busClientCall(node.get(), url.c_str(), data.data(), static_cast<int>(data.size()));
        if (!text) {
            throw std::runtime_error("the key store does not answer");
        }
        return std::string_view{text};
    };
    for (int i = 0; i < Keys; ++i) {
        urls.push_back("/localKeys/key-" + std::to_string(i));
    }
    if (call(urls.back(), get).find("a value of 23 bytes ...") == std::string_view::npos) {
        throw std::runtime_error("the key store holds another value");
    }
    std::size_t next = 0;
    return repeat(milliseconds, [&] {
        next = (next + 7919) % urls.size(); // a prime: every key in turn, not one after another
        call(urls[next], Set ? set : get);
    });
}

// ---- connecting and leaving ----

template <int Others>
Result join(int milliseconds) {
    const Bus bus;
    const Nodes present = others(bus, {.others = Others});
    return repeat(milliseconds, [&] { const Node node{bus, "the-next-node"}; });
}

// Two thousand nodes, each with its thread and one publication that all have handled. A node hears
// of every node that joins later, which makes two million notices, unless it has asked not to.
template <bool Notices>
Result crowd(int) {
    constexpr int kNodes = 2000;
    Result result;
    Sink sink{kNodes, 1};
    const std::int64_t begun = now();
    const Usage before = usage();
    ZelvoPublisher all{{.subscribers = kNodes}, sink, Notices};
    result.used = usage() - before;
    result.seconds = static_cast<double>(now() - begun) * 1e-9;
    result.operations = kNodes;
    std::vector<char> payload(64, 'x');
    if (!sink.stream(0).awaitReady(all, payload)) {
        throw std::runtime_error("some nodes hear nothing");
    }
    return result;
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"Zelvo",
               caller,
               publisher,
               {"call-2",           "call-2000",      "call-1-core",     "publish-64",
                "publish-1M",       "publish-1-core", "latency-1k",      "fanout-8",
                "fanout-64",        "fanout-256",     "growth-10",       "growth-100",
                "growth-1000",      "growth-2000",    "call-timers-0",   "call-timers-1",
                "call-timers-1000", "idle-timers-0",  "idle-timers-1",   "idle-timers-1000",
                "call-level-2",     "call-level-1",   "publish-level-2", "publish-level-1",
                "publish-4-to-1",   "publish-4-pairs"},
               {{"keys-get-10", keys<10, false>},
                {"keys-get-1000", keys<1000, false>},
                {"keys-get-10000", keys<10000, false>},
                {"keys-set-10", keys<10, true>},
                {"keys-set-1000", keys<1000, true>},
                {"keys-set-10000", keys<10000, true>},
                {"join-1", join<0>},
                {"join-2000", join<1999>},
                {"memory-2000", crowd<true>},
                {"memory-2000-quiet", crowd<false>}}}};
    return bench::run(argc, argv, systems);
}
