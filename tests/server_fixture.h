// The server alone: messages are queued, the loop runs in the test's thread until the exit behind
// them, and the queues and answers of node records without threads are looked at.
#ifndef ZELVO_TEST_SERVER_FIXTURE_H
#define ZELVO_TEST_SERVER_FIXTURE_H

#include "bus_server/internal.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace bus {

class Server : public testing::Test {
protected:
    explicit Server(const char *home = nullptr) : server_{busServerNew(home)} {}
    ~Server() override {
        bus_log_exit();
        clients_.clear(); // nodes go before the bus
        busServerDelete(server_);
    }

    client_t &record(const char *name) {
        clients_.emplace_back(new client_t);
        clients_.back()->name.reset(bus_mk_strdup(name));
        clients_.back()->server = server_;
        return *clients_.back();
    }
    client_t &join(const char *name) {
        client_t &client = record(name);
        EXPECT_EQ(ask(client, "/bus/join"), "{\"data\":\"\"}");
        return client;
    }

    void post(const char *name, const char *topic, const char *url, const char *action, void *node,
              const char *requester, const std::string *data = nullptr, std::uint64_t call = 0) {
        message_t *const message = busClientExMessageNew(name, topic, url, action, node, requester,
                                                         data ? data->c_str() : nullptr,
                                                         data ? static_cast<int>(data->size()) : 0);
        message->call = call;
        if (url && std::string_view{url} == kJoinUrl && node) {
            holdNode(*message, *static_cast<client_t *>(node));
        }
        ASSERT_EQ(bus_mk_q_send(server_->message_queue, message, -1), 0);
    }
    void request(client_t &from, const char *url, const std::string *data = nullptr,
                 std::uint64_t call = 0) {
        const char *const name = from.name.get();
        post(name, nullptr, url, action::kRequest, &from, name, data, call);
    }
    void publish(client_t &from, const char *topic, const std::string &data,
                 const char *action = action::kPublish) {
        post(from.name.get(), topic, nullptr, action, &from, kNoRequest, &data);
    }
    // Handles what is queued, and the answers that this makes.
    void run() {
        do {
            busServerExit(server_);
            EXPECT_EQ(busServerRun(server_), 0);
        } while (bus_mk_q_count(server_->message_queue) > 0);
    }
    // The answer of one request; "-" for none.
    std::string ask(client_t &from, const char *url, const std::string &data = {}) {
        forget(from);
        request(from, url, data.empty() ? nullptr : &data);
        run();
        return answerOf(from);
    }
    static void forget(client_t &client) {
        const bus_mk_guard lock{client.oncall_mutex};
        client.call_response.reset();
        client.waiting_call = kAny;
    }
    static std::string answerOf(client_t &client) {
        const bus_mk_guard lock{client.oncall_mutex};
        const bool answered = client.waiting_call == 0;
        return client.call_response ? client.call_response.get() : answered ? "null" : "-";
    }
    // What waits for a node, oldest first: "action topic-or-url payload".
    static std::vector<std::string> taken(client_t &client) {
        std::vector<std::string> all;
        while (void *const item = bus_mk_q_recv(client.message_queue, 1, 0, 1)) {
            const MessagePtr message{static_cast<message_t *>(item)};
            all.push_back(std::string{message->action} + " " +
                          (message->topic ? message->topic : orNull(message->url)) + " " +
                          (message->payload ? message->payload->data : "NULL"));
        }
        return all;
    }
    static void fill(bus_mk_q_t *queue) {
        MessagePtr filler;
        do {
            static_cast<void>(filler.release());
            filler.reset(busClientExMessageCopy(&kFiller));
        } while (bus_mk_q_send(queue, filler.get(), -1) == 0);
    }
    static std::string log() {
        bus_log_exit();
        return testing::internal::GetCapturedStdout();
    }
    static void startLog(int level) {
        testing::internal::CaptureStdout();
        bus_log_init(level, nullptr, 0, 0);
    }

    static inline const message_t kFiller{
        {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, sizeof(message_t)};
    static constexpr std::uint64_t kAny = 1; // a call that a message without a number answers
    server_t *server_;
    std::vector<ClientPtr> clients_;
};
using Texts = std::vector<std::string>;

} // namespace bus

#endif
