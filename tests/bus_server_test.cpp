#include "server_fixture.h"

#include "bus_client/internal.h"

#include <cstring>
#include <utility>

namespace bus {
namespace {

const std::string kEmpty{kEmptyAnswer};
const std::string kUnknown = R"({"data":"not implement"})";

TEST_F(Server, loop_stops_at_the_exit_and_leaves_the_rest) {
    client_t &a = join("a");
    ask(a, "/bus/subscribe", R"(["t"])");
    publish(a, "t", "1");
    busServerExit(server_);
    publish(a, "t", "2");
    EXPECT_EQ(busServerRun(server_), 0);
    EXPECT_EQ(taken(a), Texts{"publish t 1"});
    EXPECT_EQ(bus_mk_q_count(server_->message_queue), 1);
    run();
    EXPECT_EQ(taken(a), Texts{"publish t 2"});
    EXPECT_EQ(busServerRun(nullptr), -1);
}

TEST_F(Server, broken_messages_are_dropped_with_a_line) {
    startLog(1);
    post("a", nullptr, nullptr, nullptr, nullptr, kNoRequest);
    post(nullptr, nullptr, nullptr, action::kPublish, nullptr, kNoRequest);
    post("a", nullptr, nullptr, "dance", nullptr, kNoRequest);
    post("a", nullptr, nullptr, action::kRequest, nullptr, "a");
    post("a", nullptr, nullptr, action::kPublishSticky, nullptr, kNoRequest);
    post("a", nullptr, nullptr, action::kResponse, nullptr, nullptr);
    run();
    const std::string text = log();
    const std::string line = "  Vek-server message body not action | name\n";
    EXPECT_GE(::count(text, line), 2U) << text;
    EXPECT_TRUE(says(text, "  Vek-server not implement\n")) << text;
}

TEST_F(Server, bus_service_paths) {
    client_t &a = join("a");
    join("node\"2");
    const std::string nodes = "{\n\t\"data\":\t[\"a\", \"node\\\"2\"]\n}";
    const std::pair<const char *, std::string> kCases[] = {
        {"/bus/join", kEmpty},        {"/bus/joinx", kUnknown},
        {"/bus/join/x", kUnknown},    {"/bus/subscribeAll", kEmpty},
        {"/bus/unsubscribe", kEmpty}, {"/bus/nodes/list", nodes},
        {"/b/nodes", nodes},          {"/bus/", ""},
        {"/bus", kUnknown},           {"/bus2/nodes", kUnknown},
        {"/local/x", kEmpty},         {"/nobody/x", kUnknown}};
    for (const auto &[url, wanted] : kCases) {
        EXPECT_EQ(ask(a, url), wanted) << url;
    }
    EXPECT_EQ(ask(a, "/bus/disjoin"), R"({"event":"disjoin", "name":"a"})");
    EXPECT_EQ(server_->directory.find("a"), nullptr);
    EXPECT_EQ(bus_mk_q_count(server_->nodes_queue), 1);
    EXPECT_EQ(ask(a, "/bus/nodes"), "-"); // nobody of that name to hand it to
    join("a");
}

TEST_F(Server, second_record_of_a_name_is_refused_and_the_first_notices_nothing) {
    client_t &first = join("twin");
    forget(first);
    client_t &second = record("twin");
    EXPECT_EQ(ask(second, "/bus/join"), "null");
    EXPECT_FALSE(second.registered);
    EXPECT_EQ(answerOf(first), "-");
    EXPECT_EQ(server_->directory.find("twin")->node, &first);
    EXPECT_EQ(ask(first, "/bus/join"), kEmpty);
    EXPECT_EQ(bus_mk_q_count(server_->nodes_queue), 1);
}

TEST_F(Server, full_registry_refuses_the_join) {
    std::vector<client_t *> nodes;
    for (int i = 0; i < kServerQueue; ++i) {
        nodes.push_back(&record(("n" + std::to_string(i)).c_str()));
        request(*nodes.back(), "/bus/join");
        if (i % 500 == 0) {
            run();
        }
    }
    run();
    client_t &extra = record("extra");
    startLog(4);
    EXPECT_EQ(ask(extra, "/bus/join"), "null");
    EXPECT_TRUE(says(log(), "  Vek-server extra join failed, registry is full\n"));
    EXPECT_EQ(server_->directory.find("extra"), nullptr);
    ask(*nodes.front(), "/bus/disjoin");
    EXPECT_EQ(ask(extra, "/bus/join"), kEmpty);
}

TEST_F(Server, publication_goes_to_exact_topics_in_join_order) {
    client_t &a = join("a");
    client_t &b = join("b2");
    client_t &c = join("c");
    ask(c, "/bus/subscribe", R"(["x","x.y",7,null])");
    ask(a, "/bus/subscribe", R"(["x","x"])");
    ask(b, "/bus/subscribe", R"({"x":1})");
    const auto &subscribers = server_->directory.topic("x")->subscribers;
    ASSERT_EQ(subscribers.size(), 2U);
    EXPECT_EQ(subscribers[0]->node, &a); // c subscribed first
    EXPECT_EQ(subscribers[1]->node, &c);
    for (const char *topic : {"x", "x.y", "X", "x.y.z", "x."}) {
        publish(a, topic, topic);
    }
    run();
    EXPECT_EQ(taken(a), Texts{"publish x x"}); // its own publication
    EXPECT_EQ(taken(b), Texts{});
    EXPECT_EQ(taken(c), (Texts{"publish x x", "publish x.y x.y"}));
    ask(c, "/bus/unsubscribe", R"(["x","unknown"])");
    publish(a, "x", "again");
    run();
    EXPECT_EQ(taken(c), Texts{});
    ask(a, "/bus/disjoin");
    EXPECT_EQ(server_->directory.topic("x"), nullptr);
}

TEST_F(Server, sticky_message_is_replayed_replaced_and_removed) {
    client_t &a = join("a");
    client_t &late = join("late");
    ask(a, "/bus/subscribe", R"(["s"])");
    publish(a, "s", "old", action::kPublishSticky);
    startLog(4);
    publish(a, "s", "new", action::kPublishSticky);
    run();
    EXPECT_TRUE(says(log(), "  Vek-server a remove old then add new payload, topic s\n"));
    EXPECT_EQ(taken(a), (Texts{"publish s old", "publish s new"}));
    ask(a, "/bus/disjoin"); // the message outlives its publisher
    ask(late, "/bus/subscribe", R"(["s"])");
    EXPECT_EQ(taken(late), Texts{"publish s new"});
    ask(late, "/bus/subscribe", R"(["s"])"); // subscribed already: no second replay
    ask(late, "/bus/unsubscribe", R"(["s"])");
    publish(late, nullptr, R"(["s"])", action::kRemoveSticky);
    ask(late, "/bus/subscribe", R"(["s"])");
    EXPECT_EQ(taken(late), Texts{});
    EXPECT_EQ(bus_mk_q_count(server_->sticky_queue), 0);
    startLog(4);
    publish(late, nullptr, R"(["s"])", action::kRemoveSticky);
    run();
    EXPECT_TRUE(says(log(), "  Vek-server late already removeSticky topic s\n"));
}

TEST_F(Server, full_sticky_store_keeps_no_more_and_says_so) {
    client_t &a = join("a");
    startLog(2);
    for (int i = 0; i <= kServerQueue; ++i) {
        publish(a, std::to_string(i).c_str(), "x", action::kPublishSticky);
        if (i % 500 == 0) {
            run();
        }
    }
    run();
    EXPECT_TRUE(says(log(), "  Vek-server a sticky topic 2048 not kept, store is full\n"));
    EXPECT_EQ(bus_mk_q_count(server_->sticky_queue), kServerQueue);
    EXPECT_EQ(server_->counters.sticky_full, 1U);
}

TEST_F(Server, full_node_loses_its_copy_alone) {
    client_t &full = join("full");
    client_t &other = join("other");
    for (client_t *node : {&full, &other}) {
        ask(*node, "/bus/subscribe", R"(["t"])");
    }
    fill(full.message_queue);
    startLog(4);
    publish(other, "t", "1");
    EXPECT_EQ(ask(other, "/full/x"), kUnknown);
    const std::string text = log();
    for (const char *what : {"pusblish topic t", "request"}) {
        EXPECT_TRUE(
            says(text, std::string{"server ==> full "} + what + " failed, queue is full\n"));
    }
    EXPECT_EQ(taken(other), Texts{"publish t 1"});
    EXPECT_EQ(bus_mk_q_count(full.message_queue), kClientQueue);
}

TEST_F(Server, request_is_forwarded_and_the_answer_comes_back_by_name) {
    client_t &a = join("a");
    client_t &target = join("target");
    EXPECT_EQ(ask(a, "/target/deep/path", "data"), "-");
    EXPECT_STREQ(a.call_name.data(), "target");
    EXPECT_EQ(taken(target), Texts{"request /target/deep/path data"});
    // What a node answers never takes its caller off the bus.
    const std::string text = R"({"event":"disjoin"})";
    post("target", nullptr, "/bus/disjoin", action::kResponse, &target, "a", &text);
    run();
    EXPECT_EQ(answerOf(a), text);
    EXPECT_STREQ(a.call_name.data(), "");
    EXPECT_NE(server_->directory.find("a"), nullptr);
}

TEST_F(Server, call_that_closes_a_ring_is_refused) {
    for (const int size : {1, 2, 3, 7}) {
        std::vector<client_t *> ring;
        for (int i = 0; i < size; ++i) {
            ring.push_back(&join(("r" + std::to_string(size) + std::to_string(i)).c_str()));
        }
        client_t &watcher = join(("watcher" + std::to_string(size)).c_str());
        ask(watcher, "/bus/subscribe", R"(["bus.error"])");
        for (std::size_t i = 0; i < ring.size(); ++i) {
            const std::string next = ring[(i + 1) % ring.size()]->name.get();
            const bool last = i + 1 == ring.size();
            EXPECT_EQ(ask(*ring[i], ("/" + next + "/x").c_str()), last ? kEmpty : "-");
        }
        EXPECT_EQ(taken(watcher), Texts{"publish bus.error " + std::string{kDeadlockNotice}});
    }
}

TEST_F(Server, call_to_the_bus_is_no_call_to_a_node_of_its_name) {
    client_t &caller = join("caller");
    client_t &target = join("target");
    client_t &namesake = join("bus");
    std::strcpy(target.call_name.data(), "bus");      // target waits for the bus service,
    std::strcpy(namesake.call_name.data(), "caller"); // and the node "bus" for the caller
    for (client_t *from : {&caller, &namesake}) {
        startLog(4);
        EXPECT_EQ(ask(*from, "/target/x"), "-");
        EXPECT_TRUE(says(log(), "  Vek-server client bus is exit\n"));
        EXPECT_EQ(taken(target), Texts{"request /target/x NULL"});
    }
}

TEST_F(Server, walk_looks_at_the_end_of_a_chain_through_every_node) {
    startLog(4);
    EXPECT_EQ(ask(join("a"), "/nobody/x"), kUnknown);
    EXPECT_TRUE(says(log(), "  Vek-server client nobody is exit\n"));
}

TEST_F(Server, walk_into_a_foreign_ring_ends) {
    client_t &a = join("a");
    client_t &c = join("c");
    client_t &third = join("third");
    ask(a, "/c/x");
    request(c, "/a/x"); // refused, but its answer is still queued when the next request is taken
    request(third, "/a/x");
    run();
    EXPECT_EQ(answerOf(c), kEmpty);
    EXPECT_EQ(taken(a), Texts{"request /a/x NULL"});
}

TEST_F(Server, flood_of_publications_costs_no_answer) {
    client_t &a = join("a");
    fill(server_->message_queue);
    forget(a);
    const MessagePtr asked{
        busClientExMessageNew("a", nullptr, "/x", action::kRequest, &a, "a", nullptr, 0)};
    EXPECT_EQ(answer(*server_, *asked, "here"), Answered::kQueued);
    busServerExit(server_);
    EXPECT_NE(bus_mk_q_send(server_->message_queue, &a, -1), 0); // an ordinary message
    for (int i = 0; i <= kServerQueue + 1; ++i) {
        const MessagePtr next{
            static_cast<message_t *>(bus_mk_q_recv(server_->message_queue, 1, 0, 1))};
        ASSERT_TRUE(next) << i;
        const bool beyond = i >= kServerQueue;
        EXPECT_STREQ(next->action, !beyond             ? nullptr
                                   : i == kServerQueue ? action::kResponse
                                                       : action::kExit);
    }
    EXPECT_EQ(bus_mk_q_count(server_->message_queue), 0);
}

TEST_F(Server, answer_ends_only_the_call_that_it_belongs_to) {
    client_t &a = join("a");
    join("n");
    const auto respond = [&](const char *text, std::uint64_t call) {
        const std::string data{text};
        post("n", nullptr, "/n/x", action::kResponse, nullptr, "a", &data, call);
        run();
    };
    forget(a);
    a.waiting_call = 8;
    request(a, "/n/x", nullptr, 8);
    startLog(1);
    respond("late", 7);
    EXPECT_EQ(answerOf(a), "-");
    EXPECT_STREQ(a.call_name.data(), "n");
    respond("right", 8);
    EXPECT_EQ(answerOf(a), "right");
    EXPECT_STREQ(a.call_name.data(), "");
    respond("stray", 8);
    EXPECT_EQ(answerOf(a), "right");
    respond("to any call", 0);
    EXPECT_EQ(answerOf(a), "to any call");
    EXPECT_EQ(::count(log(), "  Vek-server a late response dropped, url: /n/x\n"), 2U);
}

TEST_F(Server, call_that_was_given_up_closes_no_ring) {
    client_t &a = join("a");
    client_t &b = join("n");
    for (const bool givenUp : {false, true}) {
        a.waiting_call = 5;
        request(a, "/n/x", nullptr, 5);
        run();
        taken(b);
        a.waiting_call = givenUp ? 0 : 5;
        EXPECT_EQ(ask(b, "/a/x"), givenUp ? "-" : kEmpty);
        EXPECT_EQ(taken(a), givenUp ? Texts{"request /a/x NULL"} : Texts{});
    }
}

TEST_F(Server, departed_node_is_taken_off_whenever_its_join_is_handled) {
    client_t &caller = join("caller");
    client_t &early = record("early");
    request(early, "/bus/join");
    depart(early); // before the join is handled
    client_t &late = join("late");
    ask(late, "/bus/subscribe", R"(["t"])");
    ask(caller, "/late/x");
    depart(late);
    run();
    EXPECT_EQ(answerOf(caller), kNoHandlerAnswer);
    EXPECT_FALSE(early.registered);
    EXPECT_FALSE(late.registered);
    EXPECT_EQ(early.references, 1);
    EXPECT_EQ(late.references, 1);
    publish(caller, "t", "to nobody");
    EXPECT_EQ(ask(caller, "/bus/nodes"), "{\n\t\"data\":\t[\"caller\"]\n}");
    client_t &again = join("late");
    EXPECT_EQ(taken(again), Texts{});
}

TEST_F(Server, departed_node_does_not_ask_to_leave) {
    server_->call_timeout = 10;
    client_t &a = join("a");
    depart(a);
    server_->running = 1; // the loop has begun, and has not come to the departed nodes yet
    leaveBus(a);
    EXPECT_EQ(a.counters.calls_made, 0U);
    EXPECT_EQ(a.counters.calls_timed_out, 0U);
    run();
    EXPECT_FALSE(a.registered);
}

TEST_F(Server, request_of_a_record_that_has_gone_touches_nothing) {
    join("a");
    client_t &old = record("a"); // another record of a name that is on the bus
    for (const char *url : {"/bus/disjoin", "/bus/subscribe", "/a/x", "/localKeys/k"}) {
        const std::string data = R"(["t"])";
        request(old, url, &data, 9);
    }
    run();
    EXPECT_STREQ(old.call_name.data(), "");
    EXPECT_NE(server_->directory.find("a"), nullptr);
    EXPECT_EQ(server_->directory.topic("t"), nullptr);
}

} // namespace
} // namespace bus
