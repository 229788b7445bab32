#include "call_link.h"

#include <mqtt_protocol.h>

#include <algorithm>

#include <unistd.h>

namespace zelvo_mqtt {
namespace {

using std::chrono::milliseconds;

constexpr int kKeepAlive = 15; // seconds
constexpr milliseconds kLongestLookup{10'000};
constexpr milliseconds kLongestConnect{10'000};
constexpr milliseconds kLongestOfSeveral{3'000}; // where there are other addresses to try
constexpr const char *kRival = "another bridge has the name of this site: each puts the other out";
constexpr const char *kPresence = "the presence of this site on";
constexpr std::size_t kMostUnsent = 2048;
constexpr std::size_t kMostUnsentBytes = std::size_t{16} << 20;

// Tells the bridges of a site apart.
std::string newInstance() {
    return std::to_string(getpid()) + "-" + std::to_string(Clock::now().time_since_epoch().count());
}

Properties propertiesOf(const Direct &message) {
    mosquitto_property *list = nullptr;
    if (!message.answerTopic.empty()) {
        mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, message.answerTopic.c_str());
    }
    if (!message.correlation.empty()) {
        mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, message.correlation.data(),
                                      static_cast<std::uint16_t>(message.correlation.size()));
    }
    if (message.timeout.count() > 0) {
        const auto seconds = std::chrono::ceil<std::chrono::seconds>(message.timeout);
        mosquitto_property_add_int32(&list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     static_cast<std::uint32_t>(seconds.count()));
        mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, kTimeout,
                                           std::to_string(message.timeout.count()).c_str());
    }
    return Properties{list};
}

std::size_t sizeOf(const Direct &message) {
    return message.topic.size() + message.payload.size() + message.answerTopic.size() +
           message.correlation.size();
}

} // namespace

CallLink::CallLink(Common &common, Changed changed, Received received)
    : Link{common,
           {.clientId = clientId(common.config) + "/calls",
            .keepAlive = kKeepAlive,
            .will = common.topics.ownPresence(),
            .instance = newInstance()}},
      changed_{std::move(changed)},
      received_{std::move(received)},
      lookups_(common.config.brokers.size()) {}

// Address by address, and broker by broker.
void CallLink::seek() {
    if (targets_.empty() && !lookUp()) {
        return;
    }
    target_ = std::move(targets_.front());
    targets_.pop_front();
    connect(target_, targets_.empty() ? kLongestConnect : kLongestOfSeveral);
}

// False: there is no address yet, or none.
bool CallLink::lookUp() {
    const Config::Broker &broker = common_.config.brokers[broker_];
    Lookup &lookup = lookups_[broker_];
    const auto now = Clock::now();
    if (!lookedUp_) {
        lookup.begin(broker.host);
        lookedUp_ = now;
    }
    if (!lookup.done() && now - *lookedUp_ < kLongestLookup) {
        return false;
    }
    lookedUp_.reset();
    broker_ = (broker_ + 1) % common_.config.brokers.size();
    if (!lookup.done()) {
        fail(broker.host + ": the name service does not answer");
        return false;
    }
    for (const std::string &address : lookup.addresses()) {
        targets_.push_back({broker, address});
    }
    if (targets_.empty()) {
        fail(broker.host + ": " + lookup.failure());
    }
    return !targets_.empty();
}

void CallLink::greet() {
    targets_.clear();
    broker_ = 0;
    for (const Config::Call &call : common_.config.call) {
        subscribe(common_.topics.presence(call.site), 1, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
    }
    if (!common_.config.call.empty()) {
        subscribe(common_.topics.ownAnswers(), 0, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    }
    subscribe(common_.topics.requests() + '#', 0, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    hasRival_ = false;
    subscribe(common_.topics.ownPresence(), 1, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
    if (!retains_) {
        common_.log.warning(
            "the broker retains nothing: other sites learn only of changes whether this "
            "one is online, and topics with \"retain\" are sticky nowhere else");
    }
    sayOnline();
}

void CallLink::sayOnline() {
    presenceStands_ = true;
    presenceMid_ = 0;
    int mid = 0;
    const int result = put(mid, common_.topics.ownPresence(), "online", std::min(1, mostQos_),
                           retains_, userProperty(kInstance, purpose_.instance));
    presenceMid_ = mid;
    if (result != MOSQ_ERR_SUCCESS) {
        deny(common_.topics.ownPresence(), kPresence, errorText(result));
    } else if (sentMid_ == mid) {
        acknowledged(mid, 0);
    }
}

// The broker has the presence, or will not have it: all else can begin.
void CallLink::acknowledged(int mid, int reason) {
    if (mid == presenceMid_) {
        presenceMid_ = 0;
        if (reason >= 128) {
            deny(common_.topics.ownPresence(), kPresence, mosquitto_reason_string(reason));
        } else {
            prosper();
        }
        hasBeenUp_ = true;
        changed_(target_, "");
        return;
    }
    const auto found = unsent_.find(mid);
    if (found != unsent_.end()) {
        unsentBytes_ -= found->second;
        unsent_.erase(found);
    }
}

void CallLink::everySecond() {
    if (isConnected() && !presenceStands_) {
        sayOnline();
    }
}

void CallLink::received(const Incoming &incoming) {
    if (incoming.topic != common_.topics.ownPresence()) {
        received_(incoming);
        return;
    }
    presenceStands_ = presenceStands_ && (incoming.retain || incoming.payload == "online");
    // What another has left before this one first came is of an earlier time.
    if (hasBeenUp_ && !incoming.instance.empty() && incoming.instance != purpose_.instance) {
        hasRival_ = true;
        common_.log.error({kRival});
    }
}

void CallLink::lost(const std::string &why, bool) {
    unsent_.clear();
    unsentBytes_ = 0;
    changed_(std::nullopt, hasRival_ ? kRival : why);
}

// A publication of "offline" would wait behind what is to be sent.
int CallLink::farewellReason() const {
    return MQTT_RC_DISCONNECT_WITH_WILL_MSG;
}

std::string_view CallLink::send(const Direct &message) {
    const std::size_t size = sizeOf(message);
    if (!isConnected()) {
        return "there is no connection to the broker";
    }
    if (unsent_.size() >= kMostUnsent || unsentBytes_ + size > kMostUnsentBytes) {
        return "too many messages wait for the broker";
    }
    int mid = 0;
    const int result = put(mid, message.topic, message.payload, 0, false, propertiesOf(message));
    if (result != MOSQ_ERR_SUCCESS) {
        return mosquitto_strerror(result);
    }
    if (mid != sentMid_) {
        unsentBytes_ += unsent_[mid] = size;
        wake();
    }
    return "";
}

} // namespace zelvo_mqtt
