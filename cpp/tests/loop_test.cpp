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

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;
};

} // namespace

TEST_F(Face, a_node_destroyed_in_its_loop_leaves_nothing_of_the_users_behind) {
    TestLoop loop;
    const auto alive = std::make_shared<int>();
    const auto executor = [post = loop.executor(), alive](Task task) { post(std::move(task)); };
    auto gui = std::make_unique<Node>(bus, "gui", executor);
    gui->subscribe("t", [alive] {});
    gui->on_call("/x", [&gui, alive, keys = gui->keys()] { // which hold the node's state
        gui.reset();
    });
    gui->after(24h, [alive] {});
    auto answer = lamp.call_async("/gui/x");
    while (gui) {
        loop.runOne();
    }
    EXPECT_EQ(answer.get().outcome, Outcome::answered);
    EXPECT_EQ(alive.use_count(), 2); // this function's
}

TEST_F(Face, everything_of_a_node_runs_in_the_loop_in_order) {
    TestLoop loop;
    Node gui{bus, "gui", loop.executor()};
    std::string heard; // without a lock
    bool done = false;
    gui.subscribe("t", [&](std::string_view data) { heard += data; });
    gui.on_call("/x", [&] { return heard += "c"; });
    for (const char *const text : {"1", "2", "3"}) {
        lamp.publish("t", text);
    }
    auto answer = lamp.call_async("/gui/x");
    PendingCall own;
    own = gui.call_async("/bus/nodes", [&](const Answer &) {
        EXPECT_FALSE(own.cancel()); // it has begun
        gui.after(1ms, [&] {
            // The call is known as one of this node.
            EXPECT_EQ(gui.call("/gui/x").outcome, Outcome::ring);
            done = true;
        });
    });
    while (!done || heard.size() < 4) {
        loop.runOne();
    }
    const PendingCall pending = gui.call_async("/bus/nodes", [](const Answer &) { ADD_FAILURE(); });
    loop.waitForOne(); // it is answered
    EXPECT_TRUE(pending.cancel());
    EXPECT_FALSE(pending.cancel());
    EXPECT_EQ(answer.get().text, "123c");
}

TEST_F(Face, a_node_goes_while_its_work_waits_in_the_loop) {
    TestLoop loop;
    std::optional<Node> gui{std::in_place, bus, "gui", loop.executor()};
    const auto token = std::make_shared<int>(0);
    gui->on_call("/x", [token, keys = gui->keys()] { ADD_FAILURE(); });
    auto answer = lamp.call_async("/gui/x");
    loop.waitForOne();
    gui.reset();
    loop.runOne();
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_NE(answer.get().outcome, Outcome::answered);
}

TEST_F(Face, a_loop_that_does_not_come_round_makes_a_slow_node) {
    TestLoop loop;
    Node gui{bus, "gui", loop.executor()};
    int heard = 0;
    gui.subscribe("t", [&] { ++heard; });
    for (int i = 0; i < 1500; ++i) { // its queue has 1,024 places, and the bus's 2,048
        lamp.publish("t");
        loop.waitForOne(); // the first has left the queue, or there would be room for the call
    }
    EXPECT_EQ(lamp.call("/gui/x").cause, Cause::no_node); // it is full
    while (heard < 1000) {
        loop.runOne();
    }
}

TEST(Loops, an_executor_that_loses_work_loses_a_message_at_most_and_no_timer) {
    Config config = quiet();
    std::atomic<int> told{0};
    config.on_error = [&](std::string_view, const std::exception_ptr &) { ++told; };
    const Bus bus{config};
    const Node lamp{bus, "lamp"};
    std::vector<Task> kept;
    for (const std::string_view way : {"throws", "returns", "keeps it and throws"}) {
        std::atomic<bool> loses{false};
        const auto executor = [&](Task task) {
            if (!loses) {
                return task();
            }
            Task gone = std::move(task);
            loses = false;
            if (way == "keeps it and throws") {
                kept.push_back(std::move(gone));
            }
            return way != "returns" ? throw std::runtime_error("full") : void();
        };
        {
            Node gui{bus, "gui", executor};
            for (int i = 0; i < 2; ++i) { // before it has done anything, and after that
                Gate done;
                loses = true;
                gui.after(0ms, [&] { done.open(); });
                while (loses) {
                    std::this_thread::yield();
                }
                EXPECT_TRUE(done.wait());
                settle(lamp, gui);
            }
        }
        Node called{bus, "called", executor};
        called.on_call("/x", [] {});
        loses = true;
        EXPECT_EQ(lamp.call("/called/x").cause, Cause::no_handler);
        EXPECT_EQ(lamp.call("/called/x").cause, Cause::answered);
    }
    EXPECT_EQ(told, 9); // of each
}

TEST_F(Face, a_polled_node_tells_by_its_descriptor_what_there_is_to_do) {
    PolledNode gui{bus, "gui"};
    EXPECT_EQ(gui.dispatch(), 0U);
    int heard = 0;
    gui.subscribe("t", [&] { ++heard; });
    lamp.publish("t");
    lamp.publish("t");
    ASSERT_TRUE(isReadable(gui, kLimit));
    EXPECT_EQ(gui.dispatch(0), 0U);
    EXPECT_EQ(gui.dispatch(1), 1U);
    EXPECT_EQ(heard, 1);
    while (heard < 2) {
        ASSERT_TRUE(isReadable(gui, kLimit));
        gui.dispatch();
    }
    EXPECT_FALSE(isReadable(gui));
    EXPECT_EQ(gui.dispatch_for(1ms), 0U);
    auto brief = std::make_unique<PolledNode>(bus, "brief");
    brief->subscribe({"t", "end"}, [&](std::string_view topic, auto) {
        topic == "end" ? brief.reset() : void();
    });
    lamp.publish("t");
    lamp.publish("end");
    EXPECT_EQ(brief->dispatch_for(24h), 2U); // until it goes
    PolledNode moved = std::move(gui);
    EXPECT_THROW(gui.dispatch(), std::logic_error); // NOLINT(bugprone-use-after-move)
    EXPECT_THROW(static_cast<void>(gui.fd()), std::logic_error);
    lamp.publish("t"); // and nobody comes for it
    ASSERT_TRUE(isReadable(moved, kLimit));
}
