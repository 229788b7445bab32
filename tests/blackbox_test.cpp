// The library as an application sees it: the public header, real threads.
#include "running.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

namespace {

const std::string kEmpty = "{\"data\":\"\"}";
const std::string kUnknown = "{\"data\":\"not implement\"}";
const std::string kNoHandler = "{\"msg\":\"not implement\"}";
constexpr char kOneSecond[] = R"(,"callTimeout":1000)";

// The answer of "/bus/nodes".
std::string nodes(const std::string &quotedNames) {
    return "{\n\t\"data\":\t[" + quotedNames + "]\n}";
}

TEST(Zelvo, publication_arrives_whole_and_in_order_at_its_topic_alone) {
    const Bus bus{1};
    Node a{bus, "a"};
    Node b{bus, "b2"};
    a.subscribe(R"(["t","t.x","t",7,null])");
    b.subscribe(R"(["other"])");
    busClientUnsubscribe(b.get(), R"(["other","never"])");
    const std::string bytes("\0x\xff\0", 4);
    for (const char *topic : {"T", "t.", "other", "t", "t.x"}) {
        b.publish(topic, bytes);
    }
    busClientPublish(b.get(), "t", nullptr, 5);
    a.publish("t", std::string(300, 'x'));
    EXPECT_EQ(a.heard(5), (Texts{R"(bus.event {"event":"join", "name": "b2"})", "t " + bytes,
                                 "t.x " + bytes, "t null", "t " + std::string(300, 'x')}));
    EXPECT_EQ(b.heard(0), Texts{});
    for (const char *line : {"a already subscribe topic t", "b2 already unsubscribe topic never",
                             "action: publish, topic: T,  url: NULL, payload: , payload len: 4",
                             "requestor: NULL, payload:BinaryData..., payload len: 300",
                             "a onmessage func end", "b2 publish end, topic: t.x"}) {
        EXPECT_TRUE(bus.logs(line)) << line;
    }
}

TEST(Zelvo, sticky_state_arrives_late_until_it_is_replaced_or_removed) {
    const Bus bus;
    Node now{bus, "now"};
    now.subscribe(R"(["s"])");
    {
        Node publisher{bus, "publisher", {}, false};
        for (const char *state : {"old", "new"}) {
            busClientPublishSticky(publisher.get(), "s", state, 3);
        }
    } // which the message outlives
    Node late{bus, "late"};
    late.subscribe(R"(["s"])");
    late.subscribe(R"(["s"])"); // no second replay
    busClientRemoveSticky(late.get(), R"(["s","none"])");
    Node later{bus, "later"};
    later.subscribe(R"(["s"])");
    later.publish("s", "live");
    const std::string joined = R"(bus.event {"event":"join", "name": ")";
    EXPECT_EQ(now.heard(6), (Texts{joined + "publisher\"}", "s old", "s new", joined + "late\"}",
                                   joined + "later\"}", "s live"}));
    EXPECT_EQ(late.heard(3), (Texts{"s new", joined + "later\"}", "s live"}));
    EXPECT_EQ(later.heard(1), Texts{"s live"});
    EXPECT_TRUE(bus.logs("publisher remove old then add new payload, topic s\n"));
    EXPECT_TRUE(bus.logs("late already removeSticky topic none\n"));
}

