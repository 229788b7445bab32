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
    int completed = 0; // in one thread
    Gate done;
    for (int i = 0; i < 64; ++i) {
        const std::string url = "/n" + std::to_string(i % 8) + "/x";
        futures.push_back(caller.call_async(url, std::to_string(i)));
        caller.call_async(url, "c", [&](const Answer &answer) {
            if (answer.text == "c" && ++completed == 64) {
                done.open();
            }
        });
    }
    for (std::size_t i = 0; i < futures.size(); ++i) {
        EXPECT_EQ(futures[i].get().text, std::to_string(i));
    }
    EXPECT_TRUE(done.wait());
    EXPECT_LE(most, 4);
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

// ---- timers ----

TEST(Timers, a_beat_keeps_its_grid_and_leaves_out_what_it_has_missed) {
    const Bus bus{quiet()};
    Node node{bus, "node"};
    constexpr auto period = 40ms;
    std::vector<Clock::duration> beats;
    Gate done;
    const auto begun = Clock::now();
    node.every(period, [&](Timer timer) {
        beats.push_back(Clock::now() - begun);
        if (beats.size() == 1) {
            std::this_thread::sleep_for(period * 5 / 2); // misses two
        } else if (beats.size() == 3) {
            EXPECT_TRUE(timer.cancel());
            EXPECT_FALSE(timer.cancel());
            node.after(3 * period, [&] { done.open(); });
        }
    });
    ASSERT_TRUE(done.wait());
    ASSERT_EQ(beats.size(), 3U); // the first, the fourth and the fifth, or later ones
    EXPECT_GE(beats[0], period);
    EXPECT_GE(beats[1], period * 4);
    EXPECT_GE(beats[2], period * 5);
}

TEST(Timers, thousands_wait_and_cancelled_ones_are_forgotten) {
    const Bus bus{quiet()};
    Node node{bus, "node"};
    constexpr int count = 1500; // more than the bus's own timers
    std::vector<Timer> timers;
    std::atomic<int> runs{0};
    const auto token = std::make_shared<int>(0);
    Gate set;
    Gate done;
    node.after(0ms, [&] { set.wait(); }); // none runs before all are set
    for (int i = count; i > 0; --i) {     // on most machines each is due before all that wait
        timers.push_back(node.after(i * 100us, [&, token] {
            if (++runs == count / 2) {
                done.open();
            }
        }));
    }
    for (std::size_t i = 1; i < timers.size(); i += 2) {
        EXPECT_TRUE(timers[i].cancel());
    }
    EXPECT_EQ(token.use_count(), 1 + count / 2);
    set.open();
    ASSERT_TRUE(done.wait());
    EXPECT_FALSE(timers[0].cancel());
    EXPECT_THROW(node.every(0ms, [] {}), std::invalid_argument);
}
