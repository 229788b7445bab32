// Nodes whose handlers run in the application's own loop.
#include "support.h"

#include <deque>

using namespace zelvo;

namespace {

// A loop that runs what it is given in the thread that calls run().
class TestLoop {
public:
    auto executor() {
        return [this](Task task) {
            const std::lock_guard lock{mutex_};
            tasks_.push_back(std::move(task));
            changed_.notify_one();
        };
    }
    void waitForOne() {
        std::unique_lock lock{mutex_};
        ASSERT_TRUE(changed_.wait_for(lock, kLimit, [this] { return !tasks_.empty(); }));
    }
    void runOne() {
        waitForOne();
        std::unique_lock lock{mutex_};
        Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
    }
    void drop() {
        const std::lock_guard lock{mutex_};
        tasks_.clear();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;
};

} // namespace

TEST(Loops, everything_of_a_node_runs_in_the_loop_in_order) {
    const Bus bus{quiet()};
    TestLoop loop;
    Node gui{bus, "gui", loop.executor()};
    const Node lamp{bus, "lamp"};
    std::string heard; // without a lock
    bool completed = false;
    bool done = false;
    gui.subscribe("t", [&](std::string_view data) { heard += data; });
    gui.on_call("/x", [&] { return heard += "c"; });
    for (const char *const text : {"1", "2", "3"}) {
        lamp.publish("t", text);
    }
    auto answer = lamp.call_async("/gui/x");
    gui.call_async("/bus/nodes", [&](const Answer &) {
        completed = true;
        gui.after(1ms, [&] {
            // The call is known as one of this node.
            EXPECT_EQ(gui.call("/gui/x").outcome, Outcome::ring);
            done = true;
        });
    });
    while (!done || heard.size() < 4) {
        loop.runOne();
    }
    EXPECT_TRUE(completed);
    const PendingCall pending = gui.call_async("/bus/nodes", [](const Answer &) { ADD_FAILURE(); });
    loop.waitForOne(); // it is answered
    EXPECT_TRUE(pending.cancel());
    EXPECT_FALSE(pending.cancel());
    EXPECT_EQ(answer.get().text, "123c");
}

TEST(Loops, a_node_goes_while_its_work_waits_or_runs_in_the_loop) {
    const Bus bus{quiet()};
    const Node lamp{bus, "lamp"};
    for (const std::string way : {"waits", "runs", "dropped"}) {
        SCOPED_TRACE(way);
        TestLoop loop;
        std::optional<Node> gui{std::in_place, bus, way, loop.executor()};
        const auto token = std::make_shared<int>(0);
        gui->on_call("/x", [&, token] {
            EXPECT_EQ(way, "runs");
            gui.reset();
            ++*token;
        });
        auto answer = lamp.call_async("/" + way + "/x");
        if (way == "waits") {
            loop.waitForOne();
            gui.reset();
            loop.runOne();
            EXPECT_EQ(token.use_count(), 1);
        } else if (way == "runs") {
            loop.runOne();
            EXPECT_EQ(*token, 1);
        } else {
            loop.waitForOne();
            loop.drop();
        }
        EXPECT_EQ(answer.get().outcome == Outcome::answered, way == "runs");
    }
}

TEST(Loops, a_loop_that_does_not_come_round_makes_a_slow_node) {
    const Bus bus{quiet()};
    TestLoop loop;
    Node gui{bus, "gui", loop.executor()};
    const Node lamp{bus, "lamp"};
    int heard = 0;
    gui.subscribe("t", [&] { ++heard; });
    EXPECT_EQ(lamp.call_for(50ms, "/gui/x").cause, Cause::timed_out);
    for (int i = 0; i < 1500; ++i) { // its queue has 1,024 places, and the bus's 2,048
        lamp.publish("t");
    }
    EXPECT_EQ(lamp.call("/gui/x").cause, Cause::no_node); // it is full
    while (heard < 1000) {
        loop.runOne();
    }
}

TEST(Loops, an_executor_that_throws_loses_the_message_and_no_more) {
    Config config = quiet();
    std::atomic<int> told{0};
    config.on_error = [&](std::string_view, const std::exception_ptr &) { ++told; };
    const Bus bus{config};
    Node gui{bus, "gui", [](Task task) {
                 const Task gone = std::move(task);
                 throw std::runtime_error("full");
             }};
    const Node lamp{bus, "lamp"};
    EXPECT_EQ(lamp.call("/gui/x").cause, Cause::no_handler);
    EXPECT_EQ(told, 1);
}

TEST(Loops, a_polled_node_tells_by_its_descriptor_what_there_is_to_do) {
    const Bus bus{quiet()};
    PolledNode panel{bus, "panel"};
    const Node lamp{bus, "lamp"};
    EXPECT_EQ(panel.dispatch(), 0U);
    int heard = 0;
    panel.subscribe("t", [&] { ++heard; });
    lamp.publish("t");
    lamp.publish("t");
    awaitReadable(panel);
    EXPECT_EQ(panel.dispatch(0), 0U);
    EXPECT_EQ(panel.dispatch(1), 1U);
    EXPECT_EQ(heard, 1);
    while (heard < 2) {
        awaitReadable(panel);
        panel.dispatch();
    }
    EXPECT_FALSE(isReadable(panel));
    lamp.publish("t"); // and nobody comes for it
    awaitReadable(panel);
}
