#include "support.h"

#include <array>

using namespace zelvo;

namespace {

void flood(const Node &from, const char *topic) {
    for (int i = 0; i < 1500; ++i) { // a node's queue has 1,024 places
        from.publish(topic, "again");
    }
}

} // namespace

// ---- publishing and subscribing ----

TEST_F(Face, topics_of_any_bytes_reach_their_handler_and_no_other) {
    const std::vector<std::string> topics = {
        "",  "qu\"ote\\", "line\n\x01\x1f\x7f", "\xC3\xA4\xF0\x9F\x92\xA1 \xFF", "a\",\"b",
        "b", "a"};
    std::vector<std::string> heard;
    panel.subscribe(topics, [&](std::string_view topic, std::string_view data) {
        heard.push_back(std::string{topic} + "=" + std::string{data});
    });
    std::vector<std::string> expected;
    for (const std::string &topic : topics) {
        lamp.publish(topic, std::array<unsigned char, 3>{'x', 0, 'y'});
        expected.push_back(topic + std::string("=x\0y", 4));
    }
    settle(lamp, panel);
    EXPECT_EQ(heard, expected);
    panel.unsubscribe({topics[1], topics[2]});
    heard.clear();
    lamp.publish(topics[1]);
    settle(lamp, panel);
    EXPECT_TRUE(heard.empty());
    panel.unsubscribe({topics[3]});
    const std::string nul("a\0b", 3);
    EXPECT_THROW(lamp.publish(nul), std::invalid_argument);
    EXPECT_THROW(lamp.publish("t", static_cast<const char *>(nullptr)), std::invalid_argument);
    EXPECT_THROW(DataView(static_cast<const char *>(nullptr), 1), std::invalid_argument);
    EXPECT_THROW(lamp.on_call(Service<int, int>{nullptr}, nullptr), std::invalid_argument);
    EXPECT_THROW(panel.subscribe(nul, [](std::string_view) {}), std::invalid_argument);
}

TEST_F(Face, a_handler_replaces_itself_and_stays_whole_until_it_returns) {
    const auto token = std::make_shared<int>(1);
    lamp.on_call("/who", [&, token](std::string_view) -> std::string {
        lamp.on_call("/who", [](std::string_view) { return "second"; });
        lamp.call("/bus/nodes"); // gives a change time to be made too early
        return "first " + std::to_string(*token);
    });
    EXPECT_EQ(panel.call("/lamp/who").text, "first 1");
    EXPECT_EQ(panel.call("/lamp/who").text, "second");
    EXPECT_EQ(token.use_count(), 1);
    lamp.on_call("/who", nullptr);
    EXPECT_EQ(panel.call("/lamp/who").outcome, Outcome::not_implemented);
}

TEST_F(Face, handlers_of_a_topic_add_up_and_each_can_be_cancelled) {
    std::string heard;
    const auto add = [&](const char *what) {
        return [&heard, what, only = std::make_unique<int>(0)](std::string_view) { heard += what; };
    };
    const Subscription first = panel.subscribe("t", add("a"));
    Subscription second; // cancels the third and itself
    Subscription third;
    second = panel.subscribe("t", [&](const std::string &topic, const std::string &data) {
        heard += topic + data;
        EXPECT_TRUE(third.cancel());
        EXPECT_TRUE(second.cancel());
    });
    third = panel.subscribe("t", "other", add("c"));
    lamp.publish("t", u8"!");
    settle(lamp, panel);
    EXPECT_EQ(heard, "at!");
    lamp.publish("t");
    lamp.publish("other");
    settle(lamp, panel);
    EXPECT_EQ(heard, "at!a");
    EXPECT_TRUE(first.cancel());
    EXPECT_FALSE(first.cancel());
    const Subscription removed = panel.subscribe("t", add("d"));
    panel.unsubscribe({"t"});
    panel.subscribe("t", [&](std::string_view topic, std::string_view data) {
        lamp.publish("forwarded", data);
        lamp.publish(topic.substr(0, 0), topic); // a topic that has no NUL behind it
    });
    panel.subscribe({"forwarded", ""}, add("e"));
    EXPECT_FALSE(removed.cancel());
    lamp.publish("t");
    settle(lamp, panel);
    settle(lamp, panel);
    EXPECT_EQ(heard, "at!aee");
}

