// A bus with its thread, and nodes with theirs, over the public header.
#ifndef ZELVO_RUNNING_H
#define ZELVO_RUNNING_H

#include "test_support.h"

#include <zelvo/bus_client.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>
#include <utility>

class RunningBus {
public:
    explicit RunningBus(const std::string &config) : manager_{busClientNew(config.c_str())} {
        start();
    }
    ~RunningBus() {
        if (loop_.joinable()) {
            stop(); // a thread that is only about to run the loop is met too
        }
        busClientDelete(manager_);
    }

    void start() { loop_ = std::thread{busClientBindServer, manager_}; }
    void stop() {
        busClientServerExit(manager_);
        loop_.join();
    }
    Zelvo_t *get() const { return manager_; }

private:
    Zelvo_t *manager_;
    std::thread loop_;
};

using Texts = std::vector<std::string>;

// It logs to a file of its own, unless more of its configuration names another.
class Bus : TempDir, public RunningBus {
public:
    explicit Bus(int level = 4, const std::string &more = {})
        : RunningBus{"{\"LEVEL\":" + std::to_string(level) + more + ",\"path\":\"" +
                     file("bus.log") + "\"}"} {}

    std::string log() const { return readFile(file("bus.log")); }
};

// Null and without a thread where the bus has refused it.
class Node {
public:
    using OnCall = std::function<char *(client_t *, const std::string &url, const std::string &)>;

    Node(Zelvo_t *bus, const std::string &name, onmessage_callback onMessage = nullptr,
         oncall_callback answer = nullptr, void *userdata = nullptr, bool spins = true,
         OnCall onCall = {})
        : onCall_{std::move(onCall)},
          client_{busClientConnect(bus, name.c_str(), onMessage, answer, userdata)} {
        if (client_ && spins) {
            spin_ = std::async(std::launch::async, busClientSpin, client_);
        }
    }
    // What it hears is kept as "topic payload".
    Node(const RunningBus &bus, const std::string &name, const OnCall &onCall = {},
         bool spins = true)
        : Node{bus.get(), name, hear, onCall ? reply : nullptr, this, spins, onCall} {}
    ~Node() { close(); }

    void close() {
        while (spin_.valid()) { // again where the request found a full queue
            busClientSpinExit(client_);
            if (spin_.wait_for(std::chrono::milliseconds{20}) == std::future_status::ready) {
                spin_ = {};
            }
        }
        busClientClose(std::exchange(client_, nullptr));
    }
    client_t *get() const { return client_; }
    // "null" for no answer. Without data its length does not count.
    std::string call(const std::string &url, const std::optional<std::string> &data = {}) const {
        const char *const text = busClientCall(client_, url.c_str(), data ? data->data() : nullptr,
                                               data ? static_cast<int>(data->size()) : 7);
        return text ? text : "null";
    }
    void subscribe(const char *topics) { busClientSubscribe(get(), topics); }
    void publish(const char *topic, const std::string &data = "") {
        busClientPublish(get(), topic, data.data(), static_cast<int>(data.size()));
    }
    // What was heard, once count messages have been.
    Texts heard(std::size_t count) {
        std::unique_lock lock{mutex_};
        more_.wait_for(lock, kLimit, [&] { return heard_.size() >= count; });
        return heard_;
    }

private:
    static std::string textOf(const char *data, int len) {
        return data ? std::string(data, static_cast<std::size_t>(len)) : "null";
    }
    static int hear(void *userdata, client_t *, char *topic, char *data, int len) {
        auto &self = *static_cast<Node *>(userdata);
        const std::lock_guard lock{self.mutex_};
        self.heard_.push_back(std::string{topic} + " " + textOf(data, len));
        self.more_.notify_all();
        return 0;
    }
    static char *reply(void *userdata, client_t *client, char *url, char *data, int len) {
        return static_cast<Node *>(userdata)->onCall_(client, url, textOf(data, len));
    }

    OnCall onCall_;
    std::mutex mutex_;
    std::condition_variable more_;
    Texts heard_;
    client_t *client_;
    std::future<int> spin_; // last: its thread uses the others
};

#endif
