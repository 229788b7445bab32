// A message from the broker, as far as the bridge looks at it.
#ifndef ZELVO_MQTT_INCOMING_H
#define ZELVO_MQTT_INCOMING_H

#include <mosquitto.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

// User properties: how many brokers a publication has passed, for how many milliseconds the caller
// waits for the answer to a request, and which of a site's bridges has said a presence.
inline constexpr const char *kHops = "zelvo-hops";
inline constexpr const char *kTimeout = "zelvo-timeout";
inline constexpr const char *kInstance = "zelvo-instance";

struct Incoming {
    std::string topic;
    std::string_view payload; // the message's
    bool retain = false;
    std::string answerTopic; // empty: there is none
    std::string correlation;
    std::string instance;
    std::uint32_t expiry = 0;       // seconds that are left; 0: none
    std::uint32_t subscription = 0; // the number of the one that it comes by; 0: none
    std::optional<int> hops = 0;    // nothing: the property is malformed, as below
    std::optional<int> timeout = 0; // 0: none
};

Incoming readIncoming(const mosquitto_message &message, const mosquitto_property *properties);

} // namespace zelvo_mqtt

#endif
