#include "inflow.h"

#include "json.h"

#include <charconv>

namespace zelvo_mqtt {

Inflow::Inflow(Common &common, std::function<void()> wake)
    : common_{common},
      wake_{std::move(wake)},
      name_{common.name + ".in"} {
    for (const std::string &topic : common.config.in) {
        topics_[common.topics.publication(topic)] = topic;
    }
    if (!topics_.empty()) {
        node_.emplace(common, name_, onMessage, nullptr, this);
        node_->subscribe(jsonArray({name_}));
    }
}

void Inflow::publish(const Incoming &incoming) {
    const std::string &topic = topics_.at(incoming.topic);
    const int hops = incoming.hops.value_or(kMostHops + 1);
    if (hops > kMostHops) {
        common_.log.warning("a publication of " + topic + " is dropped: " +
                            (incoming.hops ? "it has gone over a broker more than " +
                                                 std::to_string(kMostHops) +
                                                 " times, so sites that pass it on stand in a ring"
                                           : std::string{"its number of hops is none"}));
        return;
    }
    if (incoming.retain && isUnchanged(incoming)) {
        return;
    }
    common_.passing.publishes(topic, hops);
    const char *const data = incoming.payload.empty() ? nullptr : incoming.payload.data();
    const int length = static_cast<int>(incoming.payload.size());
    if (incoming.retain) {
        retain(incoming, topic);
    } else {
        busClientPublish(node_->get(), topic.c_str(), data, length);
    }
    if (++unmarked_ >= kChunk) {
        unmarked_ = 0;
        ++marks_;
        mark();
    }
}

void Inflow::mark() {
    marked_ = Clock::now();
    const std::string number = std::to_string(marks_);
    busClientPublish(node_->get(), name_.c_str(), number.data(), static_cast<int>(number.size()));
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
        mark();
    }
    if (!told_ && now - since_ >= std::chrono::seconds{1}) {
        told_ = true;
        common_.log.warning(
            "the bus takes no publications; until it does, none is taken from the broker");
    }
    return kMarkAgain;
}

int Inflow::onMessage(void *self, client_t *, char *topic, char *data, int len) {
    Inflow &inflow = *static_cast<Inflow *>(self);
    std::uint32_t mark = 0;
    if (data && inflow.name_ == topic &&
        std::from_chars(data, data + len, mark).ec == std::errc{}) {
        inflow.returned_ = mark;
        inflow.wake_();
    }
    return 0;
}

// ---- what is retained at the broker, and sticky on the bus ----

bool Inflow::isUnchanged(const Incoming &incoming) {
    const bool isExpected = expected_.erase(incoming.topic) > 0;
    const auto kept = sticky_.find(incoming.topic);
    return isExpected && kept != sticky_.end() && kept->second == incoming.payload;
}

void Inflow::retain(const Incoming &incoming, const std::string &topic) {
    if (incoming.payload.empty()) {
        sticky_.erase(incoming.topic);
        removeSticky(topic);
        return;
    }
    sticky_.insert_or_assign(incoming.topic, std::string{incoming.payload});
    busClientPublishSticky(node_->get(), topic.c_str(), incoming.payload.data(),
                           static_cast<int>(incoming.payload.size()));
}

void Inflow::removeSticky(const std::string &topic) {
    busClientPublish(node_->get(), topic.c_str(), nullptr, 0);
    busClientRemoveSticky(node_->get(), jsonArray({topic}).c_str());
}

void Inflow::expectAll() {
    expected_.clear();
    for (const auto &[topic, onBus] : topics_) {
        expected_.insert(topic);
    }
}

bool Inflow::expectSticky() {
    std::set<std::string> missing;
    for (const auto &[topic, payload] : sticky_) {
        if (expected_.contains(topic)) {
            missing.insert(topic);
        }
    }
    expected_ = std::move(missing);
    return !expected_.empty();
}

void Inflow::sweep() {
    for (const std::string &topic : expected_) {
        common_.log.info(topics_.at(topic) + " is sticky no more: the broker does not retain it");
        sticky_.erase(topic);
        removeSticky(topics_.at(topic));
    }
    expected_.clear();
}

} // namespace zelvo_mqtt
