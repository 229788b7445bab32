// Node "archive": keeps the figures of the last minute and answers calls about them.
//   /archive/peak/cpu   the greatest value, likewise memory and load: {"peak":12.5,"of":17}
//   /archive/last       the latest values: {"cpu":2.5,"load":0.3,"memory":812.0}
//   /archive/ring       calls the node "console" before it answers, and tells what came of it
#ifndef HOST_MONITOR_ARCHIVE_H
#define HOST_MONITOR_ARCHIVE_H

#include "format.h"
#include "topics.h"

#include <zelvo/bus.hpp>

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

class Archive {
public:
    explicit Archive(const zelvo::Bus &bus) : node_{bus, "archive"} {
        node_.subscribe(kHostCpu, [this](double share) { keep("cpu", share); });
        node_.subscribe(kHostMemory, [this](double mebibytes) { keep("memory", mebibytes); });
        node_.subscribe(kHostLoad,
                        [this](const std::string &loads) { keep("load", std::stod(loads)); });
        node_.on_call("/last", [this](std::string_view) { return last(); });
        node_.on_call("/ring", [this](std::string_view) { return callBack(); });
        node_.on_call([this](std::string_view path, std::string_view) { return peakAt(path); });
    }

private:
    void keep(const std::string &figure, double value) {
        const auto now = Clock::now();
        Readings &readings = kept_[figure];
        readings.push_back({now, value});
        while (now - readings.front().when > std::chrono::minutes(1)) {
            readings.pop_front();
        }
    }

    // "/peak/cpu"; nothing for a path that is not here.
    std::optional<std::string> peakAt(std::string_view path) const {
        if (path.substr(0, 6) != "/peak/") {
            return std::nullopt;
        }
        const auto found = kept_.find(std::string{path.substr(6)});
        if (found == kept_.end()) {
            return R"({"error":"no such figure"})";
        }
        double greatest = 0;
        for (const Reading &reading : found->second) {
            greatest = std::max(greatest, reading.value);
        }
        return "{\"peak\":" + oneDecimal(greatest) +
               ",\"of\":" + std::to_string(found->second.size()) + '}';
    }

    std::string last() const {
        std::string json;
        for (const auto &[figure, readings] : kept_) {
            json += json.empty() ? '{' : ',';
            json += '"' + figure + "\":" + oneDecimal(readings.back().value);
        }
        return json.empty() ? "{}" : json + '}';
    }

    // A handler may call other nodes; its own node handles nothing meanwhile.
    std::string callBack() {
        const zelvo::Answer answer = node_.call("/console/anything");
        return answer.outcome == zelvo::Outcome::ring ? "refused: the console waits for this node"
                                                      : answer.text;
    }

    using Clock = std::chrono::steady_clock;
    struct Reading {
        Clock::time_point when;
        double value;
    };
    using Readings = std::deque<Reading>;

    // By figure ("cpu"), oldest reading first. No mutex: all handlers run in the node's thread,
    // one at a time, and nobody else looks at it.
    std::map<std::string, Readings> kept_;
    zelvo::Node node_; // last, so that it has left before what its handlers use goes
};

#endif
