#include "ledger.h"

#include <cJSON.h>

#include <map>

namespace stress {
namespace {

using Numbers = std::map<std::string, std::int64_t>;

// Also what stands in groups: no two share a name.
void addNumbers(const cJSON *object, Numbers &numbers) {
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, object) {
        if (cJSON_IsNumber(item)) {
            numbers[item->string] += static_cast<std::int64_t>(item->valuedouble);
        }
        addNumbers(item, numbers);
    }
}

} // namespace

std::string imbalance(const World &world, const std::string &stats) {
    Numbers bus;
    Numbers observer;
    Numbers left; // by all nodes that have been closed
    const std::unique_ptr<cJSON, decltype(&cJSON_Delete)> json{cJSON_Parse(stats.c_str()),
                                                               cJSON_Delete};
    const cJSON *const data = cJSON_GetObjectItem(json.get(), "data");
    const cJSON *const nodes = cJSON_GetObjectItem(data, "nodes");
    addNumbers(cJSON_GetObjectItem(data, "server"), bus);
    addNumbers(cJSON_GetArrayItem(nodes, 0), observer);
    addNumbers(cJSON_GetObjectItem(data, "left"), left);

    const Plan &plan = world.plan;
    const bool calm = plan.call_timeout == 0 && !plan.restarts && plan.refused == 0;
    // A node makes one call more to leave, none where it is off the bus already.
    const bool allLeave = calm && !plan.rejoins && !plan.floods;
    const std::int64_t leaves = world.closed + world.not_connected;
    const std::int64_t calls = world.calls;
    const std::int64_t handled = world.heard + world.asked;
    const std::int64_t posts = world.published + world.asked + left["made"];
    const struct {
        const char *what;
        std::int64_t value, least, most;
    } rows[] = {
        {"nodes on the bus", cJSON_GetArraySize(nodes), 1, 1},
        // The observer's own request is counted as sent before or after it has been taken.
        {"taken by the bus and waiting", bus["taken"] + bus["depth"],
         left["sent"] + observer["made"] + bus["posted"],
         left["sent"] + observer["made"] + bus["posted"]},
        {"taken from the bus and unread", left["taken"] + left["unread"] + observer["depth"],
         bus["sent"], bus["sent"]},
        {"ends of calls", left["answered"] + left["refused"] + left["timedOut"] + left["givenUp"],
         left["made"], left["made"]},
        {"calls", left["made"] + observer["made"], calls + (allLeave ? world.closed.load() : 0),
         calls + leaves + world.joins},
        // Closing a node that does not run, or that gets no answer, answers what waits for it.
        {"handled", left["taken"], handled, calm && !plan.unspun ? handled : left["taken"]},
        // Beyond that, a node that goes may have to wake the bus, once.
        {"sent and dropped", left["sent"] + left["busFull"] + left["noMemory"],
         posts - left["refused"] - left["timedOut"], posts + leaves + left["taken"] - handled},
    };
    std::string found;
    for (const auto &row : rows) {
        if (row.value < row.least || row.value > row.most) {
            found += std::string{row.what} + ": " + std::to_string(row.value) + ", not " +
                     std::to_string(row.least) + " to " + std::to_string(row.most) + "\n";
        }
    }
    return found;
}

} // namespace stress
