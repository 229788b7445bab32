// A message from the broker, as far as the bridge looks at it.
#ifndef ZELVO_MQTT_INCOMING_H
#define ZELVO_MQTT_INCOMING_H

#include <mosquitto.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

struct Incoming {
    std::string topic;
    std::string_view payload; // the message's
    bool retain = false;
    std::string answerTopic; // empty: there is none
    std::string correlation;
    std::uint32_t expiry = 0;    // seconds; 0: none
    std::optional<int> hops = 0; // nothing: the property is malformed
};

Incoming readIncoming(const mosquitto_message &message, const mosquitto_property *properties);

} // namespace zelvo_mqtt

#endif
