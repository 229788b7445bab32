#include "support.h"

#include <map>

using namespace zelvo;
using Clock = std::chrono::steady_clock;

TEST(Async, as_many_calls_are_under_way_as_there_are_helpers_and_more_wait) {
    Config config = quiet();
    config.helpers = 4;
    config.waiting_calls = std::numeric_limits<std::size_t>::max();
    const Bus bus{config};
    Node caller{bus, "caller"};
    std::vector<Node> called;
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    Gate together; // when four are inside at once
    for (int i = 0; i < 8; ++i) {
        called.emplace_back(bus, "n" + std::to_string(i));
        called.back().on_call("/x", [&](std::string data) {
            most = std::max(most.load(), ++inside);
            if (inside == 4) {
                std::this_thread::sleep_for(50ms); // time for a fifth that must not come
                together.open();
            }
            together.wait();
            --inside;
            return data;
        });
    }
    int completed = 0; // in one thread
    Gate done;
    for (int i = 0; i < 128; ++i) {
        caller.call_async("/n" + std::to_string(i % 8) + "/x", std::to_string(i),
                          [&, i, only = std::make_unique<int>(0)](const Answer &answer) {
                              EXPECT_EQ(answer.text, std::to_string(i));
                              if (++completed == 128) {
                                  done.open();
                              }
                          });
    }
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(most, 4);
    EXPECT_EQ(caller.nodes().size(), 9U); // without the helpers
}