TEST(Zelvo, call_is_answered_by_whom_its_address_names) {
    const Bus bus;
    std::thread::id answeredBy;
    const auto echo = [&](client_t *, const std::string &url, const std::string &data) {
        answeredBy = std::this_thread::get_id();
        return url == "/target/none" ? nullptr : mallocText(url + "=" + data);
    };
    const Node target{bus, "target", echo};
    const Node bus2{bus, "bus2", echo};
    const Node silent{bus, "silent\""};
    Node a{bus, "a"};
    const std::string path = "/target/" + std::string(70000, 'p');
    const std::string all = nodes(R"("target", "bus2", "silent\"", "a")");
    const struct {
        std::string url, answer;
    } kCases[] = {{"/target/x", "/target/x=null"},
                  {path, path + "=null"},
                  {"/target/none", kNoHandler},
                  {"/silent\"/x", kNoHandler},
                  {"/gone/x", kUnknown},
                  {"no address", kUnknown},
                  {"/bus", kUnknown},
                  {"/" + std::string(128, 'h') + "/x", kUnknown},
                  {"/bus2/nodes", "/bus2/nodes=null"},
                  {"/bus/nodes", all},
                  {"/b/nodes/list", all},
                  {"/bus/", ""},
                  {"/bus/join", kEmpty},
                  {"/bus/joinx", kUnknown},
                  {"/bus/join/x", kUnknown},
                  {"/bus/subscribeAll", kEmpty},
                  {"/bus/unsubscribe", kEmpty},
                  {"/bus/stats", kUnknown},
                  {"/local/x", kEmpty},
                  {"/a/x", kEmpty}};
    for (const auto &c : kCases) {
        EXPECT_EQ(a.call(c.url), c.answer) << c.url;
    }
    EXPECT_EQ(a.call("/target/x", "ab"), "/target/x=ab");
    EXPECT_NE(answeredBy, std::this_thread::get_id());
    EXPECT_EQ(a.call("/bus/disjoin"), R"({"event":"disjoin", "name":"a"})");
    EXPECT_EQ(a.call("/bus/nodes"), "null"); // nobody of that name to hand an answer to
    EXPECT_EQ(a.call("/bus/join"), kEmpty);
    EXPECT_EQ(a.call("/bus/nodes"), all);
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
    const char *const answer = busClientCall(a.get(), "/nobody/x", nullptr, 0);
    EXPECT_EQ(busClientCall(none, "/a/x", nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), "/a/x", "x", -1), nullptr);
    EXPECT_EQ(answer, kUnknown); // it stays until the next call is posted
    for (const int result : {busClientSpin(none), busClientSpinExit(none), busClientClose(none),
                             busClientBindServer(nullptr), busClientServerExit(nullptr),
                             busClientDelete(nullptr), busClientKilltimer(none, 2),
                             busClientSubscribe(a.get(), "[]"), busClientBindServer(bus.get())}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_EQ(a.call("/bus/nodes"), nodes("\"a\""));
    EXPECT_TRUE(bus.logs("  Vek-server server is running\n"));
    EXPECT_TRUE(bus.logs("  Vek-client a already exist\n"));
    EXPECT_EQ(count(bus.log(), "  Vek-client  params format error\n"), 5U);
}

TEST(Zelvo, exit_overtakes_publications_and_waiting_requests_are_answered) {
    const Bus bus{2};
    Signal inside;
    Signal release;
    Node busy{bus, "busy", [&](client_t *, const std::string &url, const std::string &) {
                  if (url == "/busy/hold") {
                      inside.set();
                      release.wait();
                  }
                  return mallocText("answered");
              }};
    auto idle = std::make_unique<Node>(bus, "idle", Node::OnCall{}, false);
    busy.subscribe(R"(["t"])");
    Node a{bus, "a"};
    Node c{bus, "c"};
    Node e{bus, "e"};
    std::string answers[3];
    std::thread holder{[&] { answers[0] = a.call("/busy/hold"); }};
    inside.wait();
    c.publish("t", "never heard");
    std::thread waiter{[&] { answers[1] = c.call("/busy/next"); }};
    std::thread idler{[&] { answers[2] = e.call("/idle/x"); }};
    bus.waitForLog("c call busy, target: c");
    bus.waitForLog("e call idle, target: e");
    const Node probe{bus, "probe"}; // handled behind those requests, which have been forwarded then
    busClientSpinExit(busy.get());
    busClientSpinExit(busy.get()); // one leave, the second waits for the close
    release.set();
    busy.leave();
    idle.reset(); // it never ran
    for (std::thread *const thread : {&holder, &waiter, &idler}) {
        thread->join();
    }
    EXPECT_EQ(answers[0] + answers[1] + answers[2], "answeredanswered" + kNoHandler);
    EXPECT_EQ(a.call("/busy/x"), kUnknown);
    EXPECT_EQ(busy.call("/a/x"), "null");
    busy.publish("t"); // one that has left still publishes
    for (const std::string &text : busy.heard(0)) {
        EXPECT_FALSE(says(text, "never heard"));
    }
}

