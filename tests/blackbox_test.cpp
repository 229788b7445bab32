// The library as an application sees it: the public header, real threads.
#include "running.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string kEmpty = "{\"data\":\"\"}";
const std::string kUnknown = "{\"data\":\"not implement\"}";
const std::string kNoHandler = "{\"msg\":\"not implement\"}";

class Log {
public:
    std::string logPath() const { return dir_.file("bus.log"); }
    std::string log() const { return readFile(logPath()); }

private:
    TempDir dir_;
};

class Bus : public Log, public RunningBus {
public:
    explicit Bus(int level = 4, const std::string &more = {}, bool started = true)
        : RunningBus{R"({"LEVEL":)" + std::to_string(level) + R"(,"path":")" + logPath() + '"' +
                         more + "}",
                     started} {}
};

// A node. What it hears is kept as "topic payload".
class Node {
public:
    using OnCall = std::function<char *(client_t *, const std::string &url, const char *, int)>;

    Node(const Bus &bus, const char *name, OnCall onCall = {}, bool spin = true)
        : onCall_{std::move(onCall)},
          node_{bus.get(), name, hear, onCall_ ? reply : nullptr, this, spin} {}

    void leave() { node_.leave(); }
    std::string call(const std::string &url, const char *data = nullptr, int len = 0) {
        return node_.call(url, data, len);
    }
    // What was heard, once count messages have been.
    std::vector<std::string> heard(std::size_t count) {
        std::unique_lock lock{mutex_};
        EXPECT_TRUE(more_.wait_for(lock, kLimit, [&] { return heard_.size() >= count; }));
        return heard_;
    }
    client_t *get() const { return node_.get(); }

private:
    static int hear(void *userdata, client_t *, char *topic, char *data, int len) {
        auto &self = *static_cast<Node *>(userdata);
        const std::lock_guard lock{self.mutex_};
        self.heard_.push_back(std::string{topic} + " " +
                              (data ? std::string(data, static_cast<std::size_t>(len)) : "null"));
        self.more_.notify_all();
        return 0;
    }
    static char *reply(void *userdata, client_t *client, char *url, char *data, int len) {
        return static_cast<Node *>(userdata)->onCall_(client, url, data, len);
    }

    OnCall onCall_;
    std::mutex mutex_;
    std::condition_variable more_;
    std::vector<std::string> heard_;
    RunningNode node_; // last: its thread uses the others
};
using Texts = std::vector<std::string>;

TEST(Zelvo, publication_arrives_whole_and_sticky_state_arrives_late) {
    const Bus bus;
    Node a{bus, "a"};
    Node b{bus, "b2"};
    EXPECT_EQ(busClientSubscribe(a.get(), R"(["t"])"), 0);
    const std::string bytes("\0x\xff\0", 4);
    EXPECT_EQ(busClientPublish(b.get(), "t", bytes.data(), 4), 0);
    EXPECT_EQ(busClientPublish(b.get(), "t", nullptr, 5), 0);
    EXPECT_EQ(busClientPublishSticky(b.get(), "t", "kept", 4), 0);
    EXPECT_EQ(a.heard(4), (Texts{R"(bus.event {"event":"join", "name": "b2"})", "t " + bytes,
                                 "t null", "t kept"}));
    Node late{bus, "late"};
    EXPECT_EQ(busClientSubscribe(late.get(), R"(["t"])"), 0);
    EXPECT_EQ(late.heard(1), Texts{"t kept"});
    EXPECT_EQ(busClientRemoveSticky(b.get(), R"(["t"])"), 0);
    Node later{bus, "later"};
    EXPECT_EQ(busClientSubscribe(later.get(), R"(["t"])"), 0);
    EXPECT_EQ(busClientPublish(b.get(), "t", "live", 4), 0);
    EXPECT_EQ(later.heard(1), Texts{"t live"});
}

TEST(Zelvo, call_is_answered_by_the_other_nodes_thread) {
    const Bus bus;
    std::thread::id answeredBy;
    Node target{bus, "target", [&](client_t *, const std::string &url, const char *data, int len) {
                    answeredBy = std::this_thread::get_id();
                    return url == "/target/none"
                               ? nullptr
                               : mallocText(url + (data ? data : "null") + std::to_string(len));
                }};
    Node silent{bus, "silent"};
    Node a{bus, "a"};
    EXPECT_EQ(a.call("/target/x", "ab", 2), "/target/xab2");
    EXPECT_NE(answeredBy, std::this_thread::get_id());
    EXPECT_EQ(a.call("/target/x", nullptr, 7), "/target/xnull0");
    const std::string path = "/target/" + std::string(70000, 'p');
    EXPECT_EQ(a.call(path), path + "null0");
    EXPECT_EQ(a.call("/target/none"), kNoHandler);
    EXPECT_EQ(a.call("/silent/x"), kNoHandler);
    EXPECT_EQ(a.call("/gone/x"), kUnknown);
    EXPECT_EQ(a.call("no address"), kUnknown);
    EXPECT_EQ(a.call("/" + std::string(128, 'h') + "/x"), kUnknown);
    EXPECT_EQ(a.call("/bus/nodes"), "{\n\t\"data\":\t[\"target\", \"silent\", \"a\"]\n}");
}

