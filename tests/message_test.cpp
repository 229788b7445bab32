#include "bus_client/internal.h"
#include "bus_server/internal.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>

namespace bus {
namespace {

MessagePtr full(const char *data, int len) {
    static int node;
    return MessagePtr{
        busClientExMessageNew("me", "topic", "/a/b", "publish", &node, "asker", data, len)};
}

// All that a message holds but the node.
std::string told(const message_t &message) {
    std::string all;
    for (const char *text :
         {message.name, message.topic, message.url, message.action, message.request_name}) {
        all += std::string{text ? text : "NULL"} + ", ";
    }
    const auto *const payload = message.payload;
    return payload ? all + std::string(payload->data, static_cast<std::size_t>(payload->len) + 1)
                   : all + "none";
}

TEST(Message, absent_fields_stay_absent) {
    const MessagePtr message{
        busClientExMessageNew(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 9)};
    EXPECT_EQ(told(*message), "NULL, NULL, NULL, NULL, NULL, none");
    EXPECT_EQ(message->node, nullptr);
    EXPECT_EQ(busClientExMessageCopy(nullptr), nullptr);
    EXPECT_EQ(busClientExMessageDelete(nullptr), 0);
}

TEST(Message, payload_keeps_every_byte_and_ends_in_nul) {
    MessagePtr message = full("a\0b\xff", 4);
    const void *const node = message->node;
    const MessagePtr copy{busClientExMessageCopy(message.get())};
    message.reset(); // the copy owes nothing to its source
    EXPECT_EQ(told(*copy), "me, topic, /a/b, publish, asker, " + std::string("a\0b\xff\0", 5));
    EXPECT_EQ(copy->node, node);

    const MessagePtr empty = full("", 0);
    EXPECT_EQ(told(*empty), "me, topic, /a/b, publish, asker, " + std::string(1, '\0'));
    empty->payload->data = nullptr;
    empty->payload->len = 7;
    const MessagePtr hollow{busClientExMessageCopy(empty.get())};
    EXPECT_EQ(hollow->payload->data, nullptr);
    EXPECT_EQ(hollow->payload->len, 0);
}

TEST(Message, copy_can_replace_one_field) {
    const MessagePtr message = full("data", 4);
    const std::string payload("data", 5);
    const MessagePtr asked{copyForRequest(*message, "somebody with a longer name")};
    EXPECT_EQ(told(*asked), "me, topic, /a/b, publish, somebody with a longer name, " + payload);
    const MessagePtr renamed{copyWithAction(*message, action::kPublishSticky)};
    EXPECT_EQ(told(*renamed), "me, topic, /a/b, publishSticky, asker, " + payload);
}

TEST(Message, key_matches_actions_that_begin_it) {
    char key[] = "request";
    for (const auto &[action, result] :
         {std::pair{"request", 0}, {"req", 0}, {"response", -1}, {"requests", -1}}) {
        const MessagePtr message{
            busClientExMessageNew("a", nullptr, nullptr, action, nullptr, nullptr, nullptr, 0)};
        EXPECT_EQ(_message_equal(key, message.get()), result) << action;
    }
    EXPECT_EQ(_message_equal(key, nullptr), -1);
}

TEST(Message, trace_line_shows_short_texts_and_hides_the_rest) {
    client_t client;
    server_t server;
    client.name.reset(bus_mk_strdup("player"));
    const std::string shown(199, 's');
    const std::string hidden(200, 'h');
    const struct {
        const char *data;
        int len;
        std::string text;
    } kCases[] = {{nullptr, 5, "NULL, payload len: 0\n"},
                  {"", 0, "BinaryData..., payload len: 0\n"},
                  {shown.c_str(), 199, shown + ", payload len: 199\n"},
                  {hidden.c_str(), 200, "BinaryData..., payload len: 200\n"}};
    for (const auto &c : kCases) {
        const MessagePtr message{busClientExMessageNew(nullptr, "volume", nullptr, "publish",
                                                       nullptr, "me", c.data, c.len)};
        testing::internal::CaptureStdout();
        bus_log_init(0, nullptr, 0, 0);
        _busClientLogMessage(2, "==>", &client, message.get(), "busServer", 276);
        _busServerLogMessage(1, "<==", &server, message.get(), nullptr, 7);
        bus_log_exit();
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(says(log, "#  Vek-client # 276# player ==> busServer,  action: publish, "
                              "topic: volume,  url: NULL, payload: " +
                                  c.text))
            << log;
        EXPECT_TRUE(says(log, "#  Vek-server #   7# busServer <== NULL,  action: publish, topic: "
                              "volume,  url: NULL, requestor: me, payload:" +
                                  c.text))
            << log;
    }
}

TEST(Message, wake_ups_of_timers_are_not_traced) {
    client_t client;
    const MessagePtr message = ownMessage(client, nullptr, action::kSetTimer, nullptr, 0);
    testing::internal::CaptureStdout();
    bus_log_init(0, nullptr, 0, 0);
    _busClientLogMessage(2, "<==", &client, message.get(), "busServer", 1);
    bus_log_exit();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Timer, ids_run_from_2_to_32767_and_start_again) {
    client_t client;
    for (const auto &[last, next] : {std::pair{0, 2}, {2, 3}, {32766, 32767}, {32767, 2}}) {
        client.timerid = last;
        timer_t *const timer = busClientExTimerNew(&client, nullptr, -5, 7, &client);
        EXPECT_EQ(timer->id, next);
        EXPECT_EQ(timer->type, 7);
        int key = next;
        EXPECT_EQ(_timer_equal(&key, timer), 0);
        key = next + 1;
        EXPECT_EQ(_timer_equal(&key, timer), -1);
        EXPECT_EQ(busClientExTimerDelete(timer), 0);
    }
    EXPECT_EQ(busClientExTimerNew(nullptr, nullptr, 0, 0, nullptr), nullptr);
    EXPECT_EQ(busClientExTimerDelete(nullptr), 0);
}

} // namespace
} // namespace bus
