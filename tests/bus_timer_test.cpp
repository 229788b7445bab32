#include "bus_client/internal.h"
#include "running.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

// A timer of node tells that it fires by publishing its type.
int tell(void *node, client_t *, int type) {
    static_cast<Node *>(node)->publish("fired", std::to_string(type));
    return 0;
}
int set(Node &node, long delay, int type = 0) {
    return busClientSettimer(node.get(), tell, delay, type, &node);
}

TEST(Timers, ids_start_again_at_2_delays_have_no_limit_and_queues_have_one) {
    const Bus bus{1, R"(,"stats":true)"};
    Node node{bus, "n"};
    node.subscribe(R"(["fired"])");
    EXPECT_EQ(set(node, 60000), 2);
    node.get()->timerid = 32765;
    EXPECT_EQ(set(node, std::numeric_limits<long>::max()), 32766);
    EXPECT_EQ(set(node, std::numeric_limits<long>::min(), 1), 32767);
    EXPECT_EQ(set(node, 1, 2), 2);
    EXPECT_EQ(set(node, 60000), 3);
    busClientKilltimer(node.get(), 3);
    busClientKilltimer(node.get(), 3);
    EXPECT_TRUE(bus.logs("n already remove timer 3\n"));
    EXPECT_EQ(node.heard(2), (Texts{"fired 1", "fired 2"}));
    EXPECT_TRUE(says(node.call("/bus/stats"), "\"timers\":\t2"));

    Node idle{bus, "idle", {}, false};
    for (int i = 0; i <= bus::kClientQueue; ++i) {
        EXPECT_EQ(set(idle, 60000), i + 2); // that of a refused one too
    }
    for (int i = 0; i < bus::kClientQueue; ++i) { // the loop's wake-up waits as well
        busClientKilltimer(idle.get(), 0);
    }
    EXPECT_TRUE(says(idle.call("/bus/stats"), "\"ownFull\":\t2"));
}

} // namespace