TEST(Zelvo, refused_arguments_change_nothing) {
    const Bus bus;
    Node a{bus, "a"};
    client_t *const none = nullptr;
    EXPECT_EQ(busClientConnect(nullptr, "x", nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(busClientConnect(bus.get(), nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(busClientConnect(bus.get(), "a", nullptr, nullptr, nullptr), nullptr);
    for (const int result :
         {busClientSubscribe(none, "[]"), busClientSubscribe(a.get(), nullptr),
          busClientSubscribe(a.get(), "\"t\""), busClientUnsubscribe(a.get(), "{"),
          busClientPublish(none, "t", "", 0), busClientPublish(a.get(), nullptr, "", 0),
          busClientPublish(a.get(), "t", "x", -1), busClientPublishSticky(none, "t", "", 0),
          busClientRemoveSticky(a.get(), "{}"), busClientRemoveSticky(a.get(), nullptr),
          busClientSettimer(none, nullptr, 0, 0, nullptr)}) {
        EXPECT_EQ(result, -1);
    }
    EXPECT_EQ(busClientCall(none, "/a/x", nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), "/a/x", "x", -1), nullptr);
    for (const int result : {busClientSpin(none), busClientSpinExit(none), busClientClose(none),
                             busClientBindServer(nullptr), busClientServerExit(nullptr),
                             busClientDelete(nullptr), busClientKilltimer(none, 2),
                             busClientSubscribe(a.get(), "[]"), busClientBindServer(bus.get())}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_EQ(a.call("/bus/nodes"), "{\n\t\"data\":\t[\"a\"]\n}");
    EXPECT_TRUE(says(bus.log(), "  Vek-server server is running\n"));
}

TEST(Zelvo, answer_stays_until_the_next_call_is_posted) {
    const Bus bus;
    Node a{bus, "a"};
    const char *const answer = busClientCall(a.get(), "/nobody/x", nullptr, 0);
    EXPECT_EQ(a.call("/nobody/x", "x", -1), "null");
    EXPECT_EQ(answer, kUnknown);
    a.leave();
    EXPECT_EQ(a.call("/nobody/x"), "null");
    EXPECT_EQ(busClientSubscribe(a.get(), "[]"), 0);
    EXPECT_EQ(busClientPublish(a.get(), "t", nullptr, 0), 0); // one that has left still publishes
}

TEST(Zelvo, exit_overtakes_publications_and_waiting_requests_are_answered) {
    const Bus bus{2};
    Signal inside;
    Signal release;
    Node busy{bus, "busy", [&](client_t *, const std::string &url, const char *, int) {
                  if (url == "/busy/hold") {
                      inside.set();
                      EXPECT_TRUE(release.wait());
                  }
                  return mallocText("answered");
              }};
    busClientSubscribe(busy.get(), R"(["t","after"])");
    Node a{bus, "a"};
    Node c{bus, "c"};
    std::string first;
    std::string second;
    std::thread holder{[&] { first = a.call("/busy/hold"); }};
    ASSERT_TRUE(inside.wait());
    busClientPublish(c.get(), "t", "never heard", 11);
    std::thread waiter{[&] { second = c.call("/busy/next"); }};
    while (!says(bus.log(), "c call busy, target: c")) {
        std::this_thread::yield();
    }
    Node probe{bus, "probe"}; // handled behind that request, which has been forwarded then
    busClientSpinExit(busy.get());
    busClientSpinExit(busy.get()); // one leave, the second waits for the close
    release.set();
    holder.join();
    waiter.join();
    busy.leave();
    EXPECT_EQ(first, "answered");
    EXPECT_EQ(second, "answered");
    EXPECT_EQ(a.call("/busy/x"), kUnknown);
    for (const std::string &text : busy.heard(0)) {
        EXPECT_FALSE(says(text, "never heard"));
    }
}

TEST(Zelvo, ring_of_calls_is_refused) {
    const Bus bus;
    Node first{bus, "first"};
    Node second{bus, "second", [](client_t *self, const std::string &, const char *, int) {
                    const char *const text = busClientCall(self, "/first/x", nullptr, 0);
                    return mallocText(text ? text : "null");
                }};
    EXPECT_EQ(first.call("/second/x"), kEmpty);
    EXPECT_EQ(first.call("/first/x"), kEmpty);
}

TEST(Zelvo, one_of_two_racing_connects_gets_the_name) {
    const Bus bus{6};
    for (int round = 0; round < 200; ++round) {
        std::vector<std::unique_ptr<Node>> nodes(2);
        inThreads(2, [&](int i) {
            nodes[static_cast<std::size_t>(i)] = std::make_unique<Node>(bus, "name");
        });
        const bool first = nodes[0]->get() != nullptr;
        ASSERT_NE(first, nodes[1]->get() != nullptr) << round;
        EXPECT_EQ(nodes[first ? 0 : 1]->call("/bus/nodes"), "{\n\t\"data\":\t[\"name\"]\n}");
    }
}

TEST(Zelvo, closed_node_leaves_no_caller_waiting) {
    const Bus bus{2};
    auto idle = std::make_unique<Node>(bus, "idle", Node::OnCall{}, false);
    Node a{bus, "a"};
    std::string answer;
    std::thread caller{[&] { answer = a.call("/idle/x"); }};
    while (!says(bus.log(), "a call idle, target: a")) {
        std::this_thread::yield();
    }
    idle.reset();
    caller.join();
    EXPECT_EQ(answer, kNoHandler);
}

TEST(Zelvo, node_that_leaves_is_not_joined_again_by_another_thread) {
    const Bus bus{6};
    Node watcher{bus, "watcher"};
    for (int round = 0; round < 50; ++round) {
        Node node{bus, "node"};
        node.call("/bus/disjoin");
        std::atomic<bool> left{false};
        std::thread joiner{[&] {
            while (!left) {
                busClientCall(node.get(), "/bus/join", nullptr, 0); // not read: leaving frees it
            }
        }};
        node.leave();
        left = true;
        joiner.join();
        EXPECT_EQ(watcher.call("/bus/nodes"), "{\n\t\"data\":\t[\"watcher\"]\n}") << round;
    }
}

TEST(Zelvo, full_bus_refuses_and_says_so) {
    Bus bus;
    Node a{bus, "a", {}, false};
    busClientSubscribe(a.get(), R"(["t"])");
    bus.stop();
    for (int i = 0; i < 2048; ++i) {
        EXPECT_EQ(busClientPublish(a.get(), "t", nullptr, 0), 0);
    }
    EXPECT_FALSE(says(bus.log(), "queue is full"));
    EXPECT_EQ(busClientPublish(a.get(), "t", nullptr, 0), 0);
    EXPECT_EQ(busClientPublishSticky(a.get(), "t", nullptr, 0), 0);
    EXPECT_EQ(busClientRemoveSticky(a.get(), "[]"), 0);
    EXPECT_EQ(a.call("/bus/nodes"), "null");
    // A node whose join was lost is not on the bus, and is not kept waiting on it.
    Node lost{bus, "lost", {}, false};
    EXPECT_EQ(lost.call("/a/x"), "null");
    for (const char *line : {"a ==> server publish failed, topic: t, queue is full",
                             "a ==> server publishSticky failed, topic: t, queue is full",
                             "a ==> server removeSticky failed, data: [], queue is full",
                             "a ==> server call failed, url: /bus/nodes, queue is full",
                             "lost ==> server call failed, url: /bus/join, queue is full"}) {
        EXPECT_TRUE(says(bus.log(), line)) << line;
    }
    bus.start();
    while (lost.call("/bus/join") != kEmpty) {
        std::this_thread::yield();
    }
    EXPECT_EQ(lost.call("/bus/nodes"), "{\n\t\"data\":\t[\"a\", \"lost\"]\n}");
}

constexpr char kTimeout[] = R"(,"callTimeout":1000)";

TEST(Zelvo, call_ends_at_its_time_limit_and_its_late_answer_disturbs_none) {
    const Bus bus{4, kTimeout};
    Signal asked;
    Signal goOn;
    Node slow{bus, "slow", [&](client_t *, const std::string &url, const char *, int) {
                  if (url == "/slow/wait") {
                      asked.set();
                      goOn.wait();
                  }
                  return mallocText(url);
              }};
    Node idle{bus, "idle", {}, false};
    Node a{bus, "a"};
    for (const char *url : {"/slow/wait", "/idle/x"}) {
        EXPECT_EQ(a.call(url), "null");
        EXPECT_TRUE(says(bus.log(), std::string{"a call timeout, url: "} + url));
    }
    EXPECT_EQ(a.call("/none/x"), kUnknown);
    EXPECT_TRUE(asked.wait());
    const char *const kept = busClientCall(a.get(), "/localKeys/none", "{}", 2);
    goOn.set(); // the late answer comes while kept is read
    Node other{bus, "other"};
    while (other.call("/slow/now") != "/slow/now") {}
    EXPECT_EQ(kept, kEmpty);
    EXPECT_EQ(a.call("/slow/again"), "/slow/again");
}

TEST(Zelvo, waiting_for_the_turn_to_call_counts_too) {
    const Bus bus{4, kTimeout};
    Node idle{bus, "idle", {}, false};
    Node a{bus, "a"};
    inThreads(4, [&](int) { EXPECT_EQ(a.call("/idle/x"), "null"); });
    EXPECT_EQ(a.call("/none/x"), kUnknown);
}

TEST(Zelvo, connect_that_times_out_leaves_nothing_behind) {
    Bus bus{4, kTimeout, false};
    EXPECT_EQ(Node(bus, "a").get(), nullptr);
    EXPECT_TRUE(says(bus.log(), "a call timeout, url: /bus/join"));
    bus.start(); // it handles the join now
    Node a{bus, "a"};
    EXPECT_EQ(a.call("/bus/nodes"), "{\n\t\"data\":\t[\"a\"]\n}");
}

TEST(Zelvo, nodes_may_leave_while_the_bus_stops) {
    for (int round = 0; round < 50; ++round) {
        Bus bus;
        std::vector<std::unique_ptr<Node>> nodes;
        for (const char *name : {"one", "two", "three"}) {
            nodes.push_back(std::make_unique<Node>(bus, name, Node::OnCall{}, round % 2 == 0));
        }
        std::thread stopper{[&] { bus.stop(); }};
        nodes.clear();
        stopper.join();
        bus.start(); // whoever it had not seen off is taken off now
        EXPECT_EQ(Node(bus, "one").call("/bus/nodes"), "{\n\t\"data\":\t[\"one\"]\n}");
    }
}

TEST(Zelvo, buses_with_one_home_never_tear_its_file) {
    const TempDir home;
    const std::string more = R"(,"persistSync":false,"homePath":")" + home.path() + '"';
    const Bus buses[] = {Bus{4, more}, Bus{4, more}};
    const std::string values[] = {std::string(50000, '1'), "2"};
    std::atomic<int> writing{2};
    inThreads(3, [&](int i) {
        if (i == 2) {
            while (writing > 0) {
                const std::string text = readFile(home.file("keys.json"));
                ASSERT_TRUE(text.empty() || text == "{\n\t\"k\":\t\"" + values[0] + "\"\n}" ||
                            text == "{\n\t\"k\":\t\"2\"\n}");
            }
            return;
        }
        Node node{buses[i], "node"};
        const std::string set =
            R"({"operation":"set","persist":"true","data":")" + values[i] + "\"}";
        for (int n = 0; n < 100; ++n) {
            EXPECT_EQ(node.call("/localKeys/k", set.data(), static_cast<int>(set.size())), kEmpty);
        }
        --writing;
    });
    EXPECT_EQ(entries(home.path()), 1);
}

TEST(Zelvo, counters_tell_what_became_of_messages) {
    EXPECT_EQ(Node(Bus{}, "a").call("/bus/stats"), kUnknown);
    const Bus bus{5, R"(,"stats":true)"};
    Node a{bus, "a"};
    {
        Node full{bus, "full", {}, false};
        busClientSubscribe(full.get(), R"(["t"])");
        for (int i = 0; i < 1030; ++i) {
            busClientPublish(a.get(), "t", nullptr, 0);
        }
        EXPECT_EQ(a.call("/full/x"), kUnknown);
        busClientSettimer(a.get(), nullptr, 1000000, 0, nullptr);
        const std::string stats = a.call("/bus/stats");
        for (const char *part : {
                 "\"name\":\t\"busServer\"",
                 "\"timers\":\t1",
                 "\"queueFull\":\t7", // six publications and the call
                 "\"depth\":\t1024,\n\t\t\t\t\t\"highest\":\t1024",
             }) {
            EXPECT_TRUE(says(stats, part)) << part << stats;
        }
    }
    const std::string stats = a.call("/bus/stats");
    const std::string left = stats.substr(stats.find("\"left\""));
    EXPECT_TRUE(says(left, "\"unread\":\t1024")) << stats;
    // joining and its subscription, another subscription, leaving
    EXPECT_TRUE(says(left, "\"made\":\t4")) << stats;
}

} // namespace
