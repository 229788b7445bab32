#include "json.h"

#include "config.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <string_view>

namespace zelvo_mqtt {
namespace {

// The library ends a text at an escaped NUL, so that something else would be read than is written.
bool hasEscapedNul(std::string_view json) {
    for (std::size_t at = 0; (at = json.find('\\', at)) != json.npos; at += 2) {
        if (json.substr(at, 6) == "\\u0000") {
            return true;
        }
    }
    return false;
}

} // namespace

std::string printed(const Json &json) {
    const std::unique_ptr<char, JsonDelete> text{cJSON_PrintUnformatted(json.get())};
    return text ? text.get() : throw std::bad_alloc{};
}

std::string jsonArray(const std::vector<std::string> &texts) {
    const Json array{cJSON_CreateArray()};
    for (const std::string &text : texts) {
        if (!cJSON_AddItemToArray(array.get(), cJSON_CreateString(text.c_str()))) {
            throw std::bad_alloc{};
        }
    }
    return printed(array);
}

void Value::refuse(const std::string &why) const {
    throw OpenError{way_.empty() ? "the configuration: " + why : "\"" + way_ + "\": " + why};
}

std::string Value::text() const {
    if (!cJSON_IsString(json_)) {
        refuse("has to be a text");
    }
    return json_->valuestring;
}

bool Value::boolean() const {
    if (!cJSON_IsBool(json_)) {
        refuse("has to be true or false");
    }
    return cJSON_IsTrue(json_) != 0;
}

std::uint64_t Value::number(std::uint64_t least, std::uint64_t most) const {
    const double value = cJSON_IsNumber(json_) ? json_->valuedouble : -1;
    if (!(value >= static_cast<double>(least) && value <= static_cast<double>(most)) ||
        std::floor(value) != value) {
        refuse("has to be a whole number from " + std::to_string(least) + " to " +
               std::to_string(most));
    }
    return static_cast<std::uint64_t>(value);
}

void Value::elements(const std::function<void(const Value &)> &read) const {
    if (!cJSON_IsArray(json_)) {
        refuse("has to be an array");
    }
    int index = 0;
    for (const cJSON *element = json_->child; element; element = element->next) {
        read(Value{element, way_ + "[" + std::to_string(index++) + "]"});
    }
}

std::string Value::wayTo(const char *member) const {
    return way_.empty() ? member : way_ + "." + member;
}

void Value::members(const Members &members) const {
    if (!isObject()) {
        refuse("has to be an object");
    }
    for (const Member &member : members) {
        if (member.required && !cJSON_GetObjectItemCaseSensitive(json_, member.name)) {
            Value{nullptr, wayTo(member.name)}.refuse("is missing");
        }
    }
    std::vector<std::string_view> seen;
    for (const cJSON *item = json_->child; item; item = item->next) {
        const std::string_view name = item->string;
        const Value value{item, wayTo(item->string)};
        const auto member = std::find_if(members.begin(), members.end(),
                                         [&](const Member &known) { return known.name == name; });
        if (member == members.end()) {
            value.refuse("there is no such member");
        }
        if (std::find(seen.begin(), seen.end(), name) != seen.end()) {
            value.refuse("stands there twice");
        }
        seen.push_back(name);
        member->read(value);
    }
}

void readJson(const char *json, const Members &members) {
    const Value whole{nullptr, ""};
    if (!json) {
        whole.refuse("there is none");
    }
    const Json parsed{cJSON_ParseWithOpts(json, nullptr, 1)};
    if (!parsed) {
        whole.refuse("is no JSON");
    }
    if (hasEscapedNul(json)) {
        whole.refuse("a text in it has a NUL (\\u0000)");
    }
    Value{parsed.get(), ""}.members(members);
}

} // namespace zelvo_mqtt
