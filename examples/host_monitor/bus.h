// Owners for a bus and its nodes: start in the constructor, stop in the right order in the
// destructor. Copy this file into a program of your own; it needs nothing else of the example.
#ifndef HOST_MONITOR_BUS_H
#define HOST_MONITOR_BUS_H

#include <zelvo/bus_client.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

// The answer of a call handler. The library frees it: so it comes from malloc, and from that of the
// C runtime which the library uses.
inline char *answerText(const std::string &text) {
    auto *const answer = static_cast<char *>(std::malloc(text.size() + 1));
    return answer ? std::strcpy(answer, text.c_str()) : nullptr;
}

// A bus, running in a thread of its own. Every Node must be gone before its Bus goes; local
// variables do that by themselves, the Bus declared first.
class Bus {
public:
    // config: the JSON text that busClientNew describes.
    explicit Bus(const std::string &config) : manager_(busClientNew(config.c_str())) {
        if (!manager_) {
            throw std::runtime_error("the bus could not be made");
        }
        loop_ = std::thread(busClientBindServer, manager_.get());
    }
    ~Bus() {
        busClientServerExit(manager_.get());
        loop_.join();
    }
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    Zelvo_t *get() const { return manager_.get(); }

private:
    struct Delete {
        void operator()(Zelvo_t *manager) const { busClientDelete(manager); }
    };
    std::unique_ptr<Zelvo_t, Delete> manager_;
    std::thread loop_;
};

// A node and the thread that runs its handlers. The handlers run from within the constructor until
// the destructor has stopped the thread. So where an object holds its node as a member, and is the
// userdata of its handlers, the node comes behind all members that they touch.
// Any thread may use a node, but only one at a time may be in call(): the next call would free the
// answer that the first is still copying.
class Node {
public:
    Node(const Bus &bus, const char *name, onmessage_callback onMessage = nullptr,
         oncall_callback onCall = nullptr, void *userdata = nullptr)
        : client_(busClientConnect(bus.get(), name, onMessage, onCall, userdata)) {
        if (!client_) {
            throw std::runtime_error(std::string(name) + " could not join the bus");
        }
        spin_ = std::async(std::launch::async, busClientSpin, client_.get());
    }
    // To be run in another thread than the node's own. The wish to exit is dropped while 1,024
    // messages wait for the node, so it is made until the loop has ended.
    ~Node() {
        do {
            busClientSpinExit(client_.get());
        } while (spin_.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready);
    }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;

    // topics: a JSON array.
    void subscribe(const char *topics) {
        if (busClientSubscribe(client_.get(), topics) != 0) {
            throw std::invalid_argument(std::string("not a JSON array: ") + topics);
        }
    }
    void publish(const char *topic, const std::string &text) {
        busClientPublish(client_.get(), topic, text.data(), static_cast<int>(text.size()));
    }
    void publishSticky(const char *topic, const std::string &text) {
        busClientPublishSticky(client_.get(), topic, text.data(), static_cast<int>(text.size()));
    }
    // The answer belongs to the node and lasts until its next call: hence the copy.
    std::string call(const char *url, std::string_view data = {}) {
        const char *const answer =
            busClientCall(client_.get(), url, data.data(), static_cast<int>(data.size()));
        if (!answer) {
            throw std::runtime_error(std::string("no answer from ") + url);
        }
        return answer;
    }
    // Has the node's thread call onTimer once, in milliseconds from now. When the node leaves the
    // bus, the timers that still wait are dropped.
    void setTimer(long milliseconds, timer_callback onTimer, int type, void *userdata) {
        if (busClientSettimer(client_.get(), onTimer, milliseconds, type, userdata) < 0) {
            throw std::runtime_error("no memory for a timer");
        }
    }

private:
    struct Close {
        void operator()(client_t *client) const { busClientClose(client); }
    };
    std::unique_ptr<client_t, Close> client_;
    std::future<int> spin_; // a thread of its own
};

#endif
