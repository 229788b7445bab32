#include "bus_client/internal.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Message, copies_hold_all_but_the_reference) {
    client_t client;
    message_t none{};
    MessagePtr message{
        busClientExMessageNew("me", nullptr, "/a/b", "request", &client, nullptr, "data", 4)};
    EXPECT_EQ(_message_equal(nullptr, &none) + _message_equal(nullptr, nullptr), -2);
    EXPECT_EQ(_message_equal(message->name, message.get()), -1);
    holdNode(*message, client);
    message.reset(busClientExMessageCopy(message.get()));
    message.reset(copyForRequest(*message, "asker"));
    message.reset(copyWithAction(*message, Action::kExit));
    EXPECT_EQ(client.references, 1);
    EXPECT_EQ(std::string{message->name} + message->url + message->request_name, "me/a/basker");
    EXPECT_STREQ(message->payload->data, "data");
}

} // namespace bus
