#include "bus_client/internal.h"
#include "bus_server/internal.h"
#include "test_support.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Message, copies_and_trace_lines_tell_all_that_it_holds) {
    client_t client;
    server_t server;
    client.name.reset(bus_mk_strdup("player"));
    const MessagePtr wakeUp = ownMessage(client, nullptr, action::kSetTimer, nullptr, 0);
    const std::string data = std::string(199, 's') + '\0';
    for (const std::size_t size : {0U, 199U, 200U}) {
        const int len = static_cast<int>(size);
        MessagePtr message{busClientExMessageNew("me", "volume", "/a/b", "publish", &client,
                                                 "asker", data.c_str(), len)};
        message.reset(copyForRequest(*message, "somebody else"));
        message.reset(copyWithAction(*message, action::kExit));
        EXPECT_TRUE(message->node == &client && message->kind == Action::kExit);
        holdNode(*message, client);
        EXPECT_EQ(client.references, 2);
        message.reset(busClientExMessageCopy(message.get())); // which owns none
        EXPECT_EQ(client.references, 1);
        EXPECT_EQ(std::string(message->payload->data, size + 1), data.substr(0, size) + '\0');
        testing::internal::CaptureStdout();
        bus_log_init(0, nullptr, 0, 0);
        _busClientLogMessage(2, "==>", &client, wakeUp.get(), "busServer", 1); // is not traced
        _busClientLogMessage(2, "==>", &client, message.get(), "busServer", 276);
        _busServerLogMessage(1, "<==", &server, message.get(), message->name, 7);
        bus_log_exit();
        const std::string log = testing::internal::GetCapturedStdout();
        const std::string end = (size == 199 ? data.c_str() : "BinaryData...") +
                                (", payload len: " + std::to_string(size)) + '\n';
        EXPECT_TRUE(says(log, "# 276# player ==> busServer,  action: exit, topic: volume,  "
                              "url: /a/b, payload: " +
                                  end));
        EXPECT_TRUE(says(log, "#   7# busServer <== me,  action: exit, topic: volume,  "
                              "url: /a/b, requestor: somebody else, payload:" +
                                  end));
        EXPECT_EQ(::count(log, "\n"), 2U);
    }
}

TEST(Message, absent_fields_stay_absent_and_a_key_matches_actions_that_begin_it) {
    char key[] = "request";
    const std::pair<const char *, int> kActions[] = {
        {"request", 0}, {"req", 0}, {"requests", -1}, {"", 0}, {nullptr, -1}};
    for (const auto &[action, result] : kActions) {
        const MessagePtr message{
            busClientExMessageNew(nullptr, nullptr, nullptr, action, nullptr, nullptr, nullptr, 9)};
        const MessagePtr copy{busClientExMessageCopy(message.get())};
        EXPECT_EQ(_message_equal(key, copy.get()), result);
        EXPECT_TRUE(!copy->name && !copy->topic && !copy->url && !copy->request_name);
        EXPECT_STREQ(tracedPayload(copy->payload), "NULL");
    }
    EXPECT_EQ(busClientExMessageCopy(nullptr), nullptr);
    EXPECT_EQ(busClientExMessageDelete(nullptr), 0);
}

TEST(Timer, ids_run_from_2_to_32767_and_start_again) {
    client_t client;
    for (const auto &[last, next] : {std::pair{0, 2}, {2, 3}, {32766, 32767}, {32767, 2}}) {
        client.timerid = last;
        timer_t *const timer = busClientExTimerNew(&client, nullptr, -5, 7, &client);
        EXPECT_EQ(timer->id, next);
        EXPECT_EQ(_timer_equal(&timer->id, timer), 0);
        EXPECT_EQ(_timer_equal(&timer->type, timer), -1);
        busClientExTimerDelete(timer);
    }
    EXPECT_EQ(busClientExTimerNew(nullptr, nullptr, 0, 0, nullptr), nullptr);
}

} // namespace bus
