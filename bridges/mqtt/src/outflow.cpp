#include "outflow.h"

#include "json.h"

#include <string_view>

namespace zelvo_mqtt {

Outflow::Outflow(Zelvo_t *bus, const Config &config, const Topics &topics, const std::string &name,
                 Passing &passing, Outbox &outbox, Log &log, std::function<void()> kick,
                 std::function<std::string()> state)
    : passing_{passing},
      outbox_{outbox},
      log_{log},
      kick_{std::move(kick)},
      state_{std::move(state)},
      name_{name},
      node_{bus, name, onMessage, onCall, this} {
    for (const Config::Out &out : config.out) {
        ways_[out.topic] = {topics.publication(out.topic), out.retain, out.expiry};
    }
}

// The node's own name is the topic of the mark that finish() waits for.
void Outflow::start() {
    std::vector<std::string> subscribed{name_};
    for (const auto &[topic, way] : ways_) {
        subscribed.push_back(topic);
    }
    node_.start();
    node_.subscribe(jsonArray(subscribed));
}

int Outflow::onMessage(void *self, client_t *, char *topic, char *data, int len) {
    Outflow &outflow = *static_cast<Outflow *>(self);
    try {
        outflow.take(topic,
                     data ? std::string{data, static_cast<std::size_t>(len)} : std::string{});
    } catch (const std::exception &failure) {
        ++outflow.outbox_.dropped;
        outflow.log_.error({"a publication of ", topic, " is lost: ", failure.what()});
    }
    return 0;
}

void Outflow::take(const char *topic, std::string payload) {
    const auto way = ways_.find(std::string_view{topic});
    if (way == ways_.end()) {
        if (name_ == topic) {
            const std::lock_guard lock{mutex_};
            finished_ = true;
            changed_.notify_all();
        }
        return;
    }
    const int hops = passing_.hopsOf(topic);
    if (hops > kMostHops) {
        log_.warning(std::string{"a publication of "} + topic +
                     " is not passed on: it has gone over a broker " + std::to_string(kMostHops) +
                     " times, so sites that pass it on stand in a ring");
        return;
    }
    Publication publication{way->second.topic, std::move(payload), way->second.retain, hops};
    if (way->second.expiry.count() > 0) {
        publication.until = Clock::now() + way->second.expiry;
    }
    outbox_.push(std::move(publication));
    kick_();
}

char *Outflow::onCall(void *self, client_t *, char *url, char *, int) {
    const Outflow &outflow = *static_cast<Outflow *>(self);
    try {
        if (std::string_view{url}.substr(1 + outflow.name_.size()) == "/state") {
            return mallocText(outflow.state_());
        }
    } catch (const std::exception &failure) {
        outflow.log_.error({"the call ", url, " fails: ", failure.what()});
    }
    return nullptr;
}

void Outflow::finish(Clock::time_point until) {
    std::unique_lock lock{mutex_};
    busClientPublish(node_.get(), name_.c_str(), nullptr, 0);
    if (!changed_.wait_until(lock, until, [this] { return finished_; })) {
        log_.warning("publications may be lost: the bus has not handed them over in time");
    }
}

} // namespace zelvo_mqtt
