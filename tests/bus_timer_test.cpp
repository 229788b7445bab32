#include "bus_client/internal.h"
#include "bus_tools.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace bus {
namespace {

using Types = std::vector<int>;

// A node on no bus, whose passes run in the test's thread. The types of its timers are kept as they
// fire.
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
        return std::exchange(captures_, false) ? testing::internal::GetCapturedStdout() : "";
    }

    int set(long delay, int type, timer_callback func = note) {
        return busClientSettimer(&client_, func, delay, type, this);
    }
    static int note(void *self, client_t *, int type) {
        static_cast<Timers *>(self)->fired_.push_back(type);
        return 0;
    }
    Types fired() {
        timerPass(client_);
        return std::exchange(fired_, {});
    }
    MessagePtr takeMessage() {
        return MessagePtr{static_cast<message_t *>(bus_mk_q_recv(client_.message_queue, 1, 0, 1))};
    }
    void expectInLog(std::initializer_list<const char *> lines) {
        const std::string text = log();
        for (const char *line : lines) {
            EXPECT_TRUE(says(text, std::string{"#  Vek-client "} + line + "\n")) << line << text;
        }
    }

    server_t server_;
    client_t client_;
    Types fired_;
    bool captures_ = true;
};

TEST_F(Timers, due_timers_fire_once_in_the_order_they_were_set) {
    EXPECT_EQ(set(0, 1), 2);
    EXPECT_EQ(set(60000, 2), 3);
    EXPECT_EQ(set(std::numeric_limits<long>::min(), 3), 4);
    set(std::numeric_limits<long>::max(), 4);
    EXPECT_EQ(fired(), (Types{1, 3}));
    EXPECT_EQ(fired(), Types{});
    EXPECT_EQ(bus_mk_q_count(client_.timer_queue), 2);
    expectInLog({"timerId overstep the boundary 32767", "n set timer 2", "3 timer func begin",
                 "3 timer func end", "4 timer delete"});
}

TEST_F(Timers, timer_set_by_a_handler_stays_behind_those_that_waited) {
    set(0, 1, [](void *self, client_t *, int) { return static_cast<Timers *>(self)->set(20, 3); });
    set(20, 2);
    set(0, 4, [](void *self, client_t *, int) { return static_cast<Timers *>(self)->set(0, 5); });
    const double begun = clock_gettimestamp();
    EXPECT_EQ(fired(), Types{}); // one set now waits for the next pass, due or not
    EXPECT_EQ(fired(), Types{5});
    Types late;
    while (late.empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds{25});
        late = fired();
    }
    EXPECT_EQ(late, (Types{2, 3}));
    EXPECT_GE(clock_gettimestamp() - begun, 0.019);
}

TEST_F(Timers, killed_timer_does_not_fire) {
    set(0, 1);
    set(0, 2);
    EXPECT_EQ(busClientKilltimer(&client_, 2), 0);
    EXPECT_STREQ(takeMessage()->action, action::kSetTimer); // woke the loop for the first
    const MessagePtr kill = takeMessage();
    EXPECT_STREQ(kill->payload->data, "{\"id\": 2}");
    _killTimer(client_, *kill);
    _killTimer(client_, *kill);
    for (const char *payload : {"none", "{  }"}) {
        _killTimer(client_, *ownMessage(client_, nullptr, action::kKillTimer, payload, 4));
    }
    EXPECT_EQ(fired(), Types{2});
    expectInLog({"n kill timer: 2", "n already remove timer 2"});
}

TEST_F(Timers, refusals_are_visible) {
    set(0, 1, nullptr);
    fired();
    for (int i = 0; i < kClientQueue; ++i) {
        set(60000, i);
    }
    EXPECT_EQ(set(60000, 0), kClientQueue + 3); // its id all the same
    EXPECT_EQ(bus_mk_q_count(client_.timer_queue), kClientQueue);
    while (bus_mk_q_count(client_.message_queue) < kClientQueue) {
        busClientKilltimer(&client_, 0);
    }
    EXPECT_EQ(busClientKilltimer(&client_, 0), 0);
    EXPECT_EQ(client_.counters.own_full, 2U);
    expectInLog({"n timer func not implement", "n settimer failed, queue is full",
                 "n killtimer failed, queue is full"});
}

// Guards the counter of the ids against threads.
TEST_F(Timers, threads_that_set_timers_get_different_ids) {
    std::vector<int> ids(400);
    inThreads(4, [&](int thread) {
        for (int i = thread * 100; i < (thread + 1) * 100; ++i) {
            ids[static_cast<std::size_t>(i)] = set(0, 7);
        }
    });
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), 400U);
    EXPECT_EQ(fired().size(), 400U);
}

} // namespace
} // namespace bus
