// What the bridge reads and writes in JSON. It reads by tables of members: whatever a table does
// not name, or names and is wrong, is refused.
#ifndef ZELVO_MQTT_JSON_H
#define ZELVO_MQTT_JSON_H

#include <cJSON.h>

#include <cstdint>
#include <functional>
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
std::string printed(const Json &json);
// ["a","b"], as the bus's functions take it; any bytes are kept.
std::string jsonArray(const std::vector<std::string> &texts);

class Value;
struct Member {
    const char *name;
    bool required;
    std::function<void(const Value &)> read;
};
using Members = std::vector<Member>;

// A value and the way to it ("out[2].topic"). Every function throws OpenError, naming that way,
// where the value is another one than it asks for.
class Value {
public:
    Value(const cJSON *json, std::string way) : json_{json}, way_{std::move(way)} {}

    bool isObject() const { return cJSON_IsObject(json_) != 0; }
    bool isArray() const { return cJSON_IsArray(json_) != 0; }
    std::string text() const;
    bool boolean() const;
    std::uint64_t number(std::uint64_t least, std::uint64_t most) const; // a whole one
    void elements(const std::function<void(const Value &)> &read) const;
    void members(const Members &members) const;
    [[noreturn]] void refuse(const std::string &why) const;

private:
    std::string wayTo(const char *member) const;

    const cJSON *json_;
    std::string way_; // empty: the whole
};

// The text has to be one object with these members.
void readJson(const char *json, const Members &members);

} // namespace zelvo_mqtt

#endif
