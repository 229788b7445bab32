#include "passing.h"

#include <algorithm>
#include <list>

namespace zelvo_mqtt {
namespace {

// What has been on its way across the bus for longer is there no more.
constexpr std::chrono::seconds kLongestWay{10};

// Of all bridges of the process; never destroyed, so that one may be closed while the process ends.
std::mutex bridgesMutex;
std::list<Passing *> &bridges() {
    static auto &list = *new std::list<Passing *>;
    return list;
}

} // namespace

Passing::Passing(Zelvo_t *bus, const std::string &site) : bus_{bus}, site_{site} {
    const std::lock_guard lock{bridgesMutex};
    const auto isTaken = [this](const Passing *other) {
        return other->bus_ == bus_ && other->site_ == site_ && other->number_ == number_;
    };
    while (std::any_of(bridges().begin(), bridges().end(), isTaken)) {
        ++number_;
    }
    bridges().push_back(this);
}

Passing::~Passing() {
    const std::lock_guard lock{bridgesMutex};
    bridges().remove(this);
}

bool Passing::alone() const {
    const std::lock_guard lock{bridgesMutex};
    return std::count_if(bridges().begin(), bridges().end(),
                         [this](const Passing *other) { return other->bus_ == bus_; }) == 1;
}

void Passing::publishes(std::string_view topic, int hops) {
    const std::lock_guard lock{bridgesMutex};
    passed_.insert_or_assign(std::string{topic}, Passed{hops, std::chrono::steady_clock::now()});
}

int Passing::hopsOf(std::string_view topic) const {
    const std::lock_guard lock{bridgesMutex};
    const auto oldest = std::chrono::steady_clock::now() - kLongestWay;
    int hops = 0;
    for (const Passing *other : bridges()) {
        const auto found = other->passed_.find(topic);
        if (other != this && other->bus_ == bus_ && found != other->passed_.end() &&
            found->second.when >= oldest) {
            hops = std::max(hops, found->second.hops);
        }
    }
    return hops + 1;
}

} // namespace zelvo_mqtt
