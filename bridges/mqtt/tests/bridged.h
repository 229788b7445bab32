// What tests of bridges need: a bus with a bridge, and nodes that remember.
#ifndef ZELVO_MQTT_BRIDGED_H
#define ZELVO_MQTT_BRIDGED_H

#include "running.h"

#include <zelvo/mqtt.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

// Waits until the condition holds; false: it never did.
inline bool eventually(const std::function<bool()> &condition,
                       std::chrono::milliseconds limit = kLimit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{2});
    }
    return true;
}

// A node that keeps what it hears ("topic=payload") and answers calls with url and data.
class Listener {
public:
    Listener(Zelvo_t *bus, const std::string &name, const std::string &topics)
        : node{bus, name, hear, answer, this} {
        busClientSubscribe(node.get(), topics.c_str());
    }
    std::vector<std::string> heard() {
        const std::lock_guard lock{mutex_};
        return heard_;
    }
    bool hears(const std::string &what, std::chrono::milliseconds limit = kLimit) {
        std::unique_lock lock{mutex_};
        return changed_.wait_for(lock, limit, [&] {
            return std::find(heard_.begin(), heard_.end(), what) != heard_.end();
        });
    }

private:
    static int hear(void *self, client_t *, char *topic, char *data, int len) {
        Listener &listener = *static_cast<Listener *>(self);
        const std::string payload{data ? data : "", static_cast<std::size_t>(len)};
        if (std::strcmp(topic, "bus.event") != 0) {
            const std::lock_guard lock{listener.mutex_};
            listener.heard_.push_back(std::string{topic} + "=" + payload);
            listener.changed_.notify_all();
        }
        return 0;
    }
    static char *answer(void *, client_t *, char *url, char *data, int len) {
        return mallocText(std::string{url} + "<" +
                          std::string{data ? data : "", static_cast<std::size_t>(len)});
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> heard_;

public:
    RunningNode node; // last: its thread uses the others
};

inline constexpr const char *kRefused = "{\"data\":\"not implement\"}";

// A node that answers when it is let.
struct Slow {
    Signal asked, free;
    std::atomic<int> calls{0};
    static char *answer(void *self, client_t *, char *, char *, int) {
        Slow &slow = *static_cast<Slow *>(self);
        ++slow.calls;
        slow.asked.set();
        slow.free.wait();
        return mallocText("done");
    }
};

class Bridged {
public:
    // url: one, or an array of them. members: the configuration without it, "site" and "log".
    Bridged(const std::string &url, const std::string &site, const std::string &members = "")
        : bus{R"({"level":5,"path":"/dev/null","callTimeout":20000,"stats":true})"},
          listener{bus.get(), "listener", R"(["mqtt.state"])"},
          url_{url.front() == '[' ? url : '"' + url + '"'},
          site_{site},
          bridge_{another("\"site\":\"" + site + "\"" + (members.empty() ? "" : ",") + members,
                          log_.file("log"))} {}
    ~Bridged() { close(); }

    void close() {
        while (zelvo_mqtt_close(bridge_) != 0) {}
        bridge_ = nullptr;
    }
    // One more on the same bus, to be closed by whoever asks for it.
    zelvo_mqtt_t *another(const std::string &members, const std::string &log = "/dev/null") {
        return zelvo_mqtt_open(
            bus.get(), ("{\"log\":\"" + log + "\",\"url\":" + url_ + "," + members + "}").c_str());
    }
    zelvo_mqtt_t *get() const { return bridge_; }
    bool connects() {
        return listener.hears(R"(mqtt.state={"bridge":"mqtt.)" + site_ +
                              R"(","connected":true,"why":""})");
    }
    std::string log() const { return readFile(log_.file("log")); }
    bool logs(const std::string &text) const {
        return eventually([&] { return says(log(), text); });
    }
    std::string state() { return listener.node.call("/mqtt." + site_ + "/state"); }

private:
    TempDir log_;

public:
    RunningBus bus;
    Listener listener;

private:
    const std::string url_, site_;
    zelvo_mqtt_t *bridge_;
};

inline void publish(Bridged &from, const std::string &topic, const std::string &payload,
                    bool sticky = false) {
    (sticky ? busClientPublishSticky : busClientPublish)(
        from.listener.node.get(), topic.c_str(), payload.data(), static_cast<int>(payload.size()));
}

// Whether a close ends within a second, or a few where the machine is loaded.
inline bool isQuick(const std::function<void()> &close) {
    const auto begun = std::chrono::steady_clock::now();
    close();
    return std::chrono::steady_clock::now() - begun < std::chrono::seconds{5};
}

inline void hear(Bridged &at, const std::string &topics) {
    busClientSubscribe(at.listener.node.get(), topics.c_str());
}

#endif
