// A bus with its thread, and nodes with theirs, over the public header.
#ifndef ZELVO_RUNNING_H
#define ZELVO_RUNNING_H

#include "test_support.h"

#include <zelvo/bus_client.h>

#include <algorithm>
#include <functional>
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
    void exit() { busClientServerExit(manager_); }
    void join() { loop_.join(); }
    void stop() {
        exit();
        join();
    }
    Zelvo_t *get() const { return manager_; }

private:
    Zelvo_t *manager_;
    std::thread loop_;
};

// Null and without a thread where the bus has refused it.
class RunningNode {
public:
    RunningNode(Zelvo_t *bus, const std::string &name, onmessage_callback hear = nullptr,
                oncall_callback answer = nullptr, void *userdata = nullptr, bool spins = true)
        : client_{busClientConnect(bus, name.c_str(), hear, answer, userdata)} {
        if (client_ && spins) {
            thread_ = std::thread{[this] {
                busClientSpin(client_);
                ended_.set();
            }};
        }
    }
    ~RunningNode() { close(); }

    void close() {
        while (thread_.joinable()) { // again where the request found a full queue
            busClientSpinExit(client_);
            if (ended_.wait(std::chrono::milliseconds{20})) {
                thread_.join();
            }
        }
        busClientClose(std::exchange(client_, nullptr));
    }
    // "null" for no answer.
    std::string call(const std::string &url, const char *data = nullptr, int len = 0) {
        const char *const text = busClientCall(client_, url.c_str(), data, len);
        return text ? text : "null";
    }
    client_t *get() const { return client_; }

private:
    client_t *client_;
    Signal ended_;
    std::thread thread_;
};

using Texts = std::vector<std::string>;

// It logs to a file of its own, unless more of its configuration names another.
class Bus : TempDir, public RunningBus {
public:
    explicit Bus(int level = 4, const std::string &more = {})
        : RunningBus{"{\"LEVEL\":" + std::to_string(level) + more + ",\"path\":\"" +
                     file("bus.log") + "\"}"} {}

    std::string log() const { return readFile(file("bus.log")); }
    // Whether it comes to say so.
    bool logs(const std::string &part) const {
        return eventually([&] { return says(log(), part); });
    }
};

// What it hears is kept as "topic payload".
class Node {
public:
    using OnCall = std::function<char *(client_t *, const std::string &url, const std::string &)>;

    Node(const RunningBus &bus, const std::string &name, OnCall onCall = {}, bool spins = true)
        : onCall_{std::move(onCall)},
          node_{bus.get(), name, hear, onCall_ ? reply : nullptr, this, spins} {}

    void close() { node_.close(); }
    client_t *get() const { return node_.get(); }
    std::string call(const std::string &url) { return node_.call(url, nullptr, 7); }
    std::string call(const std::string &url, const std::string &data) {
        return node_.call(url, data.data(), static_cast<int>(data.size()));
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

    // Whether the text is heard within the limit.
    bool hears(const std::string &text, std::chrono::milliseconds limit = kLimit) {
        std::unique_lock lock{mutex_};
        return more_.wait_for(lock, limit,
                              [&] { return std::count(heard_.begin(), heard_.end(), text) > 0; });
    }

private:
    static int hear(void *userdata, client_t *, char *topic, char *data, int len) {
        auto &self = *static_cast<Node *>(userdata);
        const std::lock_guard lock{self.mutex_};
        self.heard_.push_back(std::string{topic} + " " +
                              (data ? std::string(data, static_cast<std::size_t>(len)) : "null"));
        self.more_.notify_all();
        return 0;
    }
    static char *reply(void *userdata, client_t *client, char *url, char *data, int len) {
        const std::string text = data ? std::string(data, static_cast<std::size_t>(len)) : "null";
        return static_cast<Node *>(userdata)->onCall_(client, url, text);
    }

    OnCall onCall_;
    std::mutex mutex_;
    std::condition_variable more_;
    Texts heard_;
    RunningNode node_; // last: its thread uses the others
};

#endif
