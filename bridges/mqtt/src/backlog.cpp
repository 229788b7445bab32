#include "backlog.h"

#include "json.h"

namespace zelvo_mqtt {
namespace {

constexpr double kFarBehind = 384; // of the 1,024 messages that wait for a node at most

double numberOf(const cJSON *object, const char *name) {
    const cJSON *const item = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsNumber(item) ? item->valuedouble : 0;
}

} // namespace

Backlog::Look Backlog::look(client_t *client) {
    if (!told_) {
        return Look::kNone;
    }
    const char *const stats = busClientCall(client, "/bus/stats", nullptr, 0);
    return stats ? judge(stats) : Look::kNone;
}

Backlog::Look Backlog::judge(const char *stats) {
    const Json json{cJSON_Parse(stats)};
    if (!json) { // memory is short, which says nothing of the bus
        return Look::kNone;
    }
    const cJSON *const data = cJSON_GetObjectItemCaseSensitive(json.get(), "data");
    const cJSON *const nodes = cJSON_GetObjectItemCaseSensitive(data, "nodes");
    told_ = cJSON_IsArray(nodes) != 0;
    Taken now;
    Look result = Look::kNone;
    for (const cJSON *node = told_ ? nodes->child : nullptr; node; node = node->next) {
        const cJSON *const name = cJSON_GetObjectItemCaseSensitive(node, "name");
        const cJSON *const queue = cJSON_GetObjectItemCaseSensitive(node, "queue");
        const double taken = numberOf(node, "taken");
        if (!cJSON_IsString(name) || numberOf(queue, "depth") < kFarBehind) {
            continue;
        }
        now[name->valuestring] = taken;
        const auto passed = passed_.find(name->valuestring);
        if (passed != passed_.end() && passed->second == taken) {
            continue;
        }
        const auto before = seen_.find(name->valuestring);
        const bool stands = before != seen_.end() && before->second == taken;
        result = stands && result != Look::kShrinks ? Look::kStands : Look::kShrinks;
    }
    seen_ = std::move(now);
    return result;
}

} // namespace zelvo_mqtt
