// How many brokers a publication has passed. The bus carries no such number, so the bridges of one
// bus tell each other, by topic: what one of them takes from the bus counts as having come the way
// of the latest that another has published there.
#ifndef ZELVO_MQTT_PASSING_H
#define ZELVO_MQTT_PASSING_H

#include <zelvo/bus_client.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

inline constexpr int kMostHops = 8;

// One bridge's place among those of its bus in this process. Any thread; nothing blocks.
class Passing {
public:
    // The bridge gets the first number from 1 on that no other of its bus and site has.
    Passing(Zelvo_t *bus, const std::string &site);
    Passing(const Passing &) = delete;
    Passing &operator=(const Passing &) = delete;
    ~Passing();

    int number() const { return number_; }
    bool alone() const; // no other bridge on the bus

    // Before this bridge publishes what has passed so many brokers.
    void publishes(std::string_view topic, int hops);
    // How many brokers a publication taken from the bus will have passed with this bridge's.
    int hopsOf(std::string_view topic) const;

private:
    struct Passed {
        int hops = 0;
        std::chrono::steady_clock::time_point when;
    };

    Zelvo_t *const bus_;
    const std::string site_;
    int number_ = 1;
    std::map<std::string, Passed, std::less<>> passed_; // guarded by the mutex of the list
};

} // namespace zelvo_mqtt

#endif