TEST(Zelvo, ring_of_calls_is_refused_with_a_notice) {
    const Bus bus;
    Node watcher{bus, "watcher"};
    watcher.subscribe(R"(["bus.error"])");
    const auto callOn = [](client_t *self, const std::string &url, const std::string &) {
        const char *const text = busClientCall(self, url == "/q/x" ? "/r/x" : "/p/x", nullptr, 0);
        return mallocText(text ? text : "null");
    };
    Node p{bus, "p"};
    const Node q{bus, "q", callOn};
    const Node r{bus, "r", callOn};
    EXPECT_EQ(p.call("/q/x"), kEmpty);
    EXPECT_EQ(watcher.heard(4).back(),
              R"(bus.error {"errId":10001, "errMsg": "bus server deadlock, )"
              R"(due to appearing R call A & A call R"})");
}

// Guards what happens at one time.
TEST(Zelvo, name_is_had_by_one_of_two_and_a_node_that_leaves_is_not_joined_again) {
    const Bus bus{6};
    for (int round = 0; round < 100; ++round) {
        std::unique_ptr<Node> both[2];
        inThreads(2, [&](int i) { both[i] = std::make_unique<Node>(bus, "name"); });
        ASSERT_NE(both[0]->get() != nullptr, both[1]->get() != nullptr) << round;
        Node &node = *both[both[0]->get() ? 0 : 1];
        EXPECT_EQ(node.call("/bus/nodes"), nodes("\"name\""));
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
        EXPECT_EQ(Node(bus, "watcher").call("/bus/nodes"), nodes("\"watcher\"")) << round;
    }
}

TEST(Zelvo, full_bus_refuses_and_says_so) {
    Bus bus;
    Node a{bus, "a", {}, false};
    bus.stop();
    for (int i = 0; i < 2048; ++i) {
        a.publish("t");
    }
    EXPECT_FALSE(bus.logs("queue is full"));
    EXPECT_EQ(busClientPublish(a.get(), "t", nullptr, 0), 0);
    EXPECT_EQ(busClientPublishSticky(a.get(), "t", nullptr, 0), 0);
    EXPECT_EQ(busClientRemoveSticky(a.get(), "[]"), 0);
    EXPECT_EQ(a.call("/bus/nodes"), "null");
    // A node whose join was lost is not on the bus, and is not kept waiting on it.
    Node lost{bus, "lost"};
    EXPECT_EQ(lost.call("/a/x"), "null");
    bus.exit(); // gets in all the same
    for (const char *line : {"a ==> server publish failed, topic: t, queue is full",
                             "a ==> server publishSticky failed, topic: t, queue is full",
                             "a ==> server removeSticky failed, data: [], queue is full",
                             "a ==> server call failed, url: /bus/nodes, queue is full",
                             "lost ==> server call failed, url: /bus/join, queue is full"}) {
        EXPECT_TRUE(bus.logs(line)) << line;
    }
    bus.start();
    bus.join();
    bus.start();
    while (lost.call("/bus/join") != kEmpty) {
        std::this_thread::yield();
    }
    EXPECT_EQ(lost.call("/bus/nodes"), nodes(R"("a", "lost")"));
    const Node other{bus, "other"};
    EXPECT_EQ(lost.heard(1), Texts{R"(bus.event {"event":"join", "name": "other"})"});
}

TEST(Zelvo, call_ends_at_its_time_limit_and_its_late_answer_disturbs_none) {
    const Bus bus{4, kOneSecond};
    Signal asked;
    Signal goOn;
    const Node slow{bus, "slow", [&](client_t *, const std::string &url, const std::string &) {
                        if (url == "/slow/wait") {
                            asked.set();
                            goOn.wait();
                        }
                        return mallocText(url);
                    }};
    const Node idle{bus, "idle", {}, false};
    Node a{bus, "a"};
    Node b{bus, "b2"};
    inThreads(4, [&](int i) { // three wait for their turn, which counts
        EXPECT_EQ(i == 0 ? b.call("/slow/wait") : a.call("/idle/x"), "null");
    });
    EXPECT_TRUE(bus.logs("a call timeout, url: /idle/x"));
    EXPECT_EQ(a.call("/none/x"), kUnknown);
    EXPECT_TRUE(asked.wait());
    const char *const kept = busClientCall(b.get(), "/localKeys/none", "{}", 2);
    goOn.set(); // the late answer comes while kept is read
    Node other{bus, "other"};
    while (other.call("/slow/now") != "/slow/now") {}
    EXPECT_EQ(kept, kEmpty);
    EXPECT_EQ(b.call("/slow/again"), "/slow/again");
}

