// What no application sees or can bring about at will.
#include "bus_client/internal.h"
#include "bus_server/internal.h"
#include "running.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Server, nothing_is_kept_of_a_topic_that_nobody_has) {
    const Bus bus;
    Node a{bus, "a"};
    a.subscribe(R"(["t"])");
    busClientUnsubscribe(a.get(), R"(["t"])");
    busClientPublishSticky(a.get(), "s", nullptr, 0);
    busClientRemoveSticky(a.get(), R"(["s"])");
    a.call("/bus/nodes");
    Directory &directory = bus.get()->server->directory;
    EXPECT_TRUE(!directory.topic("t") && !directory.topic("s"));
}

TEST(Server, chain_of_calls_ends_at_the_bus_and_where_none_is_waited_for) {
    const struct {
        std::vector<std::pair<std::string, std::string>> calls; // under way, the last made now
        int found = -1;
        std::uint64_t number = 0; // of k's call; 1: none that is waited for any more
    } kCases[] = {{{{"k", "m"}, {"m", "bu"}, {"bus", "a"}, {"a", "k"}}},
                  {{{"k", "m"}, {"m", "a"}, {"a", "k"}}, 0},
                  {{{"a", "k"}, {"k", "a"}, {"m", "a"}}}, // one was refused just now
                  {{{"k", "a"}, {"a", "k"}}, -1, 1},
                  {{{"a", "gone"}}},
                  {{{"bus", "k"}}},
                  // A call to the bus is none to a node of its name.
                  {{{"a", "bus"}, {"bus", "k"}, {"k", "a"}}}};
    const Bus bus{2};
    const Node nodes[] = {{bus, "a"}, {bus, "k"}, {bus, "m"}, {bus, "bus"}};
    server_t *const server = bus.get()->server;
    for (const auto &c : kCases) {
        for (const Node &node : nodes) {
            node.get()->call_name = {};
            node.get()->call_number = 0;
        }
        nodes[1].get()->call_number = c.number;
        for (const auto &[caller, callee] : c.calls) {
            callee.copy(server->directory.find(caller)->node->call_name.data(), callee.size());
        }
        const std::string &last = c.calls.back().first;
        EXPECT_EQ(_busServerHasDeadLock(server, last.c_str(), last.c_str()), c.found) << last;
        EXPECT_TRUE(says(bus.log(), last + " call " + c.calls.back().second + ", target: " + last));
    }
}

} // namespace bus
