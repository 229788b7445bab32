// Node "sampler": reads the machine's figures several times a second and publishes them.
//   host.info    sticky, once: a JSON object
//   host.cpu     busy share in per cent: "12.5"
//   host.memory  MiB in use: "812.0"
//   host.load    sticky: "0.31 0.22 0.08"
//   host.error   sticky: why there will be no more figures
#ifndef HOST_MONITOR_SAMPLER_H
#define HOST_MONITOR_SAMPLER_H

#include "bus.h"
#include "host.h"
#include "json.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

class Sampler {
public:
    // The node handles no messages and answers no calls, so it has no handlers. It has its spin
    // thread all the same: the bus tells every node who joins, and something has to take these
    // notices out of the node's queue.
    explicit Sampler(const Bus &bus) : node_(bus, "sampler"), previous_(readCpuTime()) {
        node_.publishSticky("host.info", describeHost());
        sampling_ = std::thread(&Sampler::loop, this);
    }

    // The sampling thread uses the node, so it ends first; the node leaves the bus after this body.
    ~Sampler() {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        sampling_.join();
    }

private:
    static constexpr std::chrono::milliseconds kPeriod{250};

    // One step. The load is sticky, so that who joins between two steps has it at once.
    void sample() {
        const CpuTime now = readCpuTime();
        const auto busy = static_cast<double>(now.busy - previous_.busy);
        const auto total = static_cast<double>(std::max(1LL, now.total - previous_.total));
        previous_ = now;
        node_.publish("host.cpu", jsonNumber(std::clamp(100 * busy / total, 0.0, 100.0)));
        node_.publish("host.memory", jsonNumber(readMemory().used));
        node_.publishSticky("host.load", readLoad());
    }

    // Any thread may publish through a node, so this one can, beside the node's own.
    void loop() {
        try {
            while (!stopsWithin(kPeriod)) {
                sample();
            }
        } catch (const std::exception &error) {
            node_.publishSticky("host.error", error.what());
        }
    }

    bool stopsWithin(std::chrono::milliseconds time) {
        std::unique_lock lock(mutex_);
        return wake_.wait_for(lock, time, [this] { return stop_; });
    }

    Node node_;
    CpuTime previous_; // from the start of the sampling thread on, its own
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false; // guarded by mutex_
    std::thread sampling_;
};

#endif
