// Node "sampler": reads the machine's figures several times a second and publishes them.
//   host.info    sticky, once: name, system, processors, memory
//   host.cpu     busy share in per cent: "12.5"
//   host.memory  MiB in use: "812.0"
//   host.load    sticky: "0.31 0.22 0.08"
//   host.error   sticky: why there will be no more figures
// Its setting is the key "interval", in milliseconds. Who changes it there says so by a call:
//   /sampler/interval   reads the key again and answers the interval that now holds: 250
#ifndef HOST_MONITOR_SAMPLER_H
#define HOST_MONITOR_SAMPLER_H

#include "format.h"
#include "host.h"

#include <zelvo/bus.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

class Sampler {
public:
    // The timer is due at once, and moves the rest of the start into the node's thread.
    explicit Sampler(const zelvo::Bus &bus) : previous_(readCpuTime()), node_{bus, "sampler"} {
        node_.publish_sticky("host.info", describeHost());
        node_.on_call("/interval", [this](std::string_view) {
            restart();
            return std::to_string(interval_.count());
        });
        node_.after(std::chrono::milliseconds{0}, [this] { restart(); });
    }

private:
    // Reads the interval, and beats by it from now on.
    void restart() {
        readInterval();
        beat_.cancel();
        beat_ = node_.every(interval_, [this] { sample(); });
    }

    // The value comes as JSON: 250, while a text would have its quotes.
    void readInterval() {
        const std::string value = node_.keys().get("interval").value_or("");
        const long kept = std::strtol(value.c_str(), nullptr, 10);
        interval_ = std::chrono::milliseconds{kept >= 10 && kept <= 1000 ? kept : kDefaultInterval};
    }

    void sample() {
        try {
            publishFigures();
        } catch (const std::exception &error) {
            beat_.cancel();
            node_.publish_sticky("host.error", error.what());
        }
    }

    // The load is sticky, so that who joins between two samples has it at once.
    void publishFigures() {
        const CpuTime now = readCpuTime();
        const auto busy = static_cast<double>(now.busy - previous_.busy);
        const auto total = static_cast<double>(std::max(1LL, now.total - previous_.total));
        previous_ = now;
        node_.publish("host.cpu", oneDecimal(std::clamp(100 * busy / total, 0.0, 100.0)));
        node_.publish("host.memory", oneDecimal(readMemory().used));
        node_.publish_sticky("host.load", readLoad());
    }

    static constexpr long kDefaultInterval = 250;

    // No mutex: call and timer handlers run in the node's thread, one at a time.
    std::chrono::milliseconds interval_{kDefaultInterval};
    CpuTime previous_;
    zelvo::Timer beat_;
    zelvo::Node node_; // last, so that it has left before what its handlers use goes
};

#endif
