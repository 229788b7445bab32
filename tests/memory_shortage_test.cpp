// What a shortage of memory leaves behind, wherever it strikes: a bus is used from its making to
// its deletion while the first allocation of the library is refused, then while the second one is,
// and so on until a run comes to its end before the refusal. Every run has to end by itself,
// without a time limit for calls, to leave no block behind, and a bus that works.
#include "memory_faults.h"
#include "test_support.h"

#include "bus_client.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using memory::Side;

const std::string kUnknown = "{\"data\":\"not implement\"}";

// Calls a function of the library.
template <auto Function, typename... Args>
auto lib(Args... args) {
    const Side library{true};
    return Function(args...);
}

// A node with its thread, as far as memory allows. Nothing here waits for a message, which may have
// been lost: what was queued for a node is handled before a call to it is.
class Node {
public:
    enum Thread { kRuns, kNone };

    Node(Zelvo_t *bus, const char *name, Thread thread = kRuns)
        : client_{lib<busClientConnect>(bus, name, hear, answer, this)} {
        if (client_ && thread == kRuns) {
            thread_ = std::thread{[this] { lib<busClientSpin>(client_); }};
        }
    }
    ~Node() { leave(); }

    void leave() {
        if (thread_.joinable()) {
            lib<busClientSpinExit>(client_);
            thread_.join();
        }
        lib<busClientClose>(std::exchange(client_, nullptr));
    }
    std::string call(const char *url, std::string_view data = {}) {
        const char *const text =
            lib<busClientCall>(client_, url, data.data(), static_cast<int>(data.size()));
        return text ? text : "null";
    }
    template <auto Publish = busClientPublish>
    void publish(const char *topic, std::string_view text) {
        lib<Publish>(client_, topic, text.data(), static_cast<int>(text.size()));
    }
    void keep(const char *topic, std::string_view text) {
        publish<busClientPublishSticky>(topic, text);
    }
    void subscribe(const char *topics) { lib<busClientSubscribe>(client_, topics); }
    int setTimer(long delay) {
        return lib<busClientSettimer>(client_, due, delay, 1, static_cast<void *>(this));
    }
    std::vector<std::string> heard() {
        const std::lock_guard lock{mutex_};
        return heard_;
    }
    client_t *get() const { return client_; }

private:
    void note(std::string text) {
        const std::lock_guard lock{mutex_};
        heard_.push_back(std::move(text));
    }
    static int hear(void *self, client_t *, char *topic, char *data, int len) {
        const Side own{false};
        const std::string text = data ? std::string(data, static_cast<std::size_t>(len)) : "null";
        static_cast<Node *>(self)->note(std::string{topic} + " " + text);
        return 0;
    }
    static int due(void *self, client_t *, int) {
        const Side own{false};
        static_cast<Node *>(self)->note("timer");
        return 0;
    }
    // Passes a call on to the address in data, or returns data.
    static char *answer(void *self, client_t *, char *, char *data, int) {
        const Side own{false};
        if (!data) {
            return nullptr;
        }
        const std::string text =
            *data == '/' ? static_cast<Node *>(self)->call(data, "passed on") : data;
        return mallocText(text);
    }

    std::mutex mutex_;
    std::vector<std::string> heard_;
    client_t *client_;
    std::thread thread_;
};
using Texts = std::vector<std::string>;

// Nobody refuses anything: everything has to work, and to have kept what it held.
void expectWorks(Zelvo_t *bus) {
    Node first{bus, "first"};
    Node second{bus, "second"};
    ASSERT_TRUE(first.get() && second.get());
    first.subscribe(R"(["news"])");
    second.publish("news", "1");
    second.keep("news", "2");
    EXPECT_EQ(second.call("/first/echo", "text"), "text");
    first.setTimer(0);
    second.call("/first/echo", "");
    second.call("/first/echo", ""); // timers have been looked at since the one before
    EXPECT_EQ(first.heard(), (Texts{R"(bus.event {"event":"join", "name": "second"})", "news 1",
                                    "news 2", "timer"}));
    lib<busClientRemoveSticky>(second.get(), R"(["news"])");
    EXPECT_EQ(second.call("/localKeys/kept", R"({"operation":"get"})"), "[\"since the start\"]");
    EXPECT_EQ(second.call("/bus/nodes"), "{\n\t\"data\":\t[\"first\", \"second\"]\n}");
}

void useTopics(Node &a, Node &b, Zelvo_t *bus) {
    a.subscribe(R"(["t","u"])");
    b.subscribe(R"(["t"])");
    b.publish("t", "live");
    b.keep("t", "old");
    b.keep("t", "kept");
    a.keep("w", "alone");
    Node late{bus, "late"};
    late.subscribe(R"(["w","t"])");
    a.call("/b/pass", "/late/echo");
    lib<busClientRemoveSticky>(a.get(), R"(["t","w"])");
    lib<busClientUnsubscribe>(a.get(), R"(["t","u"])");
}

// No answer, when the call could not be made; otherwise the right one, unless either node is none.
void expectAnswer(Node &from, const char *url, std::string_view data, const std::string &right) {
    const std::string text = from.call(url, data);
    EXPECT_TRUE(text == right || text == "null" || text == kUnknown) << url << ": " << text;
}

