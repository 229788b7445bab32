#include "bus_client/internal.h"
#include "bus_tools.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace bus {
namespace {

// A node on no bus: its spin loop runs in the test's thread. What its timers do is kept in order.
class Timers : public testing::Test {
public:
    Timers() {
        client_.name.reset(bus_mk_strdup("n"));
        client_.server = &server_;
        testing::internal::CaptureStdout();
        bus_log_init(0, nullptr, 0, 0);
    }
    ~Timers() override { log(); }
    std::string log() {
        bus_log_exit();
        return captured_ ? (captured_ = false, testing::internal::GetCapturedStdout()) : "";
    }

    int set(long delay, int type, timer_callback func = note) {
        return busClientSettimer(&client_, func, delay, type, this);
    }
    // Spins until a timer of delay has fired and ended the loop.
    void spinUntil(long delay) {
        set(delay, 0, [](void *, client_t *client, int) { return busClientSpinExit(client); });
        busClientSpin(&client_);
    }
    static int note(void *self, client_t *, int type) {
        static_cast<Timers *>(self)->fired_.push_back(type);
        return 0;
    }
    void handlePass() { timerPass(client_); }

    server_t server_;
    client_t client_;
    std::vector<int> fired_;
    bool captured_ = true;
};
using Types = std::vector<int>;

TEST_F(Timers, due_timers_fire_once_in_the_order_they_were_set) {
    EXPECT_EQ(set(0, 1), 2);
    EXPECT_EQ(set(60000, 2), 3);
    EXPECT_EQ(set(-5, 3), 4);
    spinUntil(0);
    EXPECT_EQ(fired_, (Types{1, 3}));
    EXPECT_EQ(bus_mk_q_count(client_.timer_queue), 1);
    const std::string text = log();
    for (const char *line :
         {"  Vek-client timerId overstep the boundary 32767\n", "  Vek-client n set timer 2\n",
          "  Vek-client 3 timer func begin\n", "  Vek-client 3 timer func end\n",
          "  Vek-client 4 timer delete\n", "  Vek-client n singal timer_queue\n"}) {
        EXPECT_TRUE(says(text, line)) << line;
    }
}

TEST_F(Timers, timer_waits_for_its_time) {
    const double start = clock_gettimestamp();
    set(30, 1);
    spinUntil(40);
    EXPECT_EQ(fired_, Types{1});
    EXPECT_GE(clock_gettimestamp() - start, 0.039);
}

TEST_F(Timers, timer_set_by_a_handler_stays_behind_those_that_waited) {
    set(0, 1, [](void *self, client_t *, int) { return static_cast<Timers *>(self)->set(20, 3); });
    set(20, 2);
    set(std::numeric_limits<long>::max(), 4); // as good as never
    set(std::numeric_limits<long>::min(), 5);
    handlePass();
    for (const double both = clock_gettimestamp() + 0.021; clock_gettimestamp() < both;) {
        std::this_thread::yield();
    }
    handlePass();
    EXPECT_EQ(fired_, (Types{5, 2, 3}));
}

TEST_F(Timers, timer_set_by_a_handler_waits_for_the_next_pass) {
    set(0, 1, [](void *self, client_t *, int type) {
        auto &test = *static_cast<Timers *>(self);
        test.fired_.push_back(type);
        return test.set(0, type + 1);
    });
    set(0, 10);
    handlePass();
    EXPECT_EQ(fired_, (Types{1, 10}));
    handlePass();
    EXPECT_EQ(fired_, (Types{1, 10, 2}));
    handlePass();
    EXPECT_EQ(fired_.size(), 3U);
}

TEST_F(Timers, killed_timer_does_not_fire) {
    const int killed = set(0, 1);
    set(0, 2);
    // Its wake-up is queued first; a kill that overtakes it removes the timer in time.
    ASSERT_EQ(busClientKilltimer(&client_, killed), 0);
    const MessagePtr wakeUp{
        static_cast<message_t *>(bus_mk_q_recv(client_.message_queue, 1, 0, 1))};
    EXPECT_STREQ(wakeUp->action, action::kSetTimer);
    const MessagePtr kill{static_cast<message_t *>(bus_mk_q_recv(client_.message_queue, 1, 0, 1))};
    EXPECT_STREQ(kill->payload->data, "{\"id\": 2}");
    _killTimer(client_, *kill);
    _killTimer(client_, *kill);
    for (const char *payload : {"no json", "{}", "{\"id\":99}"}) {
        _killTimer(client_, *ownMessage(client_, nullptr, action::kKillTimer, payload,
                                        static_cast<int>(std::strlen(payload))));
    }
    handlePass();
    EXPECT_EQ(fired_, Types{2});
    const std::string text = log();
    EXPECT_TRUE(says(text, "  Vek-client n already remove timer 2\n"));
    EXPECT_TRUE(says(text, "  Vek-client n already remove timer 99\n"));
}

TEST_F(Timers, refusals_are_visible) {
    set(0, 1, nullptr);
    handlePass();
    for (int i = 0; i < kClientQueue; ++i) {
        set(60000, i);
    }
    EXPECT_EQ(set(60000, 0), kClientQueue + 3); // its id all the same
    EXPECT_EQ(bus_mk_q_count(client_.timer_queue), kClientQueue);
    while (bus_mk_q_count(client_.message_queue) < kClientQueue) {
        busClientKilltimer(&client_, 0);
    }
    EXPECT_EQ(busClientKilltimer(&client_, 0), 0);
    const std::string text = log();
    for (const char *line : {"  Vek-client n timer func not implement\n",
                             "  Vek-client n settimer failed, queue is full\n",
                             "  Vek-client n killtimer failed, queue is full\n"}) {
        EXPECT_TRUE(says(text, line)) << line;
    }
}

TEST_F(Timers, threads_that_set_timers_get_different_ids) {
    std::vector<int> ids(400);
    inThreads(4, [&](int thread) {
        for (int i = 0; i < 100; ++i) {
            ids[static_cast<std::size_t>(thread * 100 + i)] = set(0, 7);
        }
    });
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), 400U);
    spinUntil(0);
    EXPECT_EQ(fired_.size(), 400U);
}

} // namespace
} // namespace bus
