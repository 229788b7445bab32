// The server alone, for what no application can bring about at will: messages are queued, the loop
// runs in the test's thread until the exit behind them, and node records without threads are
// looked at.
#include "bus_client/internal.h"
#include "bus_server/internal.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace bus {
namespace {

const std::string kEmpty{kEmptyAnswer};
using Texts = std::vector<std::string>;

class Server : public testing::Test {
protected:
    ~Server() override {
        bus_log_exit();
        clients_.clear(); // nodes go before the bus
        busServerDelete(server_);
    }

    client_t &record(const std::string &name) {
        client_t &client = *clients_.emplace_back(new client_t);
        client.name.reset(bus_mk_strdup(name.c_str()));
        client.server = server_;
        return client;
    }
    client_t &join(const std::string &name) {
        client_t &client = record(name);
        EXPECT_EQ(ask(client, kJoinUrl), kEmpty);
        return client;
    }

    void post(const client_t *from, const char *action, const char *topic, const char *url,
              const char *requester, const char *data = nullptr, std::uint64_t call = 0) {
        auto *const node = const_cast<client_t *>(from);
        MessagePtr message{busClientExMessageNew(from ? from->name.get() : nullptr, topic, url,
                                                 action, node, requester, data,
                                                 data ? static_cast<int>(std::strlen(data)) : 0)};
        message->call = call;
        if (node && url && std::strcmp(url, kJoinUrl) == 0) {
            holdNode(*message, *node);
        }
        ASSERT_EQ(handOver(server_->message_queue, message, -1), bus_mk_sent::kDone);
    }
    void request(const client_t &from, const char *url, const char *data = nullptr,
                 std::uint64_t call = 0) {
        post(&from, action::kRequest, nullptr, url, from.name.get(), data, call);
    }
    void respond(const client_t &from, const client_t &to, const char *url, const char *text,
                 std::uint64_t call = 0) {
        post(&from, action::kResponse, nullptr, url, to.name.get(), text, call);
        run();
    }
    // Handles what is queued, and the answers that this makes.
    void run() {
        do {
            busServerExit(server_);
            EXPECT_EQ(busServerRun(server_), 0);
        } while (bus_mk_q_count(server_->message_queue) > 0);
    }
    // The answer of one request; "-" for none.
    std::string ask(client_t &from, const char *url, const char *data = nullptr) {
        waitFor(from, 1); // which a message without a number answers
        request(from, url, data);
        run();
        return answerOf(from);
    }
    static void waitFor(client_t &client, std::uint64_t call) {
        const bus_mk_guard lock{client.oncall_mutex};
        client.call_response.reset();
        client.waiting_call = call;
    }
    static std::string answerOf(client_t &client) {
        const bus_mk_guard lock{client.oncall_mutex};
        const bool answered = client.waiting_call == 0;
        return client.call_response ? client.call_response.get() : answered ? "null" : "-";
    }
    // What waits for a node, oldest first: "action topic-or-url payload".
    static Texts taken(client_t &client) {
        Texts all;
        while (void *const item = bus_mk_q_recv(client.message_queue, 1, 0, 1)) {
            const MessagePtr message{static_cast<message_t *>(item)};
            all.push_back(std::string{message->action} + " " +
                          (message->topic ? message->topic : orNull(message->url)) + " " +
                          (message->payload ? message->payload->data : "NULL"));
        }
        return all;
    }
    static void startLog(int level) {
        testing::internal::CaptureStdout();
        bus_log_init(level, nullptr, 0, 0);
    }
    static std::string log() {
        bus_log_exit();
        return testing::internal::GetCapturedStdout();
    }