TEST_F(Face, a_sticky_message_finds_its_handler) {
    std::atomic<int> heard{0};
    Subscription last;
    for (int i = 0; i < 100; ++i) {
        const std::string topic = std::to_string(i);
        lamp.publish_sticky(topic, std::array<char, 1>{'x'});
        last = panel.subscribe(topic, [&] { ++heard; });
    }
    settle(lamp, panel);
    EXPECT_EQ(heard, 100);
    EXPECT_TRUE(last.cancel()); // the bus, too, knows of no subscription
    panel.subscribe("99", [&] { ++heard; });
    settle(lamp, panel);
    EXPECT_EQ(heard, 101);
}

TEST_F(Face, changes_by_several_threads_are_the_same_for_node_and_bus) {
    const auto change = [&] {
        for (int i = 0; i < 200; ++i) {
            panel.subscribe("t", [](std::string_view) {});
            panel.unsubscribe("t");
        }
    };
    std::thread other{change};
    change();
    other.join();
    std::atomic<int> heard{0};
    panel.subscribe("t", [&] { ++heard; });
    lamp.publish("t");
    settle(lamp, panel);
    EXPECT_EQ(heard, 1);
}

TEST_F(Face, an_idle_node_lets_go_of_handlers_it_has_no_more_also_without_an_answer) {
    Gate released;
    std::optional<Node> other{std::in_place, bus, "other"};
    std::shared_ptr<Gate> token{&released, [](Gate *gate) { gate->open(); }};
    for (int i = 0; i < 100; ++i) {
        const auto one = lamp.subscribe(i % 2 == 0 ? "t" : "ended", [token](std::string_view) {});
        EXPECT_TRUE(i % 2 == 0 || one.cancel());
    }
    token.reset();
    busClientServerExit(bus.native());
    other.reset(); // its leaving is not answered: it waits until the bus has stopped
    flood(lamp, "full");
    flood(lamp, "full"); // more than the bus's queue of 2,048 places
    for (int i = 0; i < 16; ++i) {
        EXPECT_THROW(lamp.unsubscribe("t"), Error);
    }
    EXPECT_TRUE(released.wait());
}

// ---- calls ----

TEST_F(Face, a_call_tells_how_it_ended) {
    lamp.on_call("/state", [](std::string_view data) { return "on " + std::string{data}; });
    const struct {
        const char *url;
        Outcome outcome;
        std::string text;
    } cases[] = {
        {"/lamp/state", Outcome::answered, "on x"},
        {"/lamp/attic", Outcome::not_implemented, R"({"msg":"not implement"})"},
        {"/nobody/x", Outcome::not_implemented, R"({"data":"not implement"})"},
        {"", Outcome::not_implemented, R"({"data":"not implement"})"},
        {"/panel/itself", Outcome::ring, R"({"data":""})"},
        {"/localKeys/none", Outcome::answered, R"({"data":""})"},
    };
    for (const auto &entry : cases) {
        const Answer answer = panel.call(entry.url, "x");
        EXPECT_EQ(answer.outcome, entry.outcome) << entry.url;
        EXPECT_EQ(answer.text, entry.text) << entry.url;
    }
    lamp.on_call([](std::string_view path, std::string_view) { return std::string{path}; });
    EXPECT_EQ(panel.call("/lamp/attic/left").text, "/attic/left");
    EXPECT_THROW(lamp.on_call("state", nullptr), std::invalid_argument);
}

