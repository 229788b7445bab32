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

DataLink::DataLink(Common &common, Changed changed)
    : Link{common, {.clientId = clientId(common.config), .expiry = common.config.sessionExpiry}},
      changed_{std::move(changed)},
      outbox_{common.config.bufferMessages, common.config.bufferBytes},
      inflow_{common, [this] { wake(); }} {}

void DataLink::allow(const std::optional<Target> &target) {
    const Lock its = lock();
    target_ = target;
    wake();
}

void DataLink::send(Publication publication) {
    outbox_.push(std::move(publication));
    kick();
}

void DataLink::seek() {
    outbox_.connectionLost(false); // again, where memory was short then
    connect(*target_, kLongestConnect);
}

void DataLink::lost(const std::string &why, bool byBroker) {
    round_ = Round::kNone;
    const std::optional<Publication> givenUp = outbox_.connectionLost(byBroker);
    if (givenUp) {
        refuse(*givenUp, "the broker has ended every connection at it");
    }
    changed_(false, why);
}

void DataLink::everySecond() {
    tellDrops();
    inflow_.correct();
    inflow_.check();
    if (isConnected() && round_ != Round::kNone && Clock::now() >= askAt_) {
        askAgain();
    }
}

// ---- what goes out ----

void DataLink::flush() {
    inflow_.correct();
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
    const int result = put(publication.mid, publication.topic, publication.payload,
                           std::min(common_.config.qos, mostQos_), publication.retain, *properties);
    switch (result) {
    case MOSQ_ERR_SUCCESS:
        if (publication.mid != sentMid_) {
            outbox_.sent(std::move(publication));
        }
        return true;
    case MOSQ_ERR_CONN_LOST: // perhaps at this one
    case MOSQ_ERR_ERRNO:
        outbox_.sent(std::move(publication));
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
        common_.log.warning(
            std::to_string(dropped + expired - told_) +
            " publications were dropped: the buffer was full, or they had expired (" +
            std::to_string(dropped) + " and " + std::to_string(expired) + " since the start); " +
            std::to_string(fill.messages) + " wait, of " + std::to_string(fill.bytes) + " bytes");
        told_ = dropped + expired;
    }
}

std::size_t DataLink::unsent() {
    const Outbox::Fill fill = outbox_.fill();
    return fill.messages + fill.underWay;
}

// ---- what comes in ----

void DataLink::greet() {
    if (mostQos_ < common_.config.qos) {
        common_.log.warning("the broker knows publications of \"qos\" " + std::to_string(mostQos_) +
                            " at most");
    }
    questions_ = 0;
    inflow_.expect(false);
    if (!retains_) {
        listen(false);
    } else if (!inflow_.topics().empty()) {
        begin(sessionKept_ ? Round::kKept : Round::kAll);
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
        inflow_.expect(true);
    } else if (round_ == Round::kMissing && !inflow_.expectSticky()) {
        round_ = Round::kNone;
    }
    if (round_ == Round::kNone) {
        unsubscribe(common_.topics.ownPresence());
    } else {
        ask();
    }
}

void DataLink::listen(bool retained) {
    const int options = kPublications | (retained ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS
                                                  : MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    for (const auto &[topic, its] : inflow_.topics()) {
        if (!retained || its.expected) {
            subscribe(topic, common_.config.qos, options);
        }
    }
}

void DataLink::ask() {
    listen(round_ != Round::kKept);
    subscribe(common_.topics.ownPresence(), 1, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS, ++question_);
    askAt_ = Clock::now() + kLongestAnswer * (1 << questions_++);
}

// Where the presence can't be read, what is retained is asked for all the same, once.
void DataLink::askAgain() {
    if (questions_ < kMostQuestions) {
        ask();
        return;
    }
    common_.log.warning(
        "topics that the broker has emptied may stay sticky: it does not hand over " +
        common_.topics.ownPresence() + ", which is to come behind what is retained");
    if (round_ == Round::kKept) {
        begin(Round::kAll);
    }
    round_ = Round::kNone;
}

void DataLink::answered() {
    if (round_ == Round::kMissing) {
        inflow_.sweep();
    }
    begin(round_ == Round::kKept  ? Round::kAll
          : round_ == Round::kAll ? Round::kMissing
                                  : Round::kNone);
}

void DataLink::received(const Incoming &incoming) {
    if (incoming.topic == common_.topics.ownPresence()) {
        if (incoming.retain && incoming.subscription == question_ && round_ != Round::kNone) {
            answered();
        }
    } else if (inflow_.takes(incoming.topic)) {
        inflow_.publish(incoming);
    } else {
        common_.log.warning(
            "a message to " + incoming.topic +
            " is dropped: a bridge before this one has asked for it, which ends now");
        unsubscribe(incoming.topic);
    }
}

} // namespace zelvo_mqtt
