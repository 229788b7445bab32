// Node "console": receives what the sampler publishes and the bus's error notices, and makes calls,
// all on behalf of the thread that prints.
#ifndef HOST_MONITOR_CONSOLE_H
#define HOST_MONITOR_CONSOLE_H

#include "bus.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

class Console {
public:
    explicit Console(const Bus &bus) : node_(bus, "console", onMessage, nullptr, this) {
        node_.subscribe(R"(["host.info", "host.cpu", "host.memory", "host.load", "host.error",
                            "bus.error"])");
    }

    // Waits for a message of topic that has not been taken yet, and takes it; of several, the
    // latest. Throws when none comes within two seconds.
    std::string take(const std::string &topic) {
        std::unique_lock lock(mutex_);
        const bool came = arrived_.wait_for(lock, std::chrono::seconds(2), [&] {
            return latest_.count(topic) != 0 || latest_.count("host.error") != 0;
        });
        if (!came) {
            throw std::runtime_error("no message on " + topic + " within two seconds");
        }
        if (latest_.count("host.error") != 0) {
            throw std::runtime_error("the sampler has stopped: " + latest_["host.error"]);
        }
        return latest_.extract(topic).mapped();
    }

    std::string call(const char *url, std::string_view data = {}) { return node_.call(url, data); }

private:
    // topic and data are valid only until the handler returns: hence the copies.
    static int onMessage(void *userdata, client_t *, char *topic, char *data, int len) noexcept {
        Console &console = *static_cast<Console *>(userdata);
        std::lock_guard lock(console.mutex_);
        console.latest_[topic] = data ? std::string(data, static_cast<std::size_t>(len)) : "";
        console.arrived_.notify_one();
        return 0;
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    // By topic, what has not been taken. Guarded by mutex_: the handler fills it in the node's
    // thread, take() empties it in the caller's.
    std::map<std::string, std::string> latest_;
    Node node_;
};

#endif
