// The library as an application sees it: the public header, real threads.
#include "running.h"

#include <gtest/gtest.h>

#include <list>

const std::string kUnknown = "{\"data\":\"not implement\"}";

TEST(Zelvo, calls_and_publications_reach_whom_they_name_and_refused_arguments_change_nothing) {
    const Bus bus;
    const Node bus2{bus, "bus2", [](client_t *, const std::string &url, const std::string &data) {
                        return url == "/bus2/none" ? nullptr : mallocText(url + "=" + data);
                    }};
    Node a{bus, "a"};
    Node b{bus, "b\""};
    const std::string path = "/bus2/" + std::string(70000, 'p');
    const std::string all = "{\n\t\"data\":\t[\"bus2\", \"b\\\"\", \"a\"]\n}";
    const std::pair<std::string, Texts> kCases[] = {
        {R"({"event":"disjoin", "name":"a"})", {"/bus/disjoin"}},
        {"null", {"/bus/nodes"}}, // nobody of that name to hand an answer to
        {R"({"data":""})",
         {"/bus/join", "/bus/subscribeAll", "/bus/unsubscribe", "/local/x", "/a/x"}},
        {"/bus2/nodes=null", {"/bus2/nodes"}},
        {path + "=null", {path}},
        {"{\"msg\":\"not implement\"}", {"/bus2/none", "/b\"/x"}},
        {kUnknown, {"/gone/x", "no address", "/bus", "/bus/x", "/bus/join/x", "/bus/stats"}},
        {all, {"/bus/nodes", "/b/nodes/list"}},
        {"", {"/bus/"}}};
    for (const auto &[text, urls] : kCases) {
        for (const std::string &url : urls) {
            EXPECT_EQ(a.call(url), text) << url;
        }
    }
    a.subscribe(R"([7,null,"t"])");
    b.publish("t");
    EXPECT_EQ(a.heard(2), (Texts{R"(bus.event {"event":"join", "name": "b\""})", "t "}));

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
    const char *const kept = busClientCall(a.get(), "/bus2/x", "ab", 2);
    EXPECT_EQ(busClientCall(none, "/a/x", nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(busClientCall(a.get(), "/a/x", "x", -1), nullptr);
    EXPECT_STREQ(kept, "/bus2/x=ab"); // it stays until the next call is posted
    for (const int result : {busClientSpin(none), busClientSpinExit(none), busClientClose(none),
                             busClientBindServer(nullptr), busClientServerExit(nullptr),
                             busClientDelete(nullptr), busClientKilltimer(none, 2),
                             busClientSubscribe(a.get(), "[]"), busClientBindServer(bus.get())}) {
        EXPECT_EQ(result, 0);
    }
    EXPECT_EQ(a.call("/bus/nodes"), all);
    EXPECT_EQ(count(bus.log(), "  Vek-client  params format error\n"), 5U);
    EXPECT_EQ(count(bus.log(), " failed\n"), 0U);
}

TEST(Zelvo, what_a_timer_sets_waits_for_the_message_that_is_there) {
    static std::string order;
    struct Ring {
        static int run(void *, client_t *client, int left) {
            order += 't';
            return left > 0 ? busClientSettimer(client, run, 0, left - 1, nullptr) : 0;
        }
    };
    const auto hear = [](void *, client_t *, char *, char *, int) { return order += 'M', 0; };
    const Bus bus;
    Node a{bus.get(), "a", hear, nullptr, nullptr, false}; // and hears of the others
    const Node b{bus, "b"}, c{bus, "c"};
    busClientSettimer(a.get(), Ring::run, 0, 9, nullptr);
    std::thread spin{busClientSpin, a.get()};
    b.call("/a/x"); // is answered behind that
    busClientSpinExit(a.get());
    spin.join();
    EXPECT_TRUE(order.starts_with("MtMt")) << order;
}

TEST(Zelvo, what_is_full_refuses_and_counters_tell_what_became_of_messages) {
    Bus bus{4, R"(,"stats":true)"};
    for (const std::string &name : Texts{"b", "localKeys", "a/b", "", std::string(128, 'n'), "bus2",
                                         "Bus", "/x", std::string(127, 'n')}) {
        EXPECT_NE(Node(bus, name).get(), nullptr);
    }
    EXPECT_EQ(count(bus.log(), " cannot be called by this name\n"), 5U);
    std::list<Node> all;
    for (int i = 0; i < 2048; ++i) {
        const std::string name = "n" + std::to_string(i);
        Node &node = all.emplace_back(bus, name, Node::OnCall{}, false);
        busClientUnsubscribe(node.get(), R"(["bus.event"])");
        busClientPublishSticky(node.get(), name.c_str(), nullptr, 0);
    }
    EXPECT_EQ(Node(bus, "extra").get(), nullptr);
    EXPECT_TRUE(says(bus.log(), "extra join failed, registry is full\n"));

    Node &a = all.front();
    Node &full = all.back();
    full.subscribe(R"(["t"])");
    for (int i = 0; i < 1030; ++i) {
        busClientPublishSticky(a.get(), "t", nullptr, 0);
    }
    EXPECT_EQ(a.call("/n2047/x"), kUnknown);
    busClientSpinExit(a.get());
    busClientSpinExit(full.get());
    bus.stop();
    for (int i = 0; i < 2048; ++i) {
        a.publish("u");
    }
    EXPECT_EQ(a.call("/bus/nodes"), "null");
    EXPECT_EQ(Node(bus, "lost").call("/a/x"), "null"); // is not kept waiting
    EXPECT_EQ(count(bus.log(), "queue is full"), 12U);
    for (int id = 2; id <= 32767; ++id) { // that of a refused one too
        EXPECT_EQ(busClientSettimer(a.get(), nullptr, 1000000, 0, nullptr), id);
    }
    EXPECT_EQ(busClientSettimer(a.get(), nullptr, 1000000, 0, nullptr), 2);
    bus.start();
    bus.stop(); // behind all of it
    bus.start();
    std::string stats = a.call("/bus/stats");
    std::erase_if(stats, [](char c) { return c == '\t' || c == '\n'; });
    for (const char *told :
         {R"({"data":{"server":{"name":"busServer","taken":)", R"("stickyFull":1030)",
          R"("name":"n0","taken":0,"sent":3084,"drops":{"queueFull":0,"busFull":1,"ownFull":31743,)"
          R"("noMemory":0,"lateAnswer":0,"unread":0},"calls":{"made":6,"answered":4,"refused":1,)"
          R"("timedOut":0,"givenUp":0},"queue":{"depth":1,"highest":1},"timers":1024})",
          R"("name":"n2047","taken":0,"sent":5,"drops":{"queueFull":7,"busFull":0,"ownFull":1,)"}) {
        EXPECT_TRUE(says(stats, told)) << told << stats.substr(0, 1000);
    }
}
