// What no application sees or can bring about at will.
#include "bus_client/internal.h"
#include "bus_server/internal.h"
#include "running.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Server, broken_messages_change_nothing_and_nothing_is_kept_of_a_topic_that_nobody_has) {
    const Bus bus;
    Node a{bus, "a"};
    server_t &server = *bus.get()->server;
    for (const char *action : {"no such", "", action::kRequest, action::kResponse,
                               action::kPublishSticky, action::kRemoveSticky}) {
        for (const char *name : {"a", ""}) { // empty: none
            MessagePtr message{busClientExMessageNew(*name ? name : nullptr, nullptr, nullptr,
                                                     *action ? action : nullptr, a.get(), nullptr,
                                                     nullptr, 0)};
            EXPECT_EQ(postToServer(server, message), bus_mk_sent::kDone);
        }
    }
    a.subscribe(R"(["t"])");
    busClientUnsubscribe(a.get(), R"(["t"])");
    busClientPublishSticky(a.get(), "s", nullptr, 0);
    busClientRemoveSticky(a.get(), R"(["s"])");
    EXPECT_EQ(a.call("/bus/nodes"), "{\n\t\"data\":\t[\"a\"]\n}");
    EXPECT_TRUE(!server.directory.topic("t") && !server.directory.topic("s"));
    EXPECT_EQ(::count(bus.log(), "  Vek-server message body not action | name\n"), 7U);
}

TEST(Server, chain_of_calls_ends_at_the_bus_and_where_none_is_waited_for) {
    const Bus bus{2};
    const Node nodes[] = {{bus, "a"}, {bus, "k"}, {bus, "m"}, {bus, "bus"}};
    // Of calls under way, the last made now. number: of k's; 1: none that is waited for any more.
    const auto ring = [&](const std::vector<std::pair<std::string, std::string>> &calls,
                          std::uint64_t number = 0) {
        for (const Node &node : nodes) {
            node.get()->call_name = {};
            node.get()->call_number = &node == &nodes[1] ? number : 0;
        }
        server_t *const server = bus.get()->server;
        for (const auto &[caller, callee] : calls) {
            callee.copy(server->directory.find(caller)->node->call_name.data(), callee.size());
        }
        const auto &[caller, callee] = calls.back();
        const int found = _busServerHasDeadLock(server, caller.c_str(), caller.c_str());
        EXPECT_TRUE(says(bus.log(), caller + " call " + callee + ", target: " + caller + "\n"));
        return found;
    };
    EXPECT_EQ(ring({{"k", "m"}, {"m", "bu"}, {"bus", "a"}, {"a", "k"}}), -1);
    EXPECT_EQ(ring({{"k", "m"}, {"m", "a"}, {"a", "k"}}), 0);
    EXPECT_EQ(ring({{"a", "k"}, {"k", "a"}, {"m", "a"}}), -1); // one was refused just now
    EXPECT_EQ(ring({{"k", "a"}, {"a", "k"}}, 1), -1);
    EXPECT_EQ(ring({{"a", "gone"}}), -1);
    EXPECT_EQ(ring({{"bus", "k"}, {"k", "bus"}}), -1); // the bus is not its namesake
    EXPECT_EQ(ring({{"bus", "k"}}), -1);
}

} // namespace bus
