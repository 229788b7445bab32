// How many bridges a publication has passed. The bus carries no such number, so the bridges of one
// bus tell each other: what one has published, another that takes it from the bus knows again by
// its topic and content.
#ifndef ZELVO_MQTT_PASSING_H
#define ZELVO_MQTT_PASSING_H

#include <zelvo/bus_client.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

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

    // The topics that this bridge takes from the bus; once, before it publishes or takes any.
    void setTopics(const std::vector<std::string> &topics);
    int number() const { return number_; }
    bool alone() const; // no other bridge on the bus

    // Before this bridge publishes what has passed so many bridges, itself included.
    void publishes(std::string_view topic, std::string_view payload, int hops);
    // How many bridges a publication taken from the bus has passed with this one.
    int hopsOf(std::string_view topic, std::string_view payload);

private:
    struct Passed {
        std::size_t content = 0; // a hash
        int hops = 0;
        std::chrono::steady_clock::time_point when;
    };
    template <typename Function>
    static void eachBridge(Function function);
    void note(std::string_view topic, const Passed &passed);

    Zelvo_t *const bus_;
    const std::string site_;
    int number_ = 1;
    Passing *next_ = nullptr; // of the process; guarded by the mutex of the list
    std::mutex mutex_;        // of passed_
    std::map<std::string, std::deque<Passed>, std::less<>> passed_;
};

} // namespace zelvo_mqtt

#endif
