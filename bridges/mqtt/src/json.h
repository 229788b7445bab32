// What the bridge needs of the JSON library.
#ifndef ZELVO_MQTT_JSON_H
#define ZELVO_MQTT_JSON_H

#include <cJSON.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

namespace zelvo_mqtt {

struct JsonDelete {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
    void operator()(char *text) const { cJSON_free(text); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

// Throws std::bad_alloc, as the next.
inline std::string printed(const cJSON *json) {
    const std::unique_ptr<char, JsonDelete> text{cJSON_PrintUnformatted(json)};
    return text ? text.get() : throw std::bad_alloc{};
}

// ["a","b"], as the bus's functions take it; any bytes are kept.
inline std::string jsonArray(const std::vector<std::string> &texts) {
    const Json array{cJSON_CreateArray()};
    for (const std::string &text : texts) {
        if (!cJSON_AddItemToArray(array.get(), cJSON_CreateString(text.c_str()))) {
            throw std::bad_alloc{};
        }
    }
    return printed(array.get());
}

} // namespace zelvo_mqtt

#endif
