// What the bridge needs of the JSON library.
#ifndef ZELVO_MQTT_JSON_H
#define ZELVO_MQTT_JSON_H

#include <cJSON.h>

#include <memory>
#include <string>
#include <vector>

namespace zelvo_mqtt {

struct JsonDelete {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
    void operator()(char *text) const { cJSON_free(text); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

// Both throw std::bad_alloc.
std::string printed(const cJSON *json);
// ["a","b"], as the bus's functions take it; any bytes are kept.
std::string jsonArray(const std::vector<std::string> &texts);

} // namespace zelvo_mqtt

#endif
