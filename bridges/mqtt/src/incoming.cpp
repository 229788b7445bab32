#include "incoming.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <charconv>
#include <cstdlib>
#include <memory>

namespace zelvo_mqtt {
namespace {

struct Free {
    void operator()(void *memory) const { std::free(memory); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

std::optional<int> readNumber(std::string_view text) {
    int number = 0;
    const char *const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number);
    if (error != std::errc{} || end != last || number < 0) {
        return std::nullopt;
    }
    return number;
}

std::string correlationIn(const mosquitto_property *properties) {
    void *data = nullptr;
    std::uint16_t length = 0;
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &length, false);
    const Owned<void> owned{data};
    return data ? std::string{static_cast<const char *>(data), length} : std::string{};
}

void readUserProperties(Incoming &incoming, const mosquitto_property *properties) {
    char *name = nullptr;
    char *value = nullptr;
    for (bool again = false; (properties = mosquitto_property_read_string_pair(
                                  properties, MQTT_PROP_USER_PROPERTY, &name, &value, again));
         again = true) {
        const Owned<char> ownedName{name};
        const Owned<char> ownedValue{value};
        if (std::string_view{name} == kHops) {
            incoming.hops = readNumber(value);
        } else if (std::string_view{name} == kTimeout) {
            incoming.timeout = readNumber(value);
        } else if (std::string_view{name} == kInstance) {
            incoming.instance = value;
        }
    }
}

} // namespace

Incoming readIncoming(const mosquitto_message &message, const mosquitto_property *properties) {
    Incoming incoming;
    incoming.topic = message.topic ? message.topic : "";
    incoming.retain = message.retain;
    if (message.payload && message.payloadlen > 0) {
        incoming.payload = {static_cast<const char *>(message.payload),
                            static_cast<std::size_t>(message.payloadlen)};
    }
    char *answerTopic = nullptr;
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &answerTopic, false);
    const Owned<char> owned{answerTopic};
    incoming.answerTopic = answerTopic ? answerTopic : "";
    incoming.correlation = correlationIn(properties);
    mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &incoming.expiry,
                                  false);
    mosquitto_property_read_varint(properties, MQTT_PROP_SUBSCRIPTION_IDENTIFIER,
                                   &incoming.subscription, false);
    readUserProperties(incoming, properties);
    return incoming;
}

} // namespace zelvo_mqtt
