#include "passing.h"

#include <algorithm>
#include <functional>

namespace zelvo_mqtt {
namespace {

// More than wait in the queues of a bus; one that was lost on the way makes room for others later.
constexpr std::size_t kMostKept = 4096;
constexpr std::chrono::seconds kLongestWay{10};

// Of all bridges of the process. Neither needs to be destroyed, so that a bridge may be closed
// while the process ends.
std::mutex bridgesMutex; // of the list; taken before a bridge's own
Passing *firstBridge = nullptr;

} // namespace

template <typename Function>
void Passing::eachBridge(Function function) {
    for (Passing *bridge = firstBridge; bridge; bridge = bridge->next_) {
        function(*bridge);
    }
}

Passing::Passing(Zelvo_t *bus, const std::string &site) : bus_{bus}, site_{site} {
    const std::lock_guard lock{bridgesMutex};
    for (bool taken = true; taken; number_ += taken ? 1 : 0) {
        taken = false;
        eachBridge([&](const Passing &other) {
            taken =
                taken || (other.bus_ == bus_ && other.site_ == site_ && other.number_ == number_);
        });
    }
    next_ = firstBridge;
    firstBridge = this;
}

Passing::~Passing() {
    const std::lock_guard lock{bridgesMutex};
    Passing **place = &firstBridge;
    while (*place != this) {
        place = &(*place)->next_;
    }
    *place = next_;
}

void Passing::setTopics(const std::vector<std::string> &topics) {
    const std::lock_guard lock{mutex_};
    for (const std::string &topic : topics) {
        passed_[topic];
    }
}

bool Passing::alone() const {
    const std::lock_guard lock{bridgesMutex};
    bool alone = true;
    eachBridge(
        [&](const Passing &other) { alone = alone && (&other == this || other.bus_ != bus_); });
    return alone;
}

void Passing::publishes(std::string_view topic, std::string_view payload, int hops) {
    const std::lock_guard lock{bridgesMutex};
    eachBridge([&](Passing &other) {
        if (&other != this && other.bus_ == bus_) {
            other.note(topic, {std::hash<std::string_view>{}(payload), hops,
                               std::chrono::steady_clock::now()});
        }
    });
}

void Passing::note(std::string_view topic, const Passed &passed) {
    const std::lock_guard lock{mutex_};
    const auto found = passed_.find(topic);
    if (found != passed_.end()) {
        if (found->second.size() >= kMostKept) {
            found->second.pop_front();
        }
        found->second.push_back(passed);
    }
}

int Passing::hopsOf(std::string_view topic, std::string_view payload) {
    const std::lock_guard lock{mutex_};
    const auto found = passed_.find(topic);
    if (found == passed_.end() || found->second.empty()) {
        return 1;
    }
    std::deque<Passed> &passed = found->second;
    const auto oldest = std::chrono::steady_clock::now() - kLongestWay;
    while (!passed.empty() && passed.front().when < oldest) {
        passed.pop_front();
    }
    const std::size_t content = std::hash<std::string_view>{}(payload);
    const auto same = std::find_if(passed.begin(), passed.end(),
                                   [&](const Passed &each) { return each.content == content; });
    if (same == passed.end()) {
        return 1;
    }
    const int hops = same->hops + 1;
    passed.erase(same);
    return hops;
}

} // namespace zelvo_mqtt
