// The timers of a node that runs, and of one that does not.
#include "bus_client/internal.h"
#include "bus_tools.h"
#include "running.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

namespace {

// A node whose timers publish their type as they fire, and which hears that.
class Timers : public testing::Test {
public:
    Timers() { node_.subscribe(R"(["fired"])"); }

    int set(long delay, int type, timer_callback func = tell) {
        return busClientSettimer(node_.get(), func, delay, type, this);
    }
    static int tell(void *self, client_t *, int type) {
        static_cast<Timers *>(self)->node_.publish("fired", std::to_string(type));
        return 0;
    }

    const Bus bus_{1, R"(,"stats":true)"};
    Node node_{bus_, "n"};
};

TEST_F(Timers, due_timers_fire_once_in_the_order_they_were_set_and_killed_ones_never) {
    EXPECT_EQ(set(0, 1), 2);
    EXPECT_EQ(set(0, 2, nullptr), 3);
    EXPECT_EQ(set(std::numeric_limits<long>::min(), 3), 4);
    EXPECT_EQ(set(std::numeric_limits<long>::max(), 4), 5);
    EXPECT_EQ(set(60000, 5), 6);
    busClientKilltimer(node_.get(), 6);
    busClientKilltimer(node_.get(), 6);
    bus_.waitForLog("n already remove timer 6\n");
    const double begun = bus::clock_gettimestamp();
    set(20, 6);
    EXPECT_EQ(node_.heard(3), (Texts{"fired 1", "fired 3", "fired 6"}));
    EXPECT_GE(bus::clock_gettimestamp() - begun, 0.019);
    bus_.waitForLog("7 timer delete\n");
    EXPECT_TRUE(says(node_.call("/bus/stats"), "\"timers\":\t1"));
}

TEST_F(Timers, timer_set_by_a_handler_stays_behind_those_that_waited) {
    set(0, 0, [](void *timers, client_t *, int) { // so that one pass finds both
        auto &self = *static_cast<Timers *>(timers);
        self.set(0, 1, [](void *of, client_t *, int) {
            static_cast<Timers *>(of)->set(20, 3);
            std::this_thread::sleep_for(std::chrono::milliseconds{50}); // until both are due
            return 0;
        });
        return self.set(20, 2);
    });
    EXPECT_EQ(node_.heard(2), (Texts{"fired 2", "fired 3"}));
}

// Guards the counter of the ids against threads.
TEST_F(Timers, ids_differ_and_full_queues_refuse_and_say_so) {
    const Node idle{bus_, "idle", {}, false};
    busClientSettimer(idle.get(), tell, 0, 7, this);
    bus::timerPass(*idle.get());
    EXPECT_TRUE(std::isinf(idle.get()->earliest_due)); // no walk over timers that are not due
    std::vector<int> ids(bus::kClientQueue);
    inThreads(4, [&](int thread) {
        for (auto i = static_cast<std::size_t>(thread); i < ids.size(); i += 4) {
            ids[i] = busClientSettimer(idle.get(), nullptr, 60000, 0, nullptr);
        }
    });
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), ids.size());
    EXPECT_EQ(busClientSettimer(idle.get(), nullptr, 60000, 0, nullptr), bus::kClientQueue + 3);
    for (int i = 0; i < bus::kClientQueue; ++i) { // the loop's wake-up waits as well
        busClientKilltimer(idle.get(), 0);
    }
    EXPECT_TRUE(says(node_.call("/bus/stats"), "\"ownFull\":\t2"));
}

} // namespace
