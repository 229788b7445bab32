// What no application can bring about at will: broken messages, and calls that are under way.
#include "bus_client/internal.h"
#include "bus_server/internal.h"
#include "running.h"

#include <gtest/gtest.h>

#include <map>

namespace bus {
namespace {

TEST(Server, broken_messages_and_those_of_another_record_of_a_name_change_nothing) {
    const Bus bus{1};
    Node a{bus, "a"};
    Node other{bus, "other"};
    const struct {
        const char *name, *action;
        const char *url = nullptr, *requester = nullptr;
        std::uint64_t call = 0; // 1: none that is waited for
    } kCases[] = {{"a", nullptr},
                  {nullptr, action::kPublish},
                  {"a", "no such"},
                  {"a", action::kRequest, nullptr, "a"},
                  {"a", action::kPublishSticky},
                  {"a", action::kRemoveSticky},
                  {"a", action::kResponse},
                  // What a node answers never takes its caller off the bus.
                  {"other", action::kResponse, "/bus/disjoin", "a"},
                  // Of a record that is not on the bus.
                  {"a", action::kRequest, "/bus/join", "a", 1},
                  {"a", action::kRequest, "/bus/subscribe", "a", 1},
                  {"a", action::kRequest, "/bus/disjoin", "a", 1},
                  {"a", action::kRequest, "/gone/x", "a", 1}};
    for (const auto &c : kCases) {
        MessagePtr message{busClientExMessageNew(c.name, nullptr, c.url, c.action, other.get(),
                                                 c.requester, R"({"event":"disjoin"})", 19)};
        message->call = c.call;
        EXPECT_EQ(postToServer(*bus.get()->server, message), bus_mk_sent::kDone);
    }
    EXPECT_TRUE(says(other.call("/bus/nodes"), R"(["a", "other"])")); // behind them
    EXPECT_EQ(a.get()->counters.late_answers, 3U);
    EXPECT_EQ(bus.get()->server->counters.no_addressee, 1U);
    EXPECT_EQ(::count(bus.log(), "  Vek-server message body not action | name\n"), 2U);
    EXPECT_EQ(::count(bus.log(), "  Vek-server not implement\n"), 1U);
}

TEST(Server, nothing_is_kept_of_a_topic_that_nobody_has_or_asked_for_by_who_has_left) {
    const Bus bus;
    Node a{bus, "a"};
    a.subscribe(R"(["t"])");
    busClientUnsubscribe(a.get(), R"(["t"])");
    busClientPublishSticky(a.get(), "s", nullptr, 0);
    busClientRemoveSticky(a.get(), R"(["s"])");
    a.call("/bus/nodes");
    for (const char *topic : {"t", "s"}) {
        EXPECT_EQ(bus.get()->server->directory.topic(topic), nullptr);
    }
    const ClientPtr held{retain(*a.get())}; // as the bus may still, when the leaver wakes
    a.close();
    EXPECT_FALSE(held->departed);
}

TEST(Server, chain_of_calls_ends_at_the_bus_and_where_none_is_waited_for) {
    const struct {
        std::vector<std::pair<std::string, std::string>> calls; // under way, and the one made now
        bool refused = false;
        std::uint64_t number = 0; // of the calls; 1: none that is waited for any more
    } kCases[] = {{{{"a", "k"}, {"k", "m"}, {"m", "bu"}, {"bus", "a"}}},
                  {{{"a", "k"}, {"k", "m"}, {"m", "a"}}, true},
                  {{{"a", "k"}, {"k", "a"}, {"m", "a"}}}, // one was refused just now
                  {{{"k", "a"}, {"a", "k"}}, false, 1},
                  // A call to the bus is none to a node of its name.
                  {{{"a", "bus"}, {"bus", "k"}, {"k", "a"}}}};
    for (const auto &c : kCases) {
        const Bus bus;
        std::map<std::string, Node> nodes;
        for (const char *name : {"a", "k", "m", "bus"}) {
            nodes.try_emplace(name, bus, name);
        }
        for (const auto &[caller, callee] : c.calls) {
            client_t &client = *nodes.at(caller).get();
            callee.copy(client.call_name.data(), callee.size());
            client.call_number = c.number;
        }
        const auto &[caller, callee] = c.calls.back();
        EXPECT_EQ(nodes.at(caller).call("/" + callee + "/x"),
                  c.refused ? kEmptyAnswer : kNoHandlerAnswer)
            << bus.log();
        for (const char *name : {"k", "nobody"}) {
            EXPECT_EQ(_busServerHasDeadLock(bus.get()->server, name, "none"), -1);
        }
    }
}

} // namespace
} // namespace bus