TEST_F(Face, a_handler_answers_with_whatever_can_be_a_text) {
    lamp.on_call("/view",
                 [](const std::string &data) { return std::string_view{data}.substr(10); });
    lamp.on_call("/int", [] { return 42; });
    lamp.on_call("/double", [](std::string_view) { return 0.1; });
    lamp.on_call("/bool", [] { return true; });
    lamp.on_call("/char", [] { return 'c'; });
    lamp.on_call("/nothing", [only = std::make_unique<int>(0)] {});
    lamp.on_call("/none", [] { return std::optional<int>{}; });
    lamp.on_call("/some", [](std::string_view path, std::string_view) {
        return std::optional{path.size()};
    });
    const struct {
        const char *path;
        std::string text;
        Cause cause;
    } cases[] = {
        {"view", "abcdefghij", Cause::answered}, {"int", "42", Cause::answered},
        {"double", "0.1", Cause::answered},      {"bool", "true", Cause::answered},
        {"nothing", "", Cause::answered},        {"none", "", Cause::no_handler},
        {"some", "5", Cause::answered},          {"char", "c", Cause::answered},
    };
    for (const auto &entry : cases) {
        const Answer answer =
            panel.call(std::string{"/lamp/"} + entry.path, "0123456789abcdefghij");
        EXPECT_EQ(answer.cause, entry.cause) << entry.path;
        EXPECT_TRUE(!answer || answer.text == entry.text) << answer.text;
    }
    EXPECT_THROW(lamp.on_call("/x", std::function<int()>{}), std::invalid_argument);
    EXPECT_THROW(lamp.subscribe("t", std::function<void()>{}), std::invalid_argument);
    EXPECT_THROW(lamp.after(0ms, std::function<void()>{}), std::invalid_argument);
    void (*const none)(const Answer &) = nullptr;
    EXPECT_THROW(lamp.call_async("/x", none), std::invalid_argument);
}

TEST_F(Face, threads_that_call_through_one_node_take_turns_and_get_their_own_answers) {
    lamp.on_call("/echo", [](auto data) { return data.remove_prefix(0), data; });
    std::atomic<long> calls{0};
    std::atomic<bool> over{false};
    std::thread other{[&, text = std::string(40, 'a')] {
        while (!over) {
            EXPECT_EQ(panel.call("/lamp/echo", text).text, text);
            ++calls;
        }
    }};
    const std::string text(90, 'b');
    std::vector<long> overtaken;
    for (int i = 0; i < 501; ++i) {
        const long before = calls;
        EXPECT_EQ(panel.call("/lamp/echo", text).text, text);
        overtaken.push_back(calls - before);
    }
    over = true;
    other.join();
    std::nth_element(overtaken.begin(), overtaken.begin() + 250, overtaken.end());
    EXPECT_LE(overtaken[250], 5); // where a thread is not asleep before it waits
}

TEST(FaceCalls, one_that_has_waited_for_its_turn_is_left_to_a_helper_and_ends_in_time) {
    Config config = quiet();
    config.call_timeout = 2s;
    const Bus bus{config};
    PolledNode lamp{bus, "lamp"}; // whose loop comes round late
    const Node panel{bus, "panel"};
    const auto call = [&] { return panel.call("/lamp/x").cause; };
    auto first = std::async(std::launch::async, call);
    EXPECT_TRUE(isReadable(lamp, kLimit));
    auto second = std::async(std::launch::async, call);
    std::this_thread::sleep_for(600ms); // of its time, more than a small part
    lamp.dispatch(1);
    EXPECT_TRUE(isReadable(lamp, kLimit));
    EXPECT_NE(panel.call("/bus/nodes").text.find("zelvo/helper/panel/"), std::string::npos);
    EXPECT_NE(second.wait_for(0s), std::future_status::ready); // it keeps no turn
    EXPECT_EQ(first.get(), Cause::no_handler);
    EXPECT_EQ(second.get(), Cause::timed_out);
}

