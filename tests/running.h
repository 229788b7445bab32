// A bus with its thread, and nodes with theirs, over the public header.
#ifndef ZELVO_RUNNING_H
#define ZELVO_RUNNING_H

#include "test_support.h"

#include <zelvo/bus_client.h>

#include <string>
#include <thread>
#include <utility>

class RunningBus {
public:
    explicit RunningBus(const std::string &config, bool started = true)
        : manager_{busClientNew(config.c_str())} {
        if (started) {
            start();
        }
    }
    ~RunningBus() {
        if (loop_.joinable()) {
            stop();
        }
        busClientDelete(manager_);
    }

    void start() {
        loop_ = std::thread{[this] { busClientBindServer(manager_); }};
    }
    void stop() {
        busClientServerExit(manager_);
        join();
    }
    void join() { loop_.join(); }
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

    // Ends the thread.
    void leave() {
        if (thread_.joinable()) {
            do { // again where the request found a full queue
                busClientSpinExit(client_);
            } while (!ended_.wait(std::chrono::milliseconds{20}));
            thread_.join();
        }
    }
    void close() {
        leave();
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

#endif
