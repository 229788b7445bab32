#include "outflow.h"

#include "json.h"

namespace zelvo_mqtt {

Outflow::Ways Outflow::waysOf(const Common &common) {
    Ways ways;
    for (const Config::Out &out : common.config.out) {
        ways[out.topic] = {common.topics.publication(out.topic), &out};
    }
    return ways;
}

// The node's own name is the topic of the mark that settles() waits for. What is sticky comes at
// once, so the topics are subscribed to by portions that the node's queue has room for.
Outflow::Outflow(Common &common, DataLink &link, std::function<std::string()> state)
    : common_{common},
      link_{link},
      state_{std::move(state)},
      ways_{waysOf(common)},
      node_{common, common.name, onMessage, onCall, this} {
    constexpr std::size_t kPortion = 256;
    constexpr std::chrono::seconds kLongest{1};
    std::vector<std::string> portion{common.name};
    for (const Config::Out &out : common.config.out) {
        if (portion.size() == kPortion) {
            node_.subscribe(jsonArray(portion));
            settles(Clock::now() + kLongest);
            portion.clear();
        }
        portion.push_back(out.topic);
    }
    node_.subscribe(jsonArray(portion));
}

// NOLINTNEXTLINE(readability-non-const-parameter): the bus gives the type
int Outflow::onMessage(void *self, client_t *, char *topic, char *data, int len) {
    Outflow &outflow = *static_cast<Outflow *>(self);
    try {
        outflow.take(topic,
                     data ? std::string{data, static_cast<std::size_t>(len)} : std::string{});
    } catch (const std::exception &failure) {
        ++outflow.link_.outbox().dropped;
        outflow.common_.log.error({"a publication of ", topic, " is lost: ", failure.what()});
    }
    return 0;
}

void Outflow::take(const std::string &topic, std::string payload) {
    const auto found = ways_.find(topic);
    if (found == ways_.end()) {
        if (topic == common_.name) {
            const std::lock_guard lock{mutex_};
            if (payload == mark_) { // not an earlier one, which nobody waits for any more
                mark_.clear();
                changed_.notify_all();
            }
        }
        return;
    }
    const int hops = common_.passing.hopsOf(topic);
    if (hops > kMostHops) {
        common_.log.warning(
            "a publication of " + topic + " is not passed on: it has gone over a broker " +
            std::to_string(kMostHops) + " times, so sites that pass it on stand in a ring");
        return;
    }
    const auto &[brokers, out] = found->second;
    Publication publication{brokers, std::move(payload), out->retain, hops};
    if (out->expiry.count() > 0) {
        publication.until = Clock::now() + out->expiry;
    }
    link_.send(std::move(publication));
}

char *Outflow::onCall(void *self, client_t *, char *url, char *, int) {
    const Outflow &outflow = *static_cast<Outflow *>(self);
    try {
        if (std::string_view{url}.substr(1 + outflow.common_.name.size()) == "/state") {
            return mallocText(outflow.state_());
        }
    } catch (const std::exception &failure) {
        outflow.common_.log.error({"the call ", url, " fails: ", failure.what()});
    }
    return nullptr;
}

bool Outflow::settles(Clock::time_point until) {
    std::unique_lock lock{mutex_};
    mark_ = std::to_string(++marks_);
    busClientPublish(node_.get(), common_.name.c_str(), mark_.data(),
                     static_cast<int>(mark_.size()));
    return changed_.wait_until(lock, until, [this] { return mark_.empty(); });
}

void Outflow::finish(Clock::time_point until) {
    if (!settles(until)) {
        common_.log.warning("publications may be lost: the bus has not handed them over in time");
    }
}

} // namespace zelvo_mqtt