TEST(Zelvo, connect_has_one_time_limit_for_both_of_its_steps) {
    Bus bus{2, kOneSecond, false};
    EXPECT_EQ(Node(bus, "none").get(), nullptr);
    EXPECT_TRUE(bus.logs("none call timeout, url: /bus/join"));
    std::chrono::steady_clock::time_point returned;
    std::unique_ptr<Node> late;
    std::thread joiner{[&] {
        late = std::make_unique<Node>(bus, "late", Node::OnCall{}, false);
        returned = std::chrono::steady_clock::now();
    }};
    bus.waitForLog("Vek-client late connect begin");
    bus.waitForLog("late ==> busServer,  action: request");
    bus.exit(); // behind the join
    bus.start();
    bus.join();
    bus.exit(); // behind the answer; the subscription finds nobody
    std::this_thread::sleep_for(std::chrono::milliseconds{700});
    const auto joined = std::chrono::steady_clock::now();
    bus.start();
    joiner.join();
    bus.join();
    ASSERT_TRUE(late->get());
    EXPECT_LT(returned - joined, std::chrono::milliseconds{1000});
    EXPECT_TRUE(bus.logs("late call timeout, url: /bus/subscribe"));
    bus.start();
    EXPECT_EQ(late->call("/bus/nodes"), nodes("\"late\"")); // nothing is left of the first
}

// Guards a leave that meets the end of the loop, and the destruction of a bus that runs.
TEST(Zelvo, nodes_may_leave_while_the_bus_stops) {
    for (int round = 0; round < 50; ++round) {
        Bus bus;
        std::vector<std::unique_ptr<Node>> all;
        for (const char *name : {"one", "two", "three"}) {
            all.push_back(std::make_unique<Node>(bus, name, Node::OnCall{}, round % 2 == 0));
        }
        std::thread stopper{[&] { bus.stop(); }};
        all.clear();
        stopper.join();
        EXPECT_FALSE(bus.logs("call timeout")); // none is configured
        bus.start();                            // whoever it had not seen off is taken off now
        EXPECT_EQ(Node(bus, "one").call("/bus/nodes"), nodes("\"one\""));
    }
}

TEST(Zelvo, counters_tell_what_became_of_messages) {
    const Bus bus{5, R"(,"stats":true)"};
    Node a{bus, "a", {}, false};
    Node full{bus, "full", {}, false};
    full.subscribe(R"(["t"])");
    for (int i = 0; i < 1030; ++i) {
        a.publish("t");
    }
    EXPECT_EQ(a.call("/full/x"), kUnknown);
    busClientSettimer(a.get(), nullptr, 1000000, 0, nullptr);
    busClientSpinExit(full.get());
    std::string stats = a.call("/bus/stats");
    std::erase_if(stats, [](char c) { return c == '\t' || c == '\n'; });
    for (const char *part :
         {R"("name":"busServer","taken":1043,"sent":1025,"posted":6,"drops":{"queueFull":0,)"
          R"("noMemory":0,"noAddressee":0,"stickyFull":0},"queue":{"depth":0,)",
          R"("name":"a","taken":0,"sent":1034,"drops":{"queueFull":0,"busFull":0,"ownFull":0,)"
          R"("noMemory":0,"lateAnswer":0,"unread":0},"calls":{"made":4,"answered":3,"refused":0,)"
          R"("timedOut":0,"givenUp":0},"queue":{"depth":1,"highest":1},"timers":1})",
          R"("name":"full","taken":0,"sent":3,"drops":{"queueFull":7,"busFull":0,"ownFull":1,)"}) {
        EXPECT_TRUE(says(stats, part)) << part << stats;
    }
    full.close();
    stats = a.call("/bus/stats");
    EXPECT_TRUE(says(stats.substr(stats.find("\"left\"")), "\"unread\":\t1024")) << stats;
}

} // namespace
