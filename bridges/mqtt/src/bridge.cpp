#include "bridge.h"

#include "json.h"

#include <algorithm>

namespace zelvo_mqtt {
namespace {

constexpr const char *kStateTopic = "mqtt.state";

// Of a close, which is to end within a second.
constexpr std::chrono::milliseconds kTakeTime{150};  // for what has been published
constexpr std::chrono::milliseconds kCloseTime{850}; // for all of it
constexpr std::chrono::milliseconds kLeaveTime{100}; // for the nodes at least

Json stateObject(const std::string &name, bool connected, const std::string &why) {
    Json object{cJSON_CreateObject()};
    cJSON_AddStringToObject(object.get(), "bridge", name.c_str());
    cJSON_AddBoolToObject(object.get(), "connected", connected);
    cJSON_AddStringToObject(object.get(), "why", why.c_str());
    return object;
}

void publishState(const Node &node, decltype(busClientPublish) publish, const Json &state) {
    const std::string text = printed(state);
    publish(node.get(), kStateTopic, text.data(), static_cast<int>(text.size()));
}

} // namespace

void receive(const Common &common, Calls &calls, Serving &serving, const Incoming &incoming) {
    const Topics &topics = common.topics;
    if (topics.isAnswer(incoming.topic)) {
        calls.answer(incoming);
    } else if (incoming.topic.starts_with(topics.requests())) {
        serving.request(incoming);
    } else if (const auto site = topics.siteOf(incoming.topic)) {
        calls.presence(*site, incoming.payload);
    } else {
        common.log.warning("a message to " + incoming.topic +
                           " is dropped: it is for nothing here");
    }
}

Bridge::Bridge(Zelvo_t *bus, const Config &config, Log &log)
    : common_{bus, config, log},
      callLink_{common_, [this](const auto &target, const auto &why) { callsChanged(target, why); },
                [this](const auto &incoming) { receive(common_, calls_, serving_, incoming); }},
      dataLink_{common_, [this](bool connected, const auto &why) { dataChanged(connected, why); }},
      outflow_{common_, dataLink_, [this] { return state(); }},
      calls_{common_, callLink_},
      serving_{common_, callLink_} {}

void Bridge::start() {
    announce(false, "connecting");
    dataLink_.start();
    callLink_.start();
}

bool Bridge::close() {
    const auto begun = Clock::now();
    if (!closing_) {
        {
            const std::lock_guard lock{stateMutex_};
            closing_ = true;
        }
        outflow_.finish(begun + kTakeTime);
        stop();
        withdrawState();
    }
    for (Node *const node : common_.nodes) {
        node->askToLeave();
    }
    const auto until = std::max(begun + kCloseTime, Clock::now() + kLeaveTime);
    bool done = true;
    for (Node *const node : common_.nodes) {
        done = node->leave(until) && done;
    }
    return done;
}

void Bridge::stop() {
    calls_.close();
    serving_.close();
    dataLink_.stop();
    callLink_.stop();
}

Bridge::~Bridge() {
    stop();
    if (!closing_) { // start() has failed
        try {
            withdrawState();
        } catch (const std::exception &failure) {
            common_.log.error({"\"mqtt.state\" is not withdrawn: ", failure.what()});
        }
    }
}

// ---- what the links tell, in their threads ----

void Bridge::callsChanged(const std::optional<Target> &target, const std::string &why) {
    dataLink_.allow(target);
    if (!target) {
        calls_.disconnected();
        announce(false, why);
    }
}

// Where the other connection is lost, it knows why.
void Bridge::dataChanged(bool connected, const std::string &why) {
    if (connected || callLink_.isConnected()) {
        announce(connected, why);
    }
}

// ---- "mqtt.state" ----

// Where a connection fails again and again for one reason, it is told once.
void Bridge::announce(bool connected, const std::string &why) {
    const std::lock_guard lock{stateMutex_};
    const bool starts = why == "connecting";
    if (closing_ || (connected == connected_ && why == why_ && !starts)) {
        return;
    }
    connected_ = connected;
    why_ = why;
    if (connected) {
        common_.log.info("connected");
    } else if (!starts) {
        common_.log.warning("no connection: " + why);
    }
    publishState(outflow_.node(), busClientPublishSticky,
                 stateObject(common_.name, connected, why));
}

void Bridge::withdrawState() {
    publishState(outflow_.node(), busClientPublish, stateObject(common_.name, false, "closed"));
    if (common_.passing.alone()) {
        busClientRemoveSticky(outflow_.node().get(), jsonArray({kStateTopic}).c_str());
    }
}

std::string Bridge::state() {
    const Outbox &outbox = dataLink_.outbox();
    const Outbox::Fill fill = outbox.fill();
    std::vector<std::string> denied = callLink_.denied();
    for (const std::string &topic : dataLink_.denied()) {
        denied.push_back(topic);
    }
    const std::lock_guard lock{stateMutex_};
    const Json object = stateObject(common_.name, connected_, why_);
    const std::pair<const char *, std::uint64_t> numbers[] = {
        {"waiting", fill.messages},  {"bytes", fill.bytes},       {"underWay", fill.underWay},
        {"dropped", outbox.dropped}, {"refused", outbox.refused}, {"expired", outbox.expired}};
    for (const auto &[name, number] : numbers) {
        cJSON_AddNumberToObject(object.get(), name, static_cast<double>(number));
    }
    cJSON_AddRawToObject(object.get(), "denied", jsonArray(denied).c_str());
    return printed(object);
}

} // namespace zelvo_mqtt
