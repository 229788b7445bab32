#include "support.h"

#include <atomic>
#include <optional>

using namespace zelvo;
using Clock = std::chrono::steady_clock;

TEST(Async, many_calls_are_under_way_at_once_and_more_wait) {
    Config config = quiet();
    config.helpers = 4;
    const Bus bus{config};
    Node caller{bus, "caller"};
    std::vector<Node> called;
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    for (int i = 0; i < 8; ++i) {
        called.emplace_back(bus, "n" + std::to_string(i));
        called.back().on_call("/x", [&](std::string_view data) {
            most = std::max(most.load(), ++inside);
            std::this_thread::sleep_for(2ms);
            --inside;
            return std::string{data};
        });
    }
    std::vector<std::future<Answer>> futures;
    std::vector<std::string> completed;
    Gate done;
    for (int i = 0; i < 64; ++i) {
        const std::string url = "/n" + std::to_string(i % 8) + "/x";
        futures.push_back(caller.call_async(url, std::to_string(i)));
        caller.call_async(url, "c", [&](const Answer &answer) { // in one thread
            completed.push_back(answer.text);
            if (completed.size() == 64) {
                done.open();
            }
        });
    }
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(futures[static_cast<std::size_t>(i)].get().text, std::to_string(i));
    }
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(completed, std::vector<std::string>(64, "c"));
    EXPECT_LE(most, 4);
    EXPECT_GE(most, 2);
    EXPECT_EQ(caller.nodes().size(), 9U); // without the helpers
}

TEST(Async, a_node_that_goes_leaves_no_call_open_and_runs_no_completion) {
    const Bus bus{quiet()};
    std::optional<Node> lamp{std::in_place, bus, "lamp"};
    Gate called;
    Gate answer;
    std::atomic<int> completed{0};
    lamp->on_call("/slow", [&](std::string_view) {
        called.open();
        answer.wait();
        return "late";
    });
    const auto token = std::make_shared<int>(0);
    std::optional<Node> panel{std::in_place, bus, "panel"};
    std::future<Answer> future = panel->call_async("/lamp/slow");
    for (int i = 0; i < 30; ++i) { // more than there are helpers
        panel->call_async("/lamp/slow", {}, [&completed, token](const Answer &) { ++completed; });
    }
    // A handler that waits for itself ends with its node.
    Gate waits;
    panel->after(0ms, [&] {
        waits.open();
        panel->call_async("/panel/x").wait();
    });
    ASSERT_TRUE(called.wait());
    ASSERT_TRUE(waits.wait());
    panel.reset();
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(future.get().outcome, Outcome::none);
    answer.open();
    lamp.reset();
    EXPECT_EQ(completed, 0);
}

TEST(Async, the_time_limit_ends_calls_of_both_kinds) {
    Config config = quiet();
    config.call_timeout = 30ms;
    config.helpers = 1;
    const Bus bus{config};
    Node lamp{bus, "lamp"};
    const Node panel{bus, "panel"};
    Gate answer;
    lamp.on_call("/slow", [&](std::string_view) { return answer.wait(), "late"; });
    auto future = panel.call_async("/lamp/slow");
    EXPECT_EQ(panel.call("/lamp/slow").outcome, Outcome::none);
    EXPECT_EQ(future.get().outcome, Outcome::none);
    answer.open();
    EXPECT_EQ(panel.call_async("/lamp/y").get().outcome, Outcome::not_implemented);
}

// ---- timers ----

TEST(Timers, a_beat_keeps_its_grid_and_leaves_out_what_it_has_missed) {
    const Bus bus{quiet()};
    Node node{bus, "node"};
    constexpr auto period = 40ms;
    std::vector<Clock::duration> beats;
    Gate done;
    Timer timer;
    const auto begun = Clock::now();
    timer = node.every(period, [&] {
        beats.push_back(Clock::now() - begun);
        if (beats.size() == 1) {
            std::this_thread::sleep_for(period * 5 / 2); // misses two
        } else if (beats.size() == 4) {
            EXPECT_TRUE(timer.cancel());
            EXPECT_FALSE(timer.cancel());
            node.after(3 * period, [&] { done.open(); });
        }
    });
    ASSERT_TRUE(done.wait());
    ASSERT_EQ(beats.size(), 4U);
    for (std::size_t i = 0; i < beats.size(); ++i) { // never before its beat: 1, 4, 5, 6
        EXPECT_GE(beats[i], period * static_cast<int>(i == 0 ? 1 : i + 3));
    }
}

TEST(Timers, thousands_wait_in_order_and_cancelled_ones_are_forgotten) {
    const Bus bus{quiet()};
    Node node{bus, "node"};
    constexpr int count = 1500; // more than the bus's own timers
    std::vector<int> runs;
    Gate done;
    const auto token = std::make_shared<int>(0);
    std::vector<Timer> timers;
    Gate all;
    node.after(0ms, [&] { all.wait(); }); // nothing is due before all are set
    for (int i = count; i > 0; --i) {     // each is due before all that wait
        timers.push_back(node.after(std::chrono::microseconds{i * 20 + 500'000}, [&, i, token] {
            runs.push_back(i);
            if (i == count) {
                done.open();
            }
        }));
    }
    for (std::size_t i = 1; i < timers.size(); i += 2) {
        EXPECT_TRUE(timers[i].cancel());
    }
    EXPECT_EQ(token.use_count(), 1 + count / 2);
    all.open();
    ASSERT_TRUE(done.wait());
    ASSERT_EQ(runs.size(), static_cast<std::size_t>(count / 2));
    EXPECT_TRUE(std::is_sorted(runs.begin(), runs.end()));
    EXPECT_FALSE(timers[0].cancel());
    EXPECT_FALSE(Timer{}.cancel());
    EXPECT_THROW(node.every(0ms, [] {}), std::invalid_argument);
}
