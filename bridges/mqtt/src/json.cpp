#include "json.h"

#include <new>

namespace zelvo_mqtt {

std::string printed(const cJSON *json) {
    const std::unique_ptr<char, JsonDelete> text{cJSON_PrintUnformatted(json)};
    if (!text) {
        throw std::bad_alloc{};
    }
    return text.get();
}

std::string jsonArray(const std::vector<std::string> &texts) {
    const Json array{cJSON_CreateArray()};
    for (const std::string &text : texts) {
        if (!cJSON_AddItemToArray(array.get(), cJSON_CreateString(text.c_str()))) {
            throw std::bad_alloc{};
        }
    }
    return printed(array.get());
}

} // namespace zelvo_mqtt
