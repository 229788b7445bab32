#include "inflow.h"

#include "json.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

namespace zelvo_mqtt {
namespace {

// Of what is looked at in one go, the node has room for as many topics; one topic may have more
// bytes.
constexpr std::size_t kPortion = 256;
constexpr std::size_t kPortionBytes = 4U << 20U;
constexpr std::chrono::seconds kBetweenLooks{2};
constexpr int kMostTries = 3;
constexpr std::string_view kLook = "look "; // and the number of the look that is open

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
    const bool expected = incoming.retain && std::exchange(topic.expected, false);
    const int hops = incoming.hops.value_or(kMostHops + 1);
    if (hops > kMostHops) {
        common_.log.warning("a publication of " + topic.onBus + " is dropped: " +
                            (incoming.hops ? "it has gone over a broker more than " +
                                                 std::to_string(kMostHops) +
                                                 " times, so sites that pass it on stand in a ring"
                                           : std::string{"its number of hops is none"}));
        return;
    }
    if (expected && topic.sticky == incoming.payload) {
        return;
    }
    if (incoming.retain) {
        const std::lock_guard lock{mutex_};
        topic.hops = hops;
        topic.sticky.reset();
        if (!incoming.payload.empty()) {
            topic.sticky = incoming.payload;
        }
        topic.tries = 0;
        settle(topic);
    } else {
        common_.passing.publishes(topic.onBus, hops);
        const char *const data = incoming.payload.empty() ? nullptr : incoming.payload.data();
        busClientPublish(node_->get(), topic.onBus.c_str(), data,
                         static_cast<int>(incoming.payload.size()));
    }
    count();
}

void Inflow::count() {
    if (++unmarked_ >= kChunk) {
        unmarked_ = 0;
        marked_ = Clock::now();
        mark(std::to_string(++marks_));
    }
}

void Inflow::mark(const std::string &text) {
    busClientPublish(node_->get(), name_.c_str(), text.data(), static_cast<int>(text.size()));
}

bool Inflow::pauses() {
    const auto now = Clock::now();
    if (marks_ - returned_.load() < 2) {
        since_ = now;
        told_ = false;
        return false;
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
    return true;
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
            its.tries = 0;
            its.look = Topic::Look::kWrong;
            wrong_ = true;
        }
    }
}

// With the mutex held.
void Inflow::settle(Topic &topic) {
    const char *const name = topic.onBus.c_str();
    topic.look = Topic::Look::kDue;
    common_.passing.publishes(topic.onBus, topic.hops);
    if (topic.sticky) {
        const std::string &payload = *topic.sticky;
        busClientPublishSticky(node_->get(), name, payload.data(),
                               static_cast<int>(payload.size()));
    } else {
        busClientPublish(node_->get(), name, nullptr, 0);
        busClientRemoveSticky(node_->get(), jsonArray({topic.onBus}).c_str());
    }
}

void Inflow::correct() {
    if (!wrong_.exchange(false)) {
        return;
    }
    const std::lock_guard lock{mutex_};
    for (auto &[topic, its] : topics_) {
        if (its.look == Topic::Look::kWrong) {
            if (pauses()) {
                wrong_ = true;
                return;
            }
            settle(its);
            count();
        }
    }
}

void Inflow::check() {
    const auto now = Clock::now();
    if (now - asked_ < kBetweenLooks) {
        return;
    }
    const std::lock_guard lock{mutex_};
    const auto isDue = [](const auto &topic) { return topic.second.look != Topic::Look::kDone; };
    if (std::any_of(topics_.begin(), topics_.end(), isDue)) {
        asked_ = now;
        mark(std::string{kLook} + std::to_string(look_));
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
    } else if (data.starts_with(kLook)) {
        if (data.substr(kLook.size()) == std::to_string(look_)) { // not one that is over
            look();
        }
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
        judge(found->second, found->second.sticky == data);
    }
}

// With the mutex held.
void Inflow::judge(Topic &topic, bool isSo) {
    topic.look = Topic::Look::kDone;
    if (isSo) {
        return;
    }
    const std::string what = topic.onBus + " is something else on the bus than at the broker";
    if (topic.tries == kMostTries) {
        common_.log.error({what, ", and left so"});
        return;
    }
    common_.log.warning(what + ", and published again");
    ++topic.tries;
    topic.look = Topic::Look::kWrong;
    wrong_ = true;
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
    std::size_t bytes = 0;
    std::string last;
    {
        const std::lock_guard lock{mutex_};
        for (auto &[topic, its] : topics_) {
            if (its.look == Look::kBegun) { // nothing has come
                judge(its, !its.sticky);
            } else if (its.look == Look::kDue && topic > lookedTo_ && next.size() < kPortion &&
                       bytes < kPortionBytes) {
                its.look = Look::kBegun;
                next.push_back(its.onBus);
                bytes += its.sticky ? its.sticky->size() : 0;
                last = topic;
            }
        }
    }
    if (wrong_) {
        wake_();
    }
    lookedTo_ = last;
    if (!next.empty()) {
        watched_ = jsonArray(next);
        node_->subscribe(watched_);
        // Counted behind what the subscription brings: a mark that says this number is, too.
        mark(std::string{kLook} + std::to_string(++look_));
    }
}

} // namespace zelvo_mqtt
