#include "bus_client/internal.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Message, copies_hold_all_but_the_reference) {
    client_t client;
    message_t none{};
    EXPECT_EQ(_message_equal(nullptr, &none) + _message_equal(nullptr, nullptr), -2);
    const std::string data(200, 's');
    for (const std::size_t length : {0U, 1U, 199U, 200U}) {
        MessagePtr message{busClientExMessageNew("me", nullptr, "/a/b", "request", &client, nullptr,
                                                 data.c_str(), static_cast<int>(length))};
        holdNode(*message, client);
        message->call = 7;
        EXPECT_EQ(client.references, 2);
        message.reset(busClientExMessageCopy(message.get()));
        message.reset(copyForRequest(*message, "asker"));
        message.reset(copyWithAction(*message, Action::kExit));
        EXPECT_EQ(client.references, 1);
        EXPECT_EQ(message->call, 7U);
        EXPECT_EQ(_message_equal(message->action, message.get()), 0);
        EXPECT_EQ(_message_equal(message->name, message.get()), -1);
        EXPECT_TRUE(message->node == &client && message->kind == Action::kExit && !message->topic);
        EXPECT_EQ(std::string{message->name} + message->url + message->request_name, "me/a/basker");
        EXPECT_EQ(message->payload->data, data.substr(0, length));
        EXPECT_EQ(tracedPayload(message->payload),
                  length % 200 == 0 ? "BinaryData..." : data.substr(0, length));
        message->payload->data = nullptr;
        message.reset(busClientExMessageCopy(message.get()));
        EXPECT_TRUE(!message->payload->data && message->payload->len == 0);
        EXPECT_EQ(busClientExMessageDelete(message.release()), 0);
    }
}

} // namespace bus
