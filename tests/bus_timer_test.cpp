// The timers of a node that runs, and of one that does not.
#include "bus_client/internal.h"
#include "running.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

namespace {

// A timer of node tells that it fires by publishing its type.
int tell(void *node, client_t *, int type) {
    static_cast<Node *>(node)->publish("fired", std::to_string(type));
    return 0;
}
int set(Node &node, long delay, int type, timer_callback func = tell) {
    return busClientSettimer(node.get(), func, delay, type, &node);
}

TEST(Timers, due_timers_fire_once_in_the_order_they_were_set_and_killed_ones_never) {
    const Bus bus{1, R"(,"stats":true)"};
    Node node{bus, "n"};
    node.subscribe(R"(["fired"])");
    EXPECT_EQ(set(node, 0, 1), 2);
    EXPECT_EQ(set(node, 0, 2, nullptr), 3);
    EXPECT_EQ(set(node, std::numeric_limits<long>::min(), 3), 4);
    EXPECT_EQ(set(node, std::numeric_limits<long>::max(), 4), 5);
    EXPECT_EQ(set(node, 60000, 5), 6);
    busClientKilltimer(node.get(), 6);
    busClientKilltimer(node.get(), 6);
    bus.waitForLog("n already remove timer 6\n");
    set(node, 1, 6);
    EXPECT_EQ(node.heard(3), (Texts{"fired 1", "fired 3", "fired 6"}));
    bus.waitForLog("7 timer delete\n");
    EXPECT_TRUE(says(node.call("/bus/stats"), "\"timers\":\t1"));
}

int note(void *ran, client_t *, int type) {
    static_cast<std::vector<int> *>(ran)->push_back(type);
    return 0;
}
int makeAllDue(void *ran, client_t *client, int type) {
    const auto makeDue = [](void *timer, void *) {
        static_cast<bus::timer_t *>(timer)->timeout = 0;
        return 0;
    };
    bus_mk_q_visit(client->timer_queue, makeDue, nullptr);
    busClientSettimer(client, note, 0, 5, ran);
    return note(ran, client, type);
}

TEST(Timers, what_falls_due_during_a_pass_runs_in_it_and_what_a_handler_sets_in_the_next) {
    const Bus bus{6};
    Node idle{bus, "n", {}, false};
    std::vector<int> ran;
    const std::pair<long, timer_callback> kTimers[] = {
        {60000, note}, {0, makeAllDue}, {60000, note}, {0, note}};
    for (int type = 0; const auto &[delay, func] : kTimers) {
        busClientSettimer(idle.get(), func, delay, ++type, &ran);
    }
    bus::timerPass(*idle.get());
    EXPECT_EQ(ran, (std::vector<int>{2, 3, 4, 1}));
    bus::timerPass(*idle.get());
    EXPECT_EQ(ran.back(), 5);
}

// Guards the counter of the ids against threads.
TEST(Timers, ids_differ_and_start_again_at_2_and_full_queues_refuse_and_say_so) {
    const Bus bus{6, R"(,"stats":true)"};
    Node idle{bus, "n", {}, false};
    idle.get()->timerid = 32766;
    EXPECT_EQ(set(idle, 0, 1), 32767);
    bus::timerPass(*idle.get());
    EXPECT_TRUE(std::isinf(idle.get()->earliest_due)); // no walk over timers that are not due
    std::vector<int> ids(bus::kClientQueue);
    inThreads(4, [&](int thread) {
        for (auto i = static_cast<std::size_t>(thread); i < ids.size(); i += 4) {
            ids[i] = set(idle, 60000, 2);
        }
    });
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), ids.size());
    EXPECT_EQ(set(idle, 60000, 2), bus::kClientQueue + 2); // its id all the same
    for (int i = 0; i < bus::kClientQueue; ++i) {          // the loop's wake-up waits as well
        busClientKilltimer(idle.get(), 0);
    }
    EXPECT_TRUE(says(idle.call("/bus/stats"), "\"ownFull\":\t2"));
}

} // namespace
