// Node "sampler": reads the machine's figures several times a second and publishes them.
// The topics are those of topics.h: the description once and sticky, the load and an error sticky
// too. Its setting is the key "interval", in milliseconds. Who changes it there says so by a call
// of kSamplerInterval.
#ifndef HOST_MONITOR_SAMPLER_H
#define HOST_MONITOR_SAMPLER_H

#include "host.h"
#include "topics.h"

#include <zelvo/bus.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <string>

class Sampler {
public:
    // The timer is due at once, and moves the rest of the start into the node's thread.
    explicit Sampler(const zelvo::Bus &bus) : previous_(readCpuTime()), node_{bus, "sampler"} {
        node_.publish_sticky(kHostInfo, describeHost());
        node_.on_call(kSamplerInterval, [this](const std::string &) {
            restart();
            return static_cast<long>(interval_.count());
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
            node_.publish_sticky(kHostError, error.what());
        }
    }

    // The load is sticky, so that who joins between two samples has it at once.
    void publishFigures() {
        const CpuTime now = readCpuTime();
        const auto busy = static_cast<double>(now.busy - previous_.busy);
        const auto total = static_cast<double>(std::max(1LL, now.total - previous_.total));
        previous_ = now;
        node_.publish(kHostCpu, inTenths(std::clamp(100 * busy / total, 0.0, 100.0)));
        node_.publish(kHostMemory, inTenths(readMemory().used));
        node_.publish_sticky(kHostLoad, readLoad());
    }

    static double inTenths(double value) { return std::round(10 * value) / 10; }

    static constexpr long kDefaultInterval = 250;

    // No mutex: call and timer handlers run in the node's thread, one at a time.
    std::chrono::milliseconds interval_{kDefaultInterval};
    CpuTime previous_;
    zelvo::Timer beat_;
    zelvo::Node node_; // last, so that it has left before what its handlers use goes
};

#endif
