// The configuration, checked as a whole.
#ifndef ZELVO_MQTT_CONFIG_H
#define ZELVO_MQTT_CONFIG_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelvo_mqtt {

struct Config {
    struct Broker {
        std::string host;
        int port = 0;
        bool tls = false;
    };
    struct Out {
        std::string topic;
        bool retain = false;
        std::chrono::seconds expiry{0}; // 0: none
    };
    struct Call {
        std::string site;
        std::string node; // its name on the bus
    };

    std::vector<Broker> brokers; // in the order in which they are tried
    std::string ca, certificate, key;
    std::string user, password;
    std::string site;
    std::string prefix = "zelvo";
    std::vector<Out> out;
    std::vector<std::string> in;
    std::vector<Call> call;
    std::vector<std::string> serve;
    int qos = 1;
    std::chrono::milliseconds callTimeout{5000};
    std::size_t bufferMessages = 10'000;
    std::size_t bufferBytes = std::size_t{16} << 20;
    std::uint32_t sessionExpiry = 3600;
    std::uint32_t maxPacket = std::uint32_t{1} << 20U;
    std::string log;
    int logLevel = 3;
    std::size_t logSize = 20; // megabytes; 0: no limit
};

// Says what has been refused, and why; opening then ends.
class OpenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads the files that it names, except the log's. Throws OpenError, which names the member, and
// std::bad_alloc.
Config readConfig(const char *json);

} // namespace zelvo_mqtt

#endif
