#include "inflow.h"

#include "json.h"

#include <charconv>

namespace zelvo_mqtt {
namespace {

constexpr std::chrono::milliseconds kLook{2};          // between two looks at the others
constexpr std::chrono::milliseconds kLongestStand{50}; // of nodes that take nothing
constexpr std::chrono::milliseconds kLongestWait{500}; // for those that catch up

} // namespace

Inflow::Inflow(Zelvo_t *bus, const Config &config, const Topics &topics, const std::string &name,
               Passing &passing, Log &log, std::function<void()> wake)
    : passing_{passing},
      log_{log},
      wake_{std::move(wake)},
      name_{name},
      node_{bus, name, onMessage, nullptr, this} {
    for (const std::string &topic : config.in) {
        topics_[topics.publication(topic)] = topic;
    }
    node_.subscribe(jsonArray({name_}));
}

void Inflow::publish(const Incoming &incoming) {
    const std::string &topic = topics_.at(incoming.topic);
    const int hops = incoming.hops.value_or(kMostHops + 1);
    if (hops > kMostHops) {
        log_.warning("a publication of " + topic + " is dropped: " +
                     (incoming.hops
                          ? "it has gone over a broker more than " + std::to_string(kMostHops) +
                                " times, so sites that pass it on stand in a ring"
                          : std::string{"its number of hops is none"}));
        return;
    }
    passing_.publishes(topic, incoming.payload, hops);
    const char *const data = incoming.payload.empty() ? nullptr : incoming.payload.data();
    const int length = static_cast<int>(incoming.payload.size());
    if (incoming.retain && data) {
        busClientPublishSticky(node_.get(), topic.c_str(), data, length);
    } else {
        busClientPublish(node_.get(), topic.c_str(), data, length);
    }
    if (incoming.retain && !data) {
        busClientRemoveSticky(node_.get(), jsonArray({topic}).c_str());
    }
    if (++unmarked_ >= kChunk) {
        mark();
    }
}

void Inflow::mark() {
    unmarked_ = 0;
    marked_ = Clock::now();
    const std::string number = std::to_string(++marks_);
    busClientPublish(node_.get(), name_.c_str(), number.data(), static_cast<int>(number.size()));
}

std::chrono::milliseconds Inflow::pause() {
    using std::chrono::milliseconds;
    if (marks_ - returned_.load() < 2) {
        return milliseconds{0};
    }
    const auto left = std::chrono::ceil<milliseconds>(marked_ + kLongestPause - Clock::now());
    if (left.count() > 0) {
        return left;
    }
    log_.warning(
        "the bus has not taken publications for a second; what it has no room for is lost");
    returned_ = marks_;
    return milliseconds{0};
}

int Inflow::onMessage(void *self, client_t *, char *topic, char *data, int len) {
    Inflow &inflow = *static_cast<Inflow *>(self);
    std::uint32_t mark = 0;
    if (data && inflow.name_ == topic &&
        std::from_chars(data, data + len, mark).ec == std::errc{}) {
        try {
            inflow.awaitOthers();
        } catch (const std::exception &failure) {
            inflow.log_.error({"nodes that are behind are not waited for: ", failure.what()});
        }
        inflow.returned_ = mark;
        inflow.wake_();
    }
    return 0;
}

void Inflow::awaitOthers() {
    const auto begun = Clock::now();
    auto moved = begun;
    while (true) {
        const Backlog::Look look = backlog_.look(node_.get());
        const auto now = Clock::now();
        if (look == Backlog::Look::kNone || now - begun >= kLongestWait) {
            return;
        }
        if (look == Backlog::Look::kShrinks) {
            moved = now;
        } else if (now - moved >= kLongestStand) {
            backlog_.pass();
            return;
        }
        if (!sleep(kLook)) {
            return;
        }
    }
}

// False: closing.
bool Inflow::sleep(std::chrono::milliseconds time) {
    std::unique_lock lock{mutex_};
    return !changed_.wait_for(lock, time, [this] { return closing_; });
}

void Inflow::close() {
    const std::lock_guard lock{mutex_};
    closing_ = true;
    changed_.notify_all();
}

} // namespace zelvo_mqtt
