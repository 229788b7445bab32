// The library as an application sees it: the public header, real threads.
#include "running.h"

#include <gtest/gtest.h>

#include <list>

namespace {

const std::string kEmpty = "{\"data\":\"\"}";
const std::string kUnknown = "{\"data\":\"not implement\"}";
const std::string kNoHandler = "{\"msg\":\"not implement\"}";

std::string joined(const std::string &name) {
    return R"(bus.event {"event":"join", "name": ")" + name + "\"}";
}

TEST(Zelvo, publication_arrives_whole_at_its_topic_alone_and_a_sticky_one_late) {
    const Bus bus;
    const std::string bytes("\0x\xff\0", 4);
    Node a{bus, "a"};
    a.subscribe(R"(["t.x","t","t",7,null])");
    {
        Node b{bus, "b2"};
        busClientPublish(b.get(), "t", nullptr, 5);
        busClientPublishSticky(b.get(), "s", "old", 3);
        busClientPublishSticky(b.get(), "s", bytes.data(), 4);
        for (const char *topic : {"T", "t.", "other", "t", "t.x"}) {
            b.publish(topic, bytes);
        }
    } // which the sticky message outlives
    a.subscribe(R"(["s"])");
    busClientRemoveSticky(a.get(), R"(["none",7,"s"])");
    busClientUnsubscribe(a.get(), R"(["none",7,"s"])");
    a.subscribe(R"(["s"])");
    a.publish("t");
    EXPECT_EQ(a.heard(6),
              (Texts{joined("b2"), "t null", "t " + bytes, "t.x " + bytes, "s " + bytes, "t "}));
}

TEST(Zelvo, call_is_answered_by_whom_its_address_names_and_refused_arguments_change_nothing) {
    const Bus bus;
    const auto answer = [](client_t *self, const std::string &url, const std::string &data) {
        if (url == "/to/ring") {
            return mallocText(busClientCall(self, "/a/x", nullptr, 0));
        }
        return url == "/to/none" ? nullptr : mallocText(url + "=" + data);
    };
    const Node to{bus, "to", answer};
    const Node bus2{bus, "bus2", answer};
    Node silent{bus, "silent\""};
    silent.subscribe(R"(["bus.error"])");
    Node a{bus, "a"};
    const std::string path = "/to/" + std::string(70000, 'p');
    const std::string all = "{\n\t\"data\":\t[\"to\", \"bus2\", \"silent\\\"\", \"a\"]\n}";
    const std::pair<std::string, Texts> kCases[] = {
        {"/to/x=null", {"/to/x"}},
        {path + "=null", {path}},
        {"/bus2/nodes=null", {"/bus2/nodes"}},
        {kNoHandler, {"/to/none", "/silent\"/x"}},
        {kUnknown,
         {"/gone/x", "no address", "/bus", "/" + std::string(128, 'h') + "/x", "/bus/joinx",
          "/bus/join/x", "/bus/stats"}},
        {all, {"/bus/nodes", "/b/nodes/list"}},
        {"", {"/bus/"}},
        {kEmpty,
         {"/bus/join", "/bus/subscribeAll", "/bus/unsubscribe", "/local/x", "/a/x", "/to/ring"}},
        {R"({"event":"disjoin", "name":"a"})", {"/bus/disjoin"}},
        {"null", {"/bus/nodes"}}, // nobody of that name to hand an answer to
        {kEmpty, {"/bus/join"}},
        {all, {"/bus/nodes"}}};
    for (const auto &[text, urls] : kCases) {
        for (const std::string &url : urls) {
            EXPECT_EQ(a.call(url), text) << url;
        }
    }
    EXPECT_EQ(a.call("/to/x", "ab"), "/to/x=ab");
    EXPECT_EQ(silent.heard(3).at(2), // of the second of two rings
              R"(bus.error {"errId":10001, "errMsg": "bus server deadlock, )"
              R"(due to appearing R call A & A call R"})");

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
    const char *const kept = busClientCall(a.get(), "/nobody/x", nullptr, 0);
    EXPECT_EQ(busClientCall(none, "/a/x", nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), "/a/x", "x", -1), nullptr);
    EXPECT_EQ(kept, kUnknown); // it stays until the next call is posted
    for (const int result : {busClientSpin(none), busClientSpinExit(none), busClientClose(none),
                             busClientBindServer(nullptr), busClientServerExit(nullptr),
                             busClientDelete(nullptr), busClientKilltimer(none, 2),
                             busClientSubscribe(a.get(), "[]"), busClientBindServer(bus.get())}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_EQ(a.call("/bus/nodes"), all);
    EXPECT_EQ(count(bus.log(), "  Vek-client  params format error\n"), 5U);
}