TEST(Async, a_node_that_never_answers_stops_no_call_to_another_and_what_waits_is_limited) {
    Config config = quiet();
    config.helpers = 4;
    config.waiting_calls = 3;
    const Bus bus{config};
    Gate answer;
    Node hung{bus, "hung"};
    hung.on_call("/x", [&] { answer.wait(); });
    Node lamp{bus, "lamp"};
    lamp.on_call("/state", [] { return "on"; });
    const Node panel{bus, "panel"};
    std::optional<Node> other{std::in_place, bus, "other"};
    const auto token = std::make_shared<int>(0);
    auto under_way = panel.call_async("/hung/x", [token](const Answer &) { ADD_FAILURE(); });
    auto waits = panel.call_async("/hung/x");
    auto gone = other->call_async("/hung/x");
    other->call_async("/hung/x", [token](const Answer &) { ADD_FAILURE(); });
    auto refused = panel.call_async("/hung/x");
    ASSERT_EQ(refused.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(refused.get().cause, Cause::too_many);
    EXPECT_EQ(panel.call_async("/lamp/state").get().text, "on");
    EXPECT_EQ(panel.call_for(1ms, "/hung/x").cause, Cause::too_many);
    EXPECT_EQ(other->call_async("/lamp/state").get().text, "on");
    const std::string names = panel.call("/bus/nodes").text;
    EXPECT_NE(names.find("zelvo/helper/panel/1\""), names.npos) << names;
    EXPECT_NE(names.find("zelvo/helper/other/"), names.npos) << names;
    other.reset(); // and leaves the row
    EXPECT_EQ(gone.get().cause, Cause::left);
    EXPECT_EQ(token.use_count(), 2);
    EXPECT_EQ(panel.call("/bus/nodes").text.find("zelvo/helper/other/"), names.npos);
    for (int i = 0; i < 3; ++i) { // none of them stays in the row
        EXPECT_EQ(panel.call_for(1ms, "/hung/x").cause, Cause::timed_out);
    }
    EXPECT_TRUE(waits.cancel());
    EXPECT_FALSE(waits.cancel());
    EXPECT_EQ(waits.get().cause, Cause::cancelled);
    EXPECT_TRUE(under_way.cancel());
    const PendingCall call = panel.call_async("/hung/x", [token](const Answer &) {});
    EXPECT_TRUE(call.cancel());
    EXPECT_EQ(token.use_count(), 1);
    answer.open();
}

// ---- timers ----

TEST_F(Face, a_beat_keeps_its_grid_and_leaves_out_what_it_has_missed) {
    constexpr auto period = 40ms;
    std::vector<Clock::duration> beats;
    Gate done;
    const auto begun = Clock::now();
    lamp.every(period, [&](const Timer &timer) {
        beats.push_back(Clock::now() - begun);
        if (beats.size() == 1) {
            std::this_thread::sleep_for(period * 5 / 2); // misses two
        } else if (beats.size() == 3) {
            lamp.after(0ms, [&, timer] { // between two beats
                EXPECT_TRUE(timer.cancel());
                EXPECT_FALSE(timer.cancel());
                lamp.after(3 * period, [&] { done.open(); });
            });
        }
    });
    ASSERT_TRUE(done.wait());
    ASSERT_EQ(beats.size(), 3U); // the first, the fourth and the fifth, or later ones
    EXPECT_GE(beats[0], period);
    EXPECT_GE(beats[1], period * 4);
    EXPECT_GE(beats[2], period * 5);
}

TEST(Timers, the_bus_has_few_timers_however_many_wait) {
    detail::Timers timers;
    std::map<int, long> armed;
    const auto arm = [&] {
        EXPECT_TRUE(timers.arm([&](long wait, int number) {
            armed[number] = wait;
            return true;
        }));
    };
    const auto add = [&](Clock::duration wait, Clock::duration period = 0ns) {
        auto nothing = [] {};
        using Entry = detail::TimerEntryOf<decltype(nothing)>;
        timers.add(detail::held(new Entry{period, nothing}), Clock::now() + wait);
    };
    add(-100ms, 40ms); // it has missed two beats, and the next is one of the same grid
    auto beat = timers.takeDue(Clock::now());
    const auto first = beat.value().due;
    timers.repeat(std::move(beat));
    beat = timers.takeDue(Clock::now() + 40ms);
    EXPECT_EQ((beat.value().due - first) % 40ms, 0ns);
    EXPECT_GE(beat.value().due - first, 120ms);
    add(24h);
    EXPECT_FALSE(timers.arm([](long, int) { return false; })); // memory is short
    arm();
    for (int i = 400; i > 0; --i) {
        add(i * 1s);
        arm();
    }
    EXPECT_LT(armed.size(), 120U); // of 1,024
    while (armed.size() > 1) {     // they come; the earliest is always waited for
        EXPECT_LE(armed.rbegin()->second, 400'000);
        timers.note(armed.rbegin()->first);
        armed.erase(std::prev(armed.end()));
        timers.takeDue(Clock::now() + 401s); // one of the short ones
        arm();
    }
    for (int i = 0; i < 400; ++i) {
        timers.takeDue(Clock::now() + 401s);
    }
    arm(); // there is still the one of the day
    EXPECT_EQ(armed.size(), 1U);
    EXPECT_NEAR(static_cast<double>(armed.begin()->second), 86'400'000, 60'000);
}

TEST_F(Face, any_duration_is_a_time_to_wait_for) {
    Gate done;
    const auto token = std::make_shared<int>(0);
    std::atomic<int> early{0};
    const auto count = [&] { ++early; };
    lamp.after(std::chrono::hours::max(), count);
    lamp.after(std::chrono::duration<double>{1e300}, count);
    lamp.every(std::chrono::hours::max(), count);
    lamp.after(std::chrono::hours::min(), [&, only = std::make_unique<int>(0)](Timer self) {
        EXPECT_FALSE(self.cancel());
        lamp.after(std::chrono::duration<double>{0.001}, [&] { done.open(); });
    });
    EXPECT_TRUE(lamp.after(1h, [token] {}).cancel());
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_THROW(lamp.every(0ms, count), std::invalid_argument);
    constexpr auto none = std::numeric_limits<double>::quiet_NaN();
    EXPECT_THROW(lamp.every(std::chrono::duration<double>{none}, count), std::invalid_argument);
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(early, 0);
}
