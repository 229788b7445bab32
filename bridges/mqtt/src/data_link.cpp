#include "data_link.h"

#include <mqtt_protocol.h>

#include <algorithm>

namespace zelvo_mqtt {
namespace {

constexpr std::chrono::milliseconds kLongestConnect{10'000};
constexpr std::chrono::seconds kLongestAnswer{2}; // doubled with each question
constexpr int kMostQuestions = 3;
constexpr int kPublications = MQTT_SUB_OPT_NO_LOCAL | MQTT_SUB_OPT_RETAIN_AS_PUBLISHED;

// Nothing: there is no time left.
std::optional<Properties> propertiesOf(const Publication &publication) {
    mosquitto_property *list = userProperty(kHops, std::to_string(publication.hops)).release();
    Properties properties{list};
    if (publication.until != Clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::seconds>(publication.until - Clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        mosquitto_property_add_int32(&list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     static_cast<std::uint32_t>(left.count()));
    }
    return properties;
}

} // namespace

DataLink::DataLink(const Config &config, const Topics &topics, Outbox &outbox,
                   std::optional<Inflow> &inflow, Log &log, Changed changed)
    : Link{config, log},
      topics_{topics},
      outbox_{outbox},
      inflow_{inflow},
      changed_{std::move(changed)} {}

void DataLink::allow(const std::optional<Target> &target) {
    {
        const std::lock_guard lock{targetMutex_};
        target_ = target;
    }
    wake();
}

std::optional<Target> DataLink::target() {
    const std::lock_guard lock{targetMutex_};
    return target_;
}

Purpose DataLink::purpose() const {
    return {.clientId = clientId(config_), .expiry = config_.sessionExpiry};
}

void DataLink::seek() {
    outbox_.connectionLost(false); // again, where memory was short then
    if (const std::optional<Target> to = target()) {
        connect(*to, kLongestConnect);
    }
}

void DataLink::lost(const std::string &why, bool byBroker) {
    round_ = Round::kNone;
    const std::optional<Publication> givenUp = outbox_.connectionLost(byBroker);
    if (givenUp) {
        refuse(*givenUp, "the broker has ended every connection at it");
    }
    changed_(false, why);
}

std::chrono::milliseconds DataLink::pause() {
    return inflow_ ? inflow_->pause() : std::chrono::milliseconds{0};
}

void DataLink::everySecond() {
    tellDrops();
    if (isConnected() && round_ != Round::kNone && Clock::now() >= askAt_) {
        askAgain();
    }
}

// ---- what goes out ----

void DataLink::flush() {
    while (std::optional<Publication> publication = outbox_.next(window_)) {
        if (!publish(std::move(*publication))) {
            break;
        }
    }
}

// False: there is no use in going on now.
bool DataLink::publish(Publication publication) {
    const std::optional<Properties> properties = propertiesOf(publication);
    if (!properties) {
        ++outbox_.expired;
        return true;
    }
    int mid = 0;
    const int result = put(mid, publication.topic, publication.payload,
                           std::min(config_.qos, mostQos_), publication.retain, *properties);
    switch (result) {
    case MOSQ_ERR_SUCCESS:
        if (mid != sentMid_) {
            outbox_.sent(mid, std::move(publication));
        }
        return true;
    case MOSQ_ERR_CONN_LOST: // perhaps at this one
    case MOSQ_ERR_ERRNO:
        outbox_.sent(mid, std::move(publication));
        return false;
    case MOSQ_ERR_NO_CONN:
    case MOSQ_ERR_NOMEM:
        outbox_.back(std::move(publication));
        return false;
    default:
        refuse(publication, errorText(result));
        return true;
    }
}

void DataLink::acknowledged(int mid, int reason) {
    const std::optional<Publication> publication = outbox_.done(mid);
    if (!publication) {
        return;
    }
    if (reason >= 128) {
        refuse(*publication, mosquitto_reason_string(reason));
    } else {
        prosper();
    }
}

void DataLink::refuse(const Publication &publication, const std::string &why) {
    ++outbox_.refused;
    tellRefusal(publication.topic,
                "a publication of " + std::to_string(publication.payload.size()) + " bytes to " +
                    publication.topic,
                why);
}

void DataLink::tellDrops() {
    const std::uint64_t dropped = outbox_.dropped;
    const std::uint64_t expired = outbox_.expired;
    if (dropped + expired > told_) {
        const Outbox::Fill fill = outbox_.fill();
        log_.warning(std::to_string(dropped + expired - told_) +
                     " publications were dropped: the buffer was full, or they had expired (" +
                     std::to_string(dropped) + " and " + std::to_string(expired) +
                     " since the start); " + std::to_string(fill.messages) + " wait, of " +
                     std::to_string(fill.bytes) + " bytes");
        told_ = dropped + expired;
    }
}

std::size_t DataLink::unsent() {
    const Outbox::Fill fill = outbox_.fill();
    return fill.messages + fill.underWay;
}

// ---- what comes in ----

void DataLink::greet() {
    if (mostQos_ < config_.qos) {
        log_.warning("the broker knows publications of \"qos\" " + std::to_string(mostQos_) +
                     " at most");
    }
    questions_ = 0;
    if (inflow_) {
        inflow_->expectNone();
        begin(!retains_ ? Round::kNone : sessionKept_ ? Round::kKept : Round::kAll);
    }
    if (!hasAsked()) {
        changed_(true, "");
    }
}

// What is published from now on comes.
void DataLink::subscribed() {
    if (mayConnect()) {
        changed_(true, "");
    }
}

void DataLink::begin(Round round) {
    round_ = round;
    if (round_ == Round::kAll) {
        inflow_->expectAll();
    } else if (round_ == Round::kMissing && !inflow_->expectSticky()) {
        round_ = Round::kNone;
        unsubscribe(topics_.ownPresence());
        return;
    }
    ask();
}

void DataLink::ask() {
    const bool retained = round_ == Round::kAll || round_ == Round::kMissing;
    const int options = kPublications | (retained ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS
                                                  : MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    for (const auto &[topic, onBus] : inflow_->topics()) {
        if (!retained || inflow_->expected().contains(topic)) {
            subscribe(topic, config_.qos, options);
        }
    }
    if (round_ != Round::kNone) {
        subscribe(topics_.ownPresence(), 1, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS, ++question_);
        askAt_ = Clock::now() + kLongestAnswer * (1 << questions_++);
    }
}

// Where the presence can't be read, what is retained is asked for all the same, once.
void DataLink::askAgain() {
    if (questions_ < kMostQuestions) {
        ask();
        return;
    }
    log_.warning("topics that the broker has emptied may stay sticky: it does not hand over " +
                 topics_.ownPresence() + ", which is to come behind what is retained");
    if (round_ == Round::kKept) {
        begin(Round::kAll);
    }
    round_ = Round::kNone;
}

void DataLink::answered() {
    switch (round_) {
    case Round::kKept:
        begin(Round::kAll);
        break;
    case Round::kAll:
        begin(Round::kMissing);
        break;
    default:
        inflow_->sweep();
        begin(Round::kMissing); // none
    }
}

void DataLink::received(const Incoming &incoming) {
    if (incoming.topic == topics_.ownPresence()) {
        if (incoming.retain && incoming.subscription == question_ && round_ != Round::kNone) {
            answered();
        }
    } else if (inflow_ && inflow_->takes(incoming.topic)) {
        inflow_->publish(incoming);
    } else {
        log_.warning("a message to " + incoming.topic +
                     " is dropped: a bridge before this one has asked for it, which ends now");
        unsubscribe(incoming.topic);
    }
}

} // namespace zelvo_mqtt