TEST(Zelvo, full_queues_refuse_and_counters_tell_what_became_of_messages) {
    Bus bus{4, R"(,"stats":true)"};
    Node a{bus, "a", {}, false};
    Node full{bus, "full", {}, false};
    full.subscribe(R"(["t"])");
    for (int i = 0; i < 1030; ++i) {
        a.publish("t");
    }
    EXPECT_EQ(a.call("/full/x"), kUnknown);
    busClientSettimer(a.get(), nullptr, 1000000, 0, nullptr);
    busClientSpinExit(a.get());
    busClientSpinExit(full.get());
    bus.stop();
    for (int i = 0; i < 2048; ++i) {
        a.publish("u");
    }
    EXPECT_EQ(busClientPublish(a.get(), "u", nullptr, 0) +
                  busClientPublishSticky(a.get(), "u", nullptr, 0) +
                  busClientRemoveSticky(a.get(), "[]"),
              0);
    EXPECT_EQ(a.call("/bus/nodes"), "null");
    EXPECT_EQ(Node(bus, "lost").call("/a/x"), "null"); // is not kept waiting
    bus.exit();                                        // gets in all the same
    EXPECT_EQ(count(bus.log(), "queue is full"), 15U);
    bus.start();
    bus.join();
    bus.start();
    std::string stats = a.call("/bus/stats");
    std::erase_if(stats, [](char c) { return c == '\t' || c == '\n'; });
    const std::string ofA =
        R"("name":"a","taken":0,"sent":3082,"drops":{"queueFull":0,"busFull":4,"ownFull":0,)"
        R"("noMemory":0,"lateAnswer":0,"unread":0},"calls":{"made":5,"answered":3,"refused":1,)"
        R"("timedOut":0,"givenUp":0},"queue":{"depth":2,"highest":2},"timers":1})";
    const std::string ofFull =
        R"("name":"full","taken":0,"sent":3,"drops":{"queueFull":7,"busFull":0,"ownFull":1,)";
    EXPECT_TRUE(says(stats, ofA) && says(stats, ofFull)) << stats;
}

TEST(Zelvo, full_registry_and_full_sticky_store_refuse_and_say_so) {
    const Bus bus{3, R"(,"stats":true)"};
    std::list<Node> all;
    for (int i = 0; i < 2048; ++i) {
        const std::string name = "n" + std::to_string(i);
        Node &node = all.emplace_back(bus, name, Node::OnCall{}, false);
        busClientUnsubscribe(node.get(), R"(["bus.event"])");
        busClientPublishSticky(node.get(), name.c_str(), nullptr, 0);
    }
    EXPECT_EQ(Node(bus, "extra").get(), nullptr);
    busClientPublishSticky(all.back().get(), "t", nullptr, 0);
    EXPECT_TRUE(says(all.back().call("/bus/stats"), "\"stickyFull\":\t1"));
    EXPECT_TRUE(says(bus.log(), "extra join failed, registry is full\n"));
    EXPECT_FALSE(says(bus.log(), "sticky"));
    all.pop_back();
    EXPECT_NE(Node(bus, "extra").get(), nullptr);
}

} // namespace