    server_t *server_ = busServerNew(nullptr);
    std::vector<ClientPtr> clients_;
};

TEST_F(Server, broken_messages_are_dropped_with_a_line) {
    const client_t &a = record("a");
    startLog(1);
    post(&a, nullptr, nullptr, nullptr, kNoRequest);
    post(nullptr, action::kPublish, "t", nullptr, kNoRequest);
    post(&a, "dance", nullptr, nullptr, kNoRequest);
    post(&a, action::kRequest, nullptr, nullptr, "a");
    post(&a, action::kPublishSticky, nullptr, nullptr, kNoRequest);
    post(&a, action::kResponse, nullptr, nullptr, nullptr);
    run();
    const std::string text = log();
    EXPECT_EQ(::count(text, "  Vek-server message body not action | name\n"), 2U) << text;
    EXPECT_EQ(::count(text, "  Vek-server not implement\n"), 1U) << text;
    EXPECT_EQ(server_->counters.no_addressee, 1U);
    EXPECT_EQ(busServerRun(nullptr), -1);
}

TEST_F(Server, second_record_of_a_name_is_refused_and_the_first_notices_nothing) {
    client_t &first = join("twin");
    waitFor(first, 1);
    client_t &second = record("twin");
    EXPECT_EQ(ask(second, kJoinUrl), "null");
    EXPECT_EQ(answerOf(first), "-");
    for (const char *url : {"/bus/disjoin", "/bus/subscribe", "/twin/x", "/localKeys/k"}) {
        request(second, url, R"(["t"])", 9); // of a record that is not on the bus
    }
    run();
    EXPECT_STREQ(second.call_name.data(), "");
    EXPECT_EQ(server_->directory.topic("t"), nullptr);
    EXPECT_EQ(server_->directory.find("twin")->node, &first);
    EXPECT_EQ(ask(first, kJoinUrl), kEmpty);
    EXPECT_EQ(bus_mk_q_count(server_->nodes_queue), 1);
}

TEST_F(Server, full_registry_and_full_sticky_store_refuse_and_say_so) {
    for (int i = 0; i < kServerQueue; ++i) {
        const client_t &node = record("n" + std::to_string(i));
        request(node, kJoinUrl);
        post(&node, action::kPublishSticky, node.name.get(), nullptr, kNoRequest, "x");
        if (i % 500 == 0) {
            run();
        }
    }
    run();
    client_t &extra = record("extra");
    startLog(2);
    EXPECT_EQ(ask(extra, kJoinUrl), "null");
    post(&extra, action::kPublishSticky, "t", nullptr, kNoRequest, "x");
    run();
    const std::string text = log();
    EXPECT_TRUE(says(text, "  Vek-server extra join failed, registry is full\n"));
    EXPECT_TRUE(says(text, "  Vek-server extra sticky topic t not kept, store is full\n"));
    EXPECT_EQ(server_->counters.sticky_full, 1U);
    EXPECT_EQ(server_->directory.find("extra"), nullptr);
    ask(*clients_.front(), "/bus/disjoin");
    EXPECT_EQ(ask(extra, kJoinUrl), kEmpty);
}

TEST_F(Server, chain_of_calls_is_followed_to_its_end) {
    const struct {
        std::vector<std::pair<const char *, const char *>> calls; // under way
        const char *caller, *callee;
        bool refused;
        std::string end; // a name that no node is found by
    } kCases[] = {{{}, "a", "a", true, ""},
                  {{{"a", "k"}}, "k", "a", true, ""},
                  {{{"a", "k"}, {"k", "m"}, {"m", "n"}}, "n", "a", true, ""},
                  {{{"a", "k"}, {"k", "m"}}, "n", "a", false, ""},
                  {{{"a", "k"}, {"k", "a"}}, "m", "a", false, ""}, // one was refused just now
                  {{}, "a", "nobody", false, "nobody"},
                  // A call to the bus is none to a node of its name.
                  {{{"a", "bus"}, {"bus", "k"}}, "k", "a", false, "bus"},
                  {{{"a", "bus"}}, "bus", "a", false, "bus"},
                  {{{"a", "k"}, {"k", "m"}, {"m", "n"}, {"n", "bu"}}, "bus", "a", false, "bu"}};
    for (const char *name : {"a", "k", "m", "n", "bus"}) {
        join(name);
    }
    for (const auto &c : kCases) {
        for (const ClientPtr &client : clients_) {
            client->call_name.fill('\0');
        }
        for (const auto &[caller, callee] : c.calls) {
            std::strcpy(server_->directory.find(caller)->node->call_name.data(), callee);
        }
        startLog(4);
        const std::string answer = ask(*server_->directory.find(c.caller)->node,
                                       (std::string{"/"} + c.callee + "/x").c_str());
        const std::string text = log();
        EXPECT_EQ(answer, c.refused ? kEmpty : c.end == c.callee ? kUnknownAnswer : "-");
        EXPECT_EQ(says(text, "exist deadlock\n"), c.refused);
        EXPECT_EQ(::count(text, " is exit\n"), c.end.empty() ? 0U : 1U) << text;
        EXPECT_TRUE(c.end.empty() || says(text, "  Vek-server client " + c.end + " is exit\n"));
    }
}

TEST_F(Server, answer_ends_only_the_call_that_it_belongs_to) {
    client_t &a = join("a");
    client_t &n = join("n");
    waitFor(a, 8);
    request(a, "/n/x", nullptr, 8);
    startLog(1);
    respond(n, a, "/n/x", "late", 7);
    EXPECT_EQ(answerOf(a), "-");
    EXPECT_STREQ(a.call_name.data(), "n");
    respond(n, a, "/n/x", "right", 8);
    EXPECT_EQ(answerOf(a), "right");
    EXPECT_STREQ(a.call_name.data(), "");
    respond(n, a, "/n/x", "stray", 8);
    EXPECT_EQ(answerOf(a), "right");
    EXPECT_EQ(::count(log(), "  Vek-server a late response dropped, url: /n/x\n"), 2U);
    EXPECT_EQ(a.counters.late_answers, 2U);
    for (const bool givenUp : {false, true}) { // which closes no ring
        waitFor(a, 5);
        request(a, "/n/x", nullptr, 5);
        run();
        waitFor(a, givenUp ? 0 : 5);
        EXPECT_EQ(ask(n, "/a/x"), givenUp ? "-" : kEmpty);
    }
    // What a node answers never takes its caller off the bus.
    respond(n, a, "/bus/disjoin", R"({"event":"disjoin"})");
    EXPECT_EQ(answerOf(a), R"({"event":"disjoin"})");
    EXPECT_NE(server_->directory.find("a"), nullptr);
}

TEST_F(Server, departed_node_is_taken_off_whenever_its_join_is_handled) {
    client_t &caller = join("caller");
    client_t &early = record("early");
    request(early, kJoinUrl);
    depart(early); // before the join is handled
    client_t &late = join("late");
    ask(late, "/bus/subscribe", R"(["t"])");
    ask(caller, "/late/x");
    depart(late);
    server_->running = 1; // the loop has begun, and has not come to the departed nodes yet
    leaveBus(late);       // does not ask to leave
    EXPECT_EQ(late.counters.calls_made, 0U);
    run();
    EXPECT_EQ(answerOf(caller), kNoHandlerAnswer);
    for (const client_t *gone : {&early, &late}) {
        EXPECT_FALSE(gone->registered);
        EXPECT_EQ(gone->references, 1);
    }
    EXPECT_EQ(server_->directory.topic("t"), nullptr);
    EXPECT_EQ(taken(join("late")), Texts{});
}

} // namespace
} // namespace bus