TEST(FaceErrors, what_handlers_throw_goes_to_the_hook_and_the_node_goes_on) {
    Config config = quiet();
    std::string told;
    config.on_error = [&](std::string_view node, const std::exception_ptr &error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::runtime_error &failure) {
            told += std::string{node} + ":" + failure.what() + " ";
        }
        throw 1; // ends in a line on standard error
    };
    const Bus bus{config};
    Node lamp{bus, "lamp"};
    const auto fail = [](const char *what) { throw std::runtime_error(what); };
    Gate done;
    testing::internal::CaptureStderr();
    lamp.subscribe("t", [&](std::string_view) { fail("message"); });
    lamp.on_call("/x", [&](std::string_view) { return fail("call"), ""; });
    lamp.publish("t");
    lamp.call_async("/lamp/x", {}, [&](const Answer &answer) {
        lamp.after(0ms, [&] { done.open(); });
        lamp.after(0ms, [&] { fail("never"); }).cancel();
        fail(answer.outcome == Outcome::not_implemented ? "completion" : "answered");
    });
    EXPECT_TRUE(done.wait());
    config.on_error = nullptr;
    const Bus other{config};
    Node guest{other, "guest"};
    guest.on_call("/x", [&] { fail("without a hook"); });
    guest.call_async("/guest/x").wait();
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("node lamp: a handler has thrown\n"), said.npos) << said;
    EXPECT_NE(said.find("node guest: without a hook\n"), said.npos) << said;
    EXPECT_EQ(told, "lamp:message lamp:call lamp:completion ");
}

// ---- the end ----

TEST(FaceEnd, a_node_destroyed_in_its_own_handler_leaves_when_the_handler_has_ended) {
    for (const std::string way : {"message", "owner"}) {
        std::optional<Bus> bus{quiet()};
        std::optional<Node> panel{std::in_place, *bus, "panel"};
        auto lamp = std::make_unique<Node>(*bus, "lamp");
        std::atomic<bool> gone{false};
        const auto go = [&](void *) { std::this_thread::sleep_for(50ms), gone = true; };
        auto end = [&, token = std::shared_ptr<void>{&gone, go}] {
            lamp.reset();
            EXPECT_FALSE(gone); // what the handler has captured is still there
        };
        if (way == "message") {
            lamp->subscribe("end", [end = std::move(end)](std::string_view) { end(); });
            flood(*panel, "end");
        } else { // with the handler that owns it
            lamp->subscribe("owner",
                            [end = std::move(end), owner = std::shared_ptr{std::move(lamp)}](
                                std::string_view) mutable { owner.reset(), end(); });
            bus.reset();
            panel->publish("owner");
        }
        for (const auto begun = std::chrono::steady_clock::now();
             panel->nodes().size() > 1 && std::chrono::steady_clock::now() - begun < kLimit;) {
            std::this_thread::yield();
        }
        bus.reset(); // waits for the thread; or the last node does
        panel.reset();
        EXPECT_TRUE(gone) << way;
    }
}

TEST(FaceEnd, a_full_queue_does_not_keep_a_node_and_no_handler_begins) {
    const Bus bus{quiet()};
    std::atomic<int> handled{0};
    Gate running;
    Gate ending;
    Gate done;
    std::atomic<bool> ended{false};
    Node panel{bus, "panel"};
    Node guard{bus, "guard"};
    guard.on_call("/x", [&](std::string_view) { return ending.wait(), ""; });
    std::optional<Node> lamp{std::in_place, bus, "lamp"};
    lamp->subscribe("t", [&](std::string_view) {
        ++handled;
        running.open();
        ending.wait();
        std::this_thread::sleep_for(50ms);
        ended = true;
    });
    panel.publish("t");
    ASSERT_TRUE(running.wait());
    auto unanswered = lamp->call_async("/guard/x");
    flood(panel, "t");
    EXPECT_EQ(panel.call("/lamp/x").text, R"({"data":"not implement"})"); // it is full
    std::thread opener{[&] {
        EXPECT_EQ(unanswered.get().outcome, Outcome::none); // the destructor has begun
        ending.open();
    }};
    panel.after(0ms, [&] { // waits for the handler also in one
        lamp.reset();
        EXPECT_TRUE(ended);
        done.open();
    });
    EXPECT_TRUE(done.wait());
    opener.join();
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(panel.nodes(), (std::vector<std::string>{"panel", "guard"}));
}