// A value that was said to be stored has to be; the last run has left another.
void useKeys(Node &a) {
    static int last = 0;
    const std::string value = std::to_string(++last);
    const std::string set = R"({"operation":"set", "persist":"true", "data":)" + value + "}";
    if (a.call("/localKeys/k", set) != "null") {
        expectAnswer(a, "/localKeys/k", R"({"operation":"get"})", value);
    }
}

void useCalls(Node &a, Node &b) {
    expectAnswer(a, "/b/echo", "text", "text");
    a.call("/b/pass", "/a/closes the ring");
    a.call("no address");
    expectAnswer(a, "/nobody/x", {}, kUnknown);
    b.call("/bus/nodes");
    b.call("/bus/stats");
}

void useTimers(Node &a, Node &b) {
    a.setTimer(0);
    lib<busClientKilltimer>(a.get(), a.setTimer(60000));
    b.call("/a/echo", "after both");
}

// A node that never runs is closed, before or after it is called.
void closeCalled(Node &a, Zelvo_t *bus) {
    Node idle{bus, "idle", Node::kNone};
    std::thread caller{[&a] { a.call("/idle/x"); }};
    idle.leave();
    caller.join();
}

void useNodes(Zelvo_t *bus) {
    Node a{bus, "a"};
    Node b{bus, "b"};
    useTopics(a, b, bus);
    useCalls(a, b);
    useKeys(a);
    useTimers(a, b);
    closeCalled(a, bus);
}

// Every line is made, and none is kept: to empty a file over and over takes most of the time.
constexpr char kConfig[] = R"({"level":0, "path":"/dev/null", "homePath":".", "stats":true})";

class Bus {
public:
    explicit Bus(const char *config = kConfig) : bus_{lib<busClientNew>(config)} {}
    ~Bus() {
        stop();
        lib<busClientDelete>(bus_);
    }
    void stop() {
        if (loop_.joinable()) {
            lib<busClientServerExit>(bus_);
            loop_.join();
        }
    }
    Zelvo_t *get() const { return bus_; }
    // How many allocations making it has asked for.
    long asked() const { return asked_; }

private:
    Zelvo_t *const bus_;
    const long asked_ = memory::asked();
    std::thread loop_{[this] { lib<busClientBindServer>(bus_); }};
};

// From the making of a bus to its deletion, while span allocations from the first on are refused.
void useBus(long first, long span) {
    memory::refuse(first, span);
    Bus bus;
    useNodes(bus.get());
    if (bus.asked() < first && memory::asked() >= first + span) {
        memory::refuseNothing();
        expectWorks(bus.get());
    }
    Node outlives{bus.get(), "outlives"};
    bus.stop();
}

void useAnotherBus() {
    memory::refuseNothing();
    Bus bus;
    expectWorks(bus.get());
}

class MemoryShortage : public testing::TestWithParam<long> {
public:
    MemoryShortage() {
        std::filesystem::current_path(dir_.path());
        testing::internal::CaptureStdout(); // the log, where its file had no memory
        Bus bus;
        Node node{bus.get(), "n"};
        node.call("/localKeys/kept",
                  R"({"operation":"set", "data":["since the start"], "persist":"true"})");
    }
    ~MemoryShortage() override {
        const std::string output = testing::internal::GetCapturedStdout();
        if (HasFailure()) {
            std::fputs(output.c_str(), stdout);
        }
        std::filesystem::current_path(before_);
    }

private:
    const std::filesystem::path before_ = std::filesystem::current_path();
    TempDir dir_;
};

TEST_P(MemoryShortage, ends_frees_and_leaves_a_bus_that_works) {
    bool struck = true;
    long run = 0;
    while (struck) {
        ++run;
        const Deadline deadline{"a run with allocation " + std::to_string(run) + " refused"};
        const long before = memory::blocks();
        useBus(run, GetParam());
        struck = memory::asked() >= run;
        useAnotherBus(); // closes a log that was left open without a bus
        ASSERT_FALSE(HasFailure()) << "allocation " << run;
        ASSERT_EQ(memory::blocks(), before) << "allocation " << run;
    }
    std::fprintf(stderr, "%ld allocations refused, %ld in a row\n", run - 1, GetParam());
}

TEST(PersistSync, false_leaves_the_flush_to_the_system) {
    const TempDir home;
    const std::string begin = R"({"path":"/dev/null","homePath":")" + home.path() + '"';
    long before = memory::flushes();
    const auto flushesWith = [&](const char *more) {
        const Bus bus{(begin + more + '}').c_str()};
        Node{bus.get(), "n"}.call("/localKeys/k",
                                  R"({"operation":"set", "data":1, "persist":"true"})");
        return memory::flushes() - std::exchange(before, memory::flushes());
    };
    EXPECT_EQ(flushesWith(""), 2); // the file and its directory
    EXPECT_EQ(flushesWith(R"(,"persistSync":false)"), 0);
}

INSTANTIATE_TEST_SUITE_P(InARow, MemoryShortage, testing::Values(1, 3, 20, 200),
                         testing::PrintToStringParamName());

} // namespace
