// A node of the bus and its thread.
#ifndef ZELVO_MQTT_NODE_H
#define ZELVO_MQTT_NODE_H

#include "common.h"

#include <zelvo/bus_client.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace zelvo_mqtt {

using Clock = std::chrono::steady_clock;

// Starts a thread that is handed no signal: those are the application's, and a connection that
// breaks is to be an error of the write, not a SIGPIPE. Throws std::system_error.
std::thread startThread(std::function<void()> body);

class Node {
public:
    // Joins the bus, which blocks for its answer, and begins: the handlers may run at once, and
    // hear nothing of others that join. Throws OpenError, naming the node, and std::system_error.
    Node(Common &common, const std::string &name, onmessage_callback onMessage,
         oncall_callback onCall, void *userdata);
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    // Waits for the thread without a limit: leave() comes first where a handler may be long.
    ~Node();

    // Asks the thread to end, and takes part in nothing more. Does not wait.
    void askToLeave();
    // Asks until the thread has ended; false: it has not at that time.
    bool leave(Clock::time_point until);

    // Calls the bus, with a JSON array of topics; throws OpenError where it takes none.
    void ask(const char *url, const std::string &topics);
    void subscribe(const std::string &topics) { ask("/bus/subscribe", topics); }
    client_t *get() const { return client_.get(); }

private:
    struct Close {
        void operator()(client_t *client) const { busClientClose(client); }
    };
    std::unique_ptr<client_t, Close> client_;
    std::promise<void> end_; // of the thread
    const std::future<void> ended_ = end_.get_future();
    std::thread thread_;
};

// For the answer of a call handler, which the bus frees; null without memory.
char *mallocText(std::string_view text);

inline constexpr const char *kNotImplement = "{\"data\":\"not implement\"}";

} // namespace zelvo_mqtt

#endif
