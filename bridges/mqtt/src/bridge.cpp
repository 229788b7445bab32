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

} // namespace

Bridge::Bridge(Zelvo_t *bus, const Config &config, Log &log)
    : config_{config},
      log_{log},
      topics_{config_.prefix, config_.site},
      passing_{bus, config_.site},
      name_{nodeName(config_.site)},
      outbox_{config_.bufferMessages, config_.bufferBytes},
      callLink_{config_, topics_, log_,
                [this](const auto &target, const auto &why) { callsChanged(target, why); },
                [this](const Incoming &incoming) { receiver_.receive(incoming); }},
      dataLink_{config_, topics_,
                outbox_, inflow_,
                log_,    [this](bool connected, const auto &why) { dataChanged(connected, why); }},
      outflow_{bus,
               config_,
               topics_,
               name_,
               passing_,
               outbox_,
               log_,
               [this] { dataLink_.kick(); },
               [this] { return state(); }},
      calls_{bus, config_, topics_, callLink_, log_},
      serving_{bus, config_, topics_, name_, callLink_, log_},
      receiver_{topics_, calls_, serving_, log_} {
    if (!config_.in.empty()) {
        inflow_.emplace(bus, config_, topics_, name_ + ".in", passing_, log_,
                        [this] { dataLink_.wake(); });
    }
}

std::string Bridge::nodeName(const std::string &site) const {
    const int number = passing_.number();
    return "mqtt." + site + (number > 1 ? "." + std::to_string(number) : "");
}

template <typename Function>
void Bridge::eachNode(Function function) {
    calls_.eachNode(function);
    serving_.eachNode(function);
    if (inflow_) {
        function(inflow_->node());
    }
    function(outflow_.node());
}

void Bridge::start() {
    announce(false, "connecting");
    calls_.eachNode([](Node &node) { node.start(); });
    serving_.eachNode([](Node &node) { node.start(); });
    if (inflow_) {
        inflow_->node().start();
    }
    outflow_.start();
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
        calls_.close();
        serving_.close();
        outflow_.finish(begun + kTakeTime);
        dataLink_.stop();
        callLink_.stop();
        withdrawState();
    }
    eachNode([](Node &node) { node.askToLeave(); });
    const auto until = std::max(begun + kCloseTime, Clock::now() + kLeaveTime);
    bool done = true;
    eachNode([&](Node &node) { done = node.leave(until) && done; });
    return done;
}

Bridge::~Bridge() {
    calls_.close();
    serving_.close();
    dataLink_.stop();
    callLink_.stop();
    inflow_.reset(); // whose thread wakes a link
    if (!closing_) { // start() has failed
        try {
            withdrawState();
        } catch (const std::exception &failure) {
            log_.error({"\"mqtt.state\" is not withdrawn: ", failure.what()});
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
        log_.info("connected");
    } else if (!starts) {
        log_.warning("no connection: " + why);
    }
    const std::string text = printed(stateObject(name_, connected, why).get());
    busClientPublishSticky(outflow_.node().get(), kStateTopic, text.data(),
                           static_cast<int>(text.size()));
}

void Bridge::withdrawState() {
    const std::string text = printed(stateObject(name_, false, "closed").get());
    client_t *const client = outflow_.node().get();
    busClientPublish(client, kStateTopic, text.data(), static_cast<int>(text.size()));
    if (passing_.alone()) {
        busClientRemoveSticky(client, jsonArray({kStateTopic}).c_str());
    }
}

std::string Bridge::state() {
    const Outbox::Fill fill = outbox_.fill();
    const Json denied{cJSON_CreateArray()};
    for (Link *const link : {static_cast<Link *>(&callLink_), static_cast<Link *>(&dataLink_)}) {
        for (const std::string &topic : link->denied()) {
            cJSON_AddItemToArray(denied.get(), cJSON_CreateString(topic.c_str()));
        }
    }
    const std::lock_guard lock{stateMutex_};
    const Json object = stateObject(name_, connected_, why_);
    const auto add = [&](const char *name, auto value) {
        cJSON_AddNumberToObject(object.get(), name, static_cast<double>(value));
    };
    add("waiting", fill.messages);
    add("bytes", fill.bytes);
    add("underWay", fill.underWay);
    add("dropped", outbox_.dropped.load());
    add("refused", outbox_.refused.load());
    add("expired", outbox_.expired.load());
    cJSON_AddItemReferenceToObject(object.get(), "denied", denied.get());
    return printed(object.get());
}

} // namespace zelvo_mqtt
