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

void readUserProperty(Incoming &incoming, const mosquitto_property *property) {
    char *name = nullptr;
    char *value = nullptr;
    mosquitto_property_read_string_pair(property, MQTT_PROP_USER_PROPERTY, &name, &value, false);
    const Owned<char> ownedName{name};
    const Owned<char> ownedValue{value};
    if (name && value && std::string_view{name} == kHops) {
        incoming.hops = readNumber(value);
    } else if (name && value && std::string_view{name} == kTimeout) {
        incoming.timeout = readNumber(value);
    }
}

void readAnswerTopic(Incoming &incoming, const mosquitto_property *property) {
    char *text = nullptr;
    mosquitto_property_read_string(property, MQTT_PROP_RESPONSE_TOPIC, &text, false);
    const Owned<char> owned{text};
    incoming.answerTopic = text ? text : "";
}

void readCorrelation(Incoming &incoming, const mosquitto_property *property) {
    void *data = nullptr;
    std::uint16_t length = 0;
    mosquitto_property_read_binary(property, MQTT_PROP_CORRELATION_DATA, &data, &length, false);
    const Owned<void> owned{data};
    if (data) {
        incoming.correlation.assign(static_cast<const char *>(data), length);
    }
}

void readExpiry(Incoming &incoming, const mosquitto_property *property) {
    mosquitto_property_read_int32(property, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &incoming.expiry,
                                  false);
}

void readSubscription(Incoming &incoming, const mosquitto_property *property) {
    mosquitto_property_read_varint(property, MQTT_PROP_SUBSCRIPTION_IDENTIFIER,
                                   &incoming.subscription, false);
}

struct Reader {
    int identifier;
    void (*read)(Incoming &, const mosquitto_property *);
};
constexpr Reader kReaders[] = {{MQTT_PROP_USER_PROPERTY, readUserProperty},
                               {MQTT_PROP_RESPONSE_TOPIC, readAnswerTopic},
                               {MQTT_PROP_CORRELATION_DATA, readCorrelation},
                               {MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, readExpiry},
                               {MQTT_PROP_SUBSCRIPTION_IDENTIFIER, readSubscription}};

} // namespace

Incoming readIncoming(const mosquitto_message &message, const mosquitto_property *properties) {
    Incoming incoming;
    incoming.topic = message.topic ? message.topic : "";
    incoming.retain = message.retain;
    if (message.payload && message.payloadlen > 0) {
        incoming.payload = {static_cast<const char *>(message.payload),
                            static_cast<std::size_t>(message.payloadlen)};
    }
    for (; properties; properties = mosquitto_property_next(properties)) {
        const int identifier = mosquitto_property_identifier(properties);
        for (const Reader &reader : kReaders) {
            if (reader.identifier == identifier) {
                reader.read(incoming, properties);
            }
        }
    }
    return incoming;
}

} // namespace zelvo_mqtt
