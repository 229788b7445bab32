#include "inflow.h"

#include "json.h"

#include <charconv>
#include <utility>
#include <vector>

namespace zelvo_mqtt {
namespace {

constexpr std::size_t kPortion = 256; // of topics that are looked at, for which the node has room
constexpr std::chrono::seconds kBetweenLooks{2};
constexpr const char *kLook = "look"; // a mark that is no number

} // namespace

Inflow::Inflow(Common &common, std::function<void()> wake)
    : common_{common},
      wake_{std::move(wake)},
      name_{common.name + ".in"} {
    for (const std::string &topic : common.config.in) {
        topics_.try_emplace(common.topics.publication(topic), Topic{topic});
    }
    if (!topics_.empty()) {
        node_.emplace(common, name_, onMessage, nullptr, this);
        node_->subscribe(jsonArray({name_}));
    }
}

void Inflow::publish(const Incoming &incoming) {
    Topic &topic = topics_.at(incoming.topic);
    const int hops = incoming.hops.value_or(kMostHops + 1);
    if (hops > kMostHops) {
        common_.log.warning("a publication of " + topic.onBus + " is dropped: " +
                            (incoming.hops ? "it has gone over a broker more than " +
                                                 std::to_string(kMostHops) +
                                                 " times, so sites that pass it on stand in a ring"
                                           : std::string{"its number of hops is none"}));
        return;
    }
    if (incoming.retain && std::exchange(topic.expected, false) &&
        topic.sticky == incoming.payload) {
        return;
    }
    common_.passing.publishes(topic.onBus, hops);
    if (incoming.retain) {
        const std::lock_guard lock{mutex_};
        topic.sticky.reset();
        if (!incoming.payload.empty()) {
            topic.sticky = incoming.payload;
        }
        settle(topic);
    } else {
        const char *const data = incoming.payload.empty() ? nullptr : incoming.payload.data();
        busClientPublish(node_->get(), topic.onBus.c_str(), data,
                         static_cast<int>(incoming.payload.size()));
    }
    if (++unmarked_ >= kChunk) {
        unmarked_ = 0;
        marked_ = Clock::now();
        mark(std::to_string(++marks_));
    }
}

void Inflow::mark(const std::string &text) {
    busClientPublish(node_->get(), name_.c_str(), text.data(), static_cast<int>(text.size()));
}

std::chrono::milliseconds Inflow::pause() {
    using std::chrono::milliseconds;
    const auto now = Clock::now();
    if (marks_ - returned_.load() < 2) {
        since_ = now;
        told_ = false;
        return milliseconds{0};
    }
    if (now - marked_ >= kMarkAgain) {
        marked_ = now;
        mark(std::to_string(marks_));
    }
    if (!told_ && now - since_ >= std::chrono::seconds{1}) {
        told_ = true;
        common_.log.warning(
            "the bus takes no publications; until it does, none is taken from the broker");
    }
    return kMarkAgain;
}

// ---- what is retained at the broker, and sticky on the bus ----

void Inflow::expect(bool all) {
    for (auto &[topic, its] : topics_) {
        its.expected = all;
    }
}

bool Inflow::expectSticky() {
    bool any = false;
    for (auto &[topic, its] : topics_) {
        its.expected = its.expected && its.sticky;
        any = any || its.expected;
    }
    return any;
}

void Inflow::sweep() {
    const std::lock_guard lock{mutex_};
    for (auto &[topic, its] : topics_) {
        if (std::exchange(its.expected, false)) {
            common_.log.info(its.onBus + " is sticky no more: the broker does not retain it");
            its.sticky.reset();
            settle(its);
        }
    }
}

// With the mutex held.
void Inflow::settle(Topic &topic) {
    const char *const name = topic.onBus.c_str();
    topic.look = Topic::Look::kDue;
    if (topic.sticky) {
        busClientPublishSticky(node_->get(), name, topic.sticky->data(),
                               static_cast<int>(topic.sticky->size()));
    } else {
        busClientPublish(node_->get(), name, nullptr, 0);
        busClientRemoveSticky(node_->get(), jsonArray({topic.onBus}).c_str());
    }
}

// What has been looked at is handled, and what is due is asked for.
void Inflow::check() {
    using Look = Topic::Look;
    const std::lock_guard lock{mutex_};
    bool isDue = false;
    for (auto &[topic, its] : topics_) {
        if (its.look == Look::kWrong) {
            common_.log.warning(its.onBus + " is published again: the bus had no room for it");
            settle(its);
        }
        isDue = isDue || its.look != Look::kDone;
    }
    const auto now = Clock::now();
    if (isDue && now - asked_ >= kBetweenLooks) {
        asked_ = now;
        mark(kLook);
    }
}

// ---- the node's thread ----

// NOLINTNEXTLINE(readability-non-const-parameter): the bus gives the type
int Inflow::onMessage(void *self, client_t *, char *topic, char *data, int len) {
    Inflow &inflow = *static_cast<Inflow *>(self);
    try {
        inflow.handle(topic, {data ? data : "", static_cast<std::size_t>(data ? len : 0)});
    } catch (const std::exception &failure) {
        inflow.common_.log.error({"sticky topics are not looked at: ", failure.what()});
    }
    return 0;
}

void Inflow::handle(const std::string &topic, std::string_view data) {
    std::uint32_t number = 0;
    if (topic != name_) {
        see(topic, data);
    } else if (data == kLook) {
        look();
    } else if (std::from_chars(data.data(), data.data() + data.size(), number).ec == std::errc{}) {
        returned_ = number;
        wake_();
    }
}

// What comes first is what the bus keeps.
void Inflow::see(const std::string &topic, std::string_view data) {
    const auto found = topics_.find(common_.topics.publication(topic));
    const std::lock_guard lock{mutex_};
    if (found != topics_.end() && found->second.look == Topic::Look::kBegun) {
        found->second.look =
            found->second.sticky == data ? Topic::Look::kDone : Topic::Look::kWrong;
    }
}

// Ends the look at some topics and begins the next, until none is due. What the bus keeps of them
// is here before the mark.
void Inflow::look() {
    using Look = Topic::Look;
    if (!watched_.empty()) {
        node_->ask("/bus/unsubscribe", watched_);
        watched_.clear();
    }
    std::vector<std::string> next;
    std::string last;
    {
        const std::lock_guard lock{mutex_};
        for (auto &[topic, its] : topics_) {
            if (its.look == Look::kBegun) { // nothing has come
                its.look = its.sticky ? Look::kWrong : Look::kDone;
            } else if (its.look == Look::kDue && topic > lookedTo_ && next.size() < kPortion) {
                its.look = Look::kBegun;
                next.push_back(its.onBus);
                last = topic;
            }
        }
    }
    lookedTo_ = last;
    if (!next.empty()) {
        watched_ = jsonArray(next);
        node_->subscribe(watched_);
        mark(kLook);
    }
}

} // namespace zelvo_mqtt
