// What tests of bridges need: a bus with a bridge, and nodes that remember.
#ifndef ZELVO_MQTT_BRIDGED_H
#define ZELVO_MQTT_BRIDGED_H

#include "running.h"

#include <zelvo/mqtt.h>

#include <algorithm>
#include <string>

// A node that hears topics and answers calls with their address and data.
class Listener : public Node {
public:
    Listener(const RunningBus &bus, const std::string &name, const char *topics)
        : Node{bus, name, [](client_t *, const std::string &url, const std::string &data) {
                   return mallocText(url + "<" + data);
               }} {
        busClientUnsubscribe(get(), R"(["bus.event"])"); // would grow with what comes and goes
        subscribe(topics);
    }
    // Whether the text is heard within the limit.
    bool hears(const std::string &text, std::chrono::milliseconds limit = kLimit) {
        const auto isThere = [&] {
            const Texts all = heard();
            return std::find(all.begin(), all.end(), text) != all.end();
        };
        return eventually(isThere, limit);
    }
    // Up to now, of others than the bus.
    Texts heard() {
        Texts all = Node::heard(0);
        std::erase_if(all, [](const std::string &text) { return text.starts_with("bus.event "); });
        return all;
    }
};

inline constexpr const char *kRefused = "{\"data\":\"not implement\"}";

class Bridged {
public:
    // url: one, or an array of them. members: the configuration without it, "site" and "log".
    // connects: whether to wait until it does.
    Bridged(const std::string &url, const std::string &site, const std::string &members = "",
            bool connects = true)
        : bus{R"({"level":5,"path":"/dev/null","callTimeout":20000,"stats":true})"},
          listener{bus, "listener", R"(["mqtt.state"])"},
          url_{url.front() == '[' ? url : '"' + url + '"'},
          site_{site},
          bridge_{another("\"site\":\"" + site + "\"" + (members.empty() ? "" : ",") + members,
                          log_.file("log"))} {
        if (connects && !isConnected()) {
            close();
            throw std::runtime_error{"no connection: " + log()};
        }
    }
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
    bool isConnected() {
        return eventually([&] { return says(state(), R"("connected":true)"); });
    }
    std::string log() const { return readFile(log_.file("log")); }
    bool logs(const std::string &text) const {
        return eventually([&] { return says(log(), text); });
    }
    std::string state() { return listener.call("/mqtt." + site_ + "/state"); }

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
        from.listener.get(), topic.c_str(), payload.data(), static_cast<int>(payload.size()));
}

// Whether a close ends within a second, or a few where the machine is loaded.
bool isQuick(auto close) {
    const auto begun = std::chrono::steady_clock::now();
    close();
    return std::chrono::steady_clock::now() - begun < std::chrono::seconds{5};
}

inline void hear(Bridged &at, const std::string &topics) {
    at.listener.subscribe(topics.c_str());
}

#endif
