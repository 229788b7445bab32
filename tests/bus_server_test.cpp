// What no application sees or can bring about at will.
#include "bus_client/internal.h"
#include "bus_server/internal.h"
#include "running.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Server, broken_messages_change_nothing_and_nothing_is_kept_of_a_topic_that_nobody_has) {
    const Bus bus{1};
    Node a{bus, "a"};
    server_t &server = *bus.get()->server;
    for (const char *action : {"no such", "", action::kRequest, action::kResponse,
                               action::kPublishSticky, action::kRemoveSticky}) {
        for (const char *name : {"a", ""}) { // empty: none
            MessagePtr message{busClientExMessageNew(*name ? name : nullptr, nullptr, nullptr,
                                                     *action ? action : nullptr, a.get(), nullptr,
                                                     nullptr, 0)};
            EXPECT_EQ(postToServer(server, message), bus_mk_sent::kDone);
        }
    }
    MessagePtr late{
        busClientExMessageNew("a", nullptr, "/a/x", action::kResponse, a.get(), "a", nullptr, 0)};
    late->call = 99;
    EXPECT_EQ(postToServer(server, late), bus_mk_sent::kDone);
    a.subscribe(R"(["t"])");
    busClientUnsubscribe(a.get(), R"(["t"])");
    busClientPublishSticky(a.get(), "s", nullptr, 0);
    busClientRemoveSticky(a.get(), R"(["s"])");
    EXPECT_EQ(a.call("/bus/nodes"), "{\n\t\"data\":\t[\"a\"]\n}");
    EXPECT_EQ(a.get()->counters.late_answers, 1U);
    EXPECT_TRUE(!server.directory.topic("t") && !server.directory.topic("s"));
    EXPECT_EQ(::count(bus.log(), "  Vek-server message body not action | name\n"), 7U);
    message_t none{};
    for (const int result :
         {busClientExMessageDelete(nullptr), busClientExTimerDelete(nullptr),
          busServerExNodeDelete(nullptr), _budServerExCharDelete(nullptr), busServerExit(nullptr),
          busServerDelete(nullptr), _busServerLogMessage(1, "", &server, &none, nullptr, 1),
          _busServerPublish(&server, &none),
          _busClientLogMessage(1, "", a.get(), &none, nullptr, 1), busServerRun(nullptr) + 1,
          node_name_equal(nullptr, &none) + 1, sticky_topic_equal(nullptr, &none) + 1}) {
        EXPECT_EQ(result, 0);
    }
}

TEST(Server, chain_of_calls_ends_at_the_bus_and_where_none_is_waited_for) {
    const Bus bus{2};
    const Node nodes[] = {{bus, "a"}, {bus, "k"}, {bus, "bus"}, {bus, "gone", {}, false}};
    // Whom they call, and the number of k's call; 1: none that is waited for any more.
    const auto ring = [&](const Texts &called, std::uint64_t number = 0) {
        for (std::size_t i = 0; i < 3; ++i) {
            client_t &node = *nodes[i].get();
            node.call_name = {};
            called[i].copy(node.call_name.data(), called[i].size());
            node.call_number = i == 1 ? number : 0;
        }
        return _busServerHasDeadLock(bus.get()->server, "a", "a");
    };
    EXPECT_EQ(ring({"k", "a", ""}), 0);
    EXPECT_EQ(ring({"k", "a", ""}, 1), -1);
    EXPECT_EQ(ring({"k", "k", ""}), -1);   // one was refused just now
    EXPECT_EQ(ring({"bus", "", "a"}), -1); // which is not its namesake
    nodes[2].call("/k/x");                 // and may call who calls nobody
    EXPECT_EQ(::count(bus.log(), " is exit\n"), 1U);
    busClientSpinExit(nodes[3].get());
    busClientSpin(nodes[3].get());
    EXPECT_EQ(nodes[3].call("/k/x"), "null");
    EXPECT_EQ(::count(bus.log(), " gone alaredy exit, url: /k/x\n"), 1U);
}

TEST(Server, call_of_a_node_that_it_does_not_know_ends_without_an_answer) {
    const Bus bus;
    client_t caller;
    MessagePtr request{busClientExMessageNew("a", nullptr, "/a/x", action::kRequest, &caller,
                                             nullptr, nullptr, 0)};
    holdNode(*request, caller);
    caller.waiting_call = 7;
    endCall(*bus.get()->server, *request); // made by hand, without a number
    EXPECT_EQ(caller.waiting_call, 0U);
    EXPECT_EQ(caller.counters.no_memory, 0U);
}

TEST(Message, copies_hold_all_but_the_reference) {
    client_t client;
    message_t none{};
    MessagePtr message{
        busClientExMessageNew("me", nullptr, "/a/b", "request", &client, "asker", "data", 4)};
    EXPECT_EQ(_message_equal(nullptr, &none) + _message_equal(nullptr, nullptr), -2);
    EXPECT_EQ(_message_equal(message->name, message.get()), -1);
    message->call = 7;
    holdNode(*message, client);
    message.reset(busClientExMessageCopy(message.get()));
    message.reset(copyWithAction(*message, Action::kExit));
    EXPECT_EQ(client.references, 1);
    EXPECT_EQ(std::string{message->name} + message->url + message->request_name, "me/a/basker");
    EXPECT_STREQ(message->payload->data, "data");
    EXPECT_EQ(message->call, 7U);
    message->payload->data = nullptr;
    message.reset(busClientExMessageCopy(message.get()));
    EXPECT_EQ(message->payload->len, 0);
    EXPECT_EQ(busClientExMessageDelete(message.release()), 0);
}

} // namespace bus
