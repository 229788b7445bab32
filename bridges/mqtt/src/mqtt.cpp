// The two exported functions.
#include <zelvo/mqtt.h>

#include "bridge.h"

#include <memory>

struct zelvo_mqtt_t {
    zelvo_mqtt::Log log;
    std::unique_ptr<zelvo_mqtt::Bridge> bridge;
};

namespace zelvo_mqtt {
namespace {

void open(zelvo_mqtt_t &made, Zelvo_t *bus, const char *json) {
    if (!bus) {
        throw OpenError{"there is no bus"};
    }
    const Config config = readConfig(json);
    made.log.setName(config.site);
    if (!made.log.open(config.log, static_cast<Level>(config.logLevel), config.logSize << 20U)) {
        throw OpenError{"\"log\": the file \"" + config.log + "\" can't be opened"};
    }
    made.bridge = std::make_unique<Bridge>(bus, config, made.log);
    made.bridge->start();
}

} // namespace
} // namespace zelvo_mqtt

extern "C" ZELVO_MQTT_API zelvo_mqtt_t *zelvo_mqtt_open(Zelvo_t *bus, const char *json) noexcept {
    std::unique_ptr<zelvo_mqtt_t> made{new (std::nothrow) zelvo_mqtt_t};
    if (!made) {
        return nullptr;
    }
    try {
        zelvo_mqtt::open(*made, bus, json);
        return made.release();
    } catch (const std::exception &failure) {
        made->log.error({"the bridge is not opened: ", failure.what()});
    }
    return nullptr;
}

extern "C" ZELVO_MQTT_API int zelvo_mqtt_close(zelvo_mqtt_t *bridge) noexcept {
    if (!bridge) {
        return 0;
    }
    try {
        if (!bridge->bridge->close()) {
            bridge->log.warning("a call into the bus has not been answered yet: close again");
            return -1;
        }
    } catch (const std::exception &failure) {
        bridge->log.error({"closing: ", failure.what()});
    }
    delete bridge;
    return 0;
}
