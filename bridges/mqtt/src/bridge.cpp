#include "bridge.h"

#include "json.h"

namespace zelvo_mqtt {
namespace {

constexpr const char *kStateTopic = "mqtt.state";

// Of a close, which is to end within a second.
constexpr std::chrono::milliseconds kTakeTime{150};  // for what has been published
constexpr std::chrono::milliseconds kCloseTime{850}; // for all of it

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
      buffer_{config_.bufferMessages, config_.bufferBytes},
      link_{config_, topics_, buffer_, log_, *this},
      outflow_{bus,
               config_,
               topics_,
               name_,
               passing_,
               buffer_,
               log_,
               [this] { link_.kick(); },
               [this] { return state(); }},
      calls_{bus, config_, topics_, link_, log_},
      serving_{bus, config_, topics_, name_, link_, log_},
      receiver_{topics_, inflow_, calls_, serving_, log_} {
    if (!config_.in.empty()) {
        inflow_.emplace(bus, config_, topics_, name_ + ".in", passing_, log_,
                        [this] { link_.wake(); });
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
    link_.start();
}

bool Bridge::close() {
    const auto begun = Clock::now();
    if (!closing_) {
        closing_ = true;
        calls_.close();
        serving_.close();
        outflow_.finish(begun + kTakeTime);
        link_.stop();
        withdrawState();
    }
    if (inflow_) {
        inflow_->close();
    }
    eachNode([](Node &node) { node.askToLeave(); });
    bool done = true;
    eachNode([&](Node &node) { done = node.leave(begun + kCloseTime) && done; });
    return done;
}

Bridge::~Bridge() {
    calls_.close();
    serving_.close();
    if (inflow_) {
        inflow_->close();
    }
    link_.stop();
    if (!closing_) { // start() has failed
        try {
            withdrawState();
        } catch (const std::exception &failure) {
            log_.error({"\"mqtt.state\" is not withdrawn: ", failure.what()});
        }
    }
}

// ---- what the link tells, in its thread ----

void Bridge::connected() {
    log_.info("connected to " + config_.host + ":" + std::to_string(config_.port));
    announce(true, "");
}

void Bridge::disconnected(const std::string &why) {
    calls_.disconnected();
    announce(false, why);
}

void Bridge::received(const mosquitto_message &message, const mosquitto_property *properties) {
    receiver_.receive(readIncoming(message, properties));
}

std::chrono::milliseconds Bridge::pause() {
    return inflow_ ? inflow_->pause() : std::chrono::milliseconds{0};
}

// ---- "mqtt.state" ----

// Where a connection fails again and again for one reason, it is told once.
void Bridge::announce(bool connected, const std::string &why) {
    {
        const std::lock_guard lock{stateMutex_};
        if (connected == connected_ && why == why_ && why != "connecting") {
            return;
        }
        connected_ = connected;
        why_ = why;
    }
    if (!connected && why != "connecting") {
        log_.warning("no connection to " + config_.host + ":" + std::to_string(config_.port) +
                     ": " + why);
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
    const Buffer::Fill fill = buffer_.fill();
    const auto number = [](auto value) { return static_cast<double>(value); };
    const std::lock_guard lock{stateMutex_};
    const Json object = stateObject(name_, connected_, why_);
    cJSON_AddNumberToObject(object.get(), "waiting", number(fill.messages));
    cJSON_AddNumberToObject(object.get(), "bytes", number(fill.bytes));
    cJSON_AddNumberToObject(object.get(), "underWay", number(link_.underWay()));
    cJSON_AddNumberToObject(object.get(), "dropped", number(fill.dropped));
    return printed(object.get());
}

} // namespace zelvo_mqtt
