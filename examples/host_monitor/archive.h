// Node "archive": keeps the figures of the last minute and answers calls about them.
//   /archive/peak/cpu   the greatest value, likewise memory and load: {"peak":12.5,"of":17}
//   /archive/last       the latest values: {"cpu":2.5,"load":0.3,"memory":812.0}
//   /archive/ring       calls the node "console" before it answers: {"console":...}
#ifndef HOST_MONITOR_ARCHIVE_H
#define HOST_MONITOR_ARCHIVE_H

#include "bus.h"
#include "json.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <string>

class Archive {
public:
    explicit Archive(const Bus &bus) : node_(bus, "archive", onMessage, onCall, this) {
        node_.subscribe(R"(["host.cpu", "host.memory", "host.load"])");
    }

private:
    // Every node gets "bus.event" too, the notices of joining nodes; this one passes over them.
    static int onMessage(void *userdata, client_t *, char *topic, char *data, int) noexcept {
        if (data && std::strncmp(topic, "host.", 5) == 0) {
            static_cast<Archive *>(userdata)->keep(topic + 5, std::strtod(data, nullptr));
        }
        return 0;
    }

    static char *onCall(void *userdata, client_t *client, char *url, char *, int) noexcept {
        const Archive &archive = *static_cast<Archive *>(userdata);
        const std::string path = url;
        if (path.rfind("/archive/peak/", 0) == 0) {
            return answerText(archive.peak(path.substr(14)));
        }
        if (path == "/archive/last") {
            return answerText(archive.last());
        }
        if (path == "/archive/ring") {
            return answerText(callBack(client));
        }
        return answerText("{\"error\":\"no such path\",\"path\":" + jsonString(path) + '}');
    }

    void keep(const std::string &figure, double value) {
        const auto now = Clock::now();
        Readings &readings = kept_[figure];
        readings.push_back({now, value});
        while (now - readings.front().when > std::chrono::minutes(1)) {
            readings.pop_front();
        }
    }

    std::string peak(const std::string &figure) const {
        const auto found = kept_.find(figure);
        if (found == kept_.end()) {
            return "{\"error\":\"no such figure\",\"figure\":" + jsonString(figure) + '}';
        }
        double greatest = 0;
        for (const Reading &reading : found->second) {
            greatest = std::max(greatest, reading.value);
        }
        return "{\"peak\":" + jsonNumber(greatest) +
               ",\"of\":" + std::to_string(found->second.size()) + '}';
    }

    std::string last() const {
        std::string json;
        for (const auto &[figure, readings] : kept_) {
            json += json.empty() ? '{' : ',';
            json += jsonString(figure) + ':' + jsonNumber(readings.back().value);
        }
        return json.empty() ? "{}" : json + '}';
    }

    // A handler may call other nodes; its own node handles nothing meanwhile.
    static std::string callBack(client_t *client) {
        const char *const answer = busClientCall(client, "/console/anything", nullptr, 0);
        return std::string("{\"console\":") + (answer ? answer : "null") + '}';
    }

    using Clock = std::chrono::steady_clock;
    struct Reading {
        Clock::time_point when;
        double value;
    };
    using Readings = std::deque<Reading>;

    // By figure ("cpu"), oldest reading first. No mutex: both handlers run in the node's thread,
    // one at a time, and nobody else looks at it.
    std::map<std::string, Readings> kept_;
    Node node_;
};

#endif
