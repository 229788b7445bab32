// Node "console": receives what the sampler publishes and the bus's error notices, and makes calls,
// all on behalf of the thread that prints.
#ifndef HOST_MONITOR_CONSOLE_H
#define HOST_MONITOR_CONSOLE_H

#include <zelvo/bus.hpp>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>

class Console {
public:
    explicit Console(const zelvo::Bus &bus) : node_{bus, "console"} {
        node_.subscribe(
            {"host.info", "host.cpu", "host.memory", "host.load", "host.error", "bus.error"},
            [this](std::string_view topic, std::string_view data) { keep(topic, data); });
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

    zelvo::Answer call(const std::string &url, std::string_view data = {}) {
        return node_.call(url, data);
    }
    zelvo::Node &node() { return node_; }

private:
    // topic and data are good only until the handler returns: hence the copies.
    void keep(std::string_view topic, std::string_view data) {
        const std::lock_guard lock(mutex_);
        latest_[std::string{topic}] = data;
        arrived_.notify_one();
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    // By topic, what has not been taken. Guarded by mutex_: the handler fills it in the node's
    // thread, take() empties it in the caller's.
    std::map<std::string, std::string> latest_;
    zelvo::Node node_;
};

#endif
