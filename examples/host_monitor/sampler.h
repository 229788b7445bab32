// Node "sampler": reads the machine's figures several times a second and publishes them.
//   host.info    sticky, once: a JSON object
//   host.cpu     busy share in per cent: "12.5"
//   host.memory  MiB in use: "812.0"
//   host.load    sticky: "0.31 0.22 0.08"
//   host.error   sticky: why there will be no more figures
// Its setting is the key "interval", in milliseconds. Who changes it there says so by a call:
//   /sampler/interval   reads the key again and answers the interval that now holds: 250
#ifndef HOST_MONITOR_SAMPLER_H
#define HOST_MONITOR_SAMPLER_H

#include "bus.h"
#include "host.h"
#include "json.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

class Sampler {
public:
    // Any thread may set a timer. The first one is due at once and moves the rest of the start into
    // the node's thread.
    explicit Sampler(const Bus &bus)
        : previous_(readCpuTime()),
          node_(bus, "sampler", nullptr, onCall, this) {
        node_.publishSticky("host.info", describeHost());
        node_.setTimer(0, onTimer, kStart, this);
    }

private:
    enum { kStart, kSample }; // what a timer is for

    // A timer runs once: so its handler sets the next one.
    static int onTimer(void *userdata, client_t *client, int type) noexcept {
        Sampler &sampler = *static_cast<Sampler *>(userdata);
        try {
            if (type == kStart) {
                sampler.readInterval(client);
            } else {
                sampler.sample();
            }
            sampler.node_.setTimer(sampler.interval_, onTimer, kSample, userdata);
        } catch (const std::exception &error) {
            sampler.node_.publishSticky("host.error", error.what());
        }
        return 0;
    }

    // The timer that waits is left alone: a new interval holds from the next sample on.
    static char *onCall(void *userdata, client_t *client, char *, char *, int) noexcept {
        Sampler &sampler = *static_cast<Sampler *>(userdata);
        sampler.readInterval(client);
        return answerText(std::to_string(sampler.interval_));
    }

    // The bus itself answers for the key store, so a handler may ask. The value comes as JSON: 250,
    // while a text would have its quotes. A missing key is {"data":""}, which is no number here.
    void readInterval(client_t *client) {
        constexpr std::string_view get = R"({"operation":"get"})";
        const char *const value =
            busClientCall(client, "/localKeys/interval", get.data(), static_cast<int>(get.size()));
        const long kept = value ? std::strtol(value, nullptr, 10) : 0;
        interval_ = kept >= 10 && kept <= 1000 ? kept : kDefaultInterval;
    }

    // The load is sticky, so that who joins between two samples has it at once.
    void sample() {
        const CpuTime now = readCpuTime();
        const auto busy = static_cast<double>(now.busy - previous_.busy);
        const auto total = static_cast<double>(std::max(1LL, now.total - previous_.total));
        previous_ = now;
        node_.publish("host.cpu", jsonNumber(std::clamp(100 * busy / total, 0.0, 100.0)));
        node_.publish("host.memory", jsonNumber(readMemory().used));
        node_.publishSticky("host.load", readLoad());
    }

    static constexpr long kDefaultInterval = 250;

    // No mutex: call and timer handlers run in the node's thread, one at a time.
    long interval_ = kDefaultInterval;
    CpuTime previous_;
    Node node_;
};

#endif