TEST(FaceEnd, nodes_and_their_bus_go_in_any_order) {
    std::optional<Bus> bus{quiet()};
    Node lamp{*bus, "lamp"};
    Node panel{*bus, "panel"};
    bus.reset();
    lamp.on_call("/state", [](std::string_view) { return "on"; });
    EXPECT_EQ(panel.call("/lamp/state").text, "on");
    Node moved = std::move(lamp);
    Node &same = moved;
    moved = std::move(same);
    EXPECT_EQ(panel.call("/lamp/state").text, "on");
    EXPECT_THROW(lamp.publish("t"), std::logic_error); // NOLINT(bugprone-use-after-move)
    EXPECT_THROW(static_cast<void>(lamp.keys()), std::logic_error);
    const Keys keys = panel.keys();
    panel = std::move(moved);
    EXPECT_THROW(static_cast<void>(keys.get("of a node that has gone")), Error);
    EXPECT_EQ(panel.nodes(), std::vector<std::string>{"lamp"});
    const Keys last = panel.keys();
    std::optional<Node>{std::move(panel)}.reset();
    EXPECT_THROW(static_cast<void>(last.get("of a bus that has gone")), Error);
}

TEST_F(Face, a_node_goes_while_others_wait_for_an_answer_of_its_calls) {
    Gate called;
    Gate answer;
    const std::string large(1 << 26, 'x'); // takes a while to be copied
    lamp.on_call("/x", [&]() -> const std::string & {
        called.open();
        answer.wait();
        return large;
    });
    std::optional<Node> guest{std::in_place, bus, "guest"};
    std::thread caller{
        [&node = *guest, &large] { EXPECT_TRUE(node.call("/lamp/x").text == large); }};
    ASSERT_TRUE(called.wait());
    guest.reset();
    answer.open();
    caller.join();
}

TEST_F(Face, whoever_asks_through_a_node_again_and_again_is_told_when_it_has_gone) {
    std::optional<Node> guest{std::in_place, bus, "guest"};
    Gate asked;
    std::thread other{[&, keys = guest->keys()] {
        EXPECT_THROW(
            for (;; asked.open()) { static_cast<void>(keys.get("none")); }, Error);
    }};
    EXPECT_TRUE(asked.wait());
    guest.reset();
    other.join();
}

TEST_F(Face, what_goes_with_a_node_finds_its_timers_over) {
    struct Owner { // goes in the node's thread
        ~Owner() { EXPECT_TRUE(!timer.cancel() && std::this_thread::get_id() != destroyer); }
        Timer timer;
        std::thread::id destroyer = std::this_thread::get_id();
    };
    const Timer timer = panel.after(90min, [] {});
    for (const auto wait : {1h, 2h}) { // one of them goes before the timer
        panel.after(wait, [owner = std::shared_ptr<Owner>{new Owner{timer}}] {});
    }
}

TEST_F(Face, a_handler_destroys_a_node_that_waits_for_it) {
    std::optional<Node> guest{std::in_place, bus, "guest"};
    panel.on_call("/x", [&] { return panel.call("/lamp/x").text; });
    lamp.on_call("/x", [&] { guest.reset(); });
    Gate done;
    guest->after(0ms, [&, &node = *guest] {
        EXPECT_EQ(node.call("/panel/x").outcome, Outcome::answered);
        done.open();
    });
    EXPECT_TRUE(done.wait());
}

TEST_F(Face, a_handler_that_outlasts_its_node_gets_no_answer_any_more) {
    lamp.on_call("/x", [] {});
    std::optional<Node> guest{std::in_place, bus, "guest"};
    Gate running;
    guest->after(0ms, [&running, &node = *guest] {
        const auto self = node.call_async("/guest/x"); // answered when the node goes
        running.open();
        self.wait();
        EXPECT_EQ(node.call("/lamp/x").cause, Cause::left);
        EXPECT_EQ(node.call_async("/lamp/x").get().cause, Cause::left);
        std::shared_ptr<Node> last{&node, [](Node *gone) { gone->call_async("/lamp/x"); }};
        node.call_async("/lamp/x", [last = std::move(last)](const Answer &) { ADD_FAILURE(); });
        node.after(0ms, [] { ADD_FAILURE(); });
    });
    ASSERT_TRUE(running.wait());
    guest.reset();
}
