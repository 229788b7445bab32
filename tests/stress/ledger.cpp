#include "ledger.h"

#include <cJSON.h>

#include <algorithm>

namespace stress {
namespace {

struct JsonDelete {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};

// Also what stands in groups.
void readNumbers(const cJSON *object, Counters &counters) {
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, object) {
        if (cJSON_IsNumber(item)) {
            counters.numbers[item->string] = static_cast<std::uint64_t>(item->valuedouble);
        }
        readNumbers(cJSON_IsObject(item) ? item : nullptr, counters);
    }
}

Counters readCounters(const cJSON *json) {
    Counters counters;
    const char *const name = cJSON_GetStringValue(cJSON_GetObjectItem(json, "name"));
    counters.name = name ? name : "left";
    readNumbers(json, counters);
    return counters;
}

// Its own request is counted as sent before or after it has been taken.
std::uint64_t sentBy(const Counters &node, const std::string &observer) {
    return node[node.name == observer ? "made" : "sent"];
}

} // namespace

std::optional<Stats> readStats(const char *text) {
    const std::unique_ptr<cJSON, JsonDelete> json{cJSON_Parse(text)};
    const cJSON *const data = cJSON_GetObjectItem(json.get(), "data");
    const cJSON *const server = cJSON_GetObjectItem(data, "server");
    if (!server) {
        return std::nullopt;
    }
    Stats stats;
    stats.server = readCounters(server);
    const cJSON *node = nullptr;
    cJSON_ArrayForEach(node, cJSON_GetObjectItem(data, "nodes")) {
        stats.nodes.push_back(readCounters(node));
    }
    stats.left = readCounters(cJSON_GetObjectItem(data, "left"));
    return stats;
}

void Ledger::between(const std::string &what, std::uint64_t value, std::uint64_t least,
                     std::uint64_t most) {
    if (value < least || value > most) {
        faults_ += what + ": " + std::to_string(value) + ", not " + std::to_string(least) +
                   (least == most ? "" : " to " + std::to_string(most)) + "\n";
    }
}

void checkMessages(Ledger &ledger, const Stats &stats, const std::string &observer) {
    const Counters &server = stats.server;
    const Counters &left = stats.left;
    std::uint64_t sent = left["sent"];
    std::uint64_t taken = left["taken"];
    std::uint64_t unread = left["unread"];
    for (const Counters &node : stats.nodes) {
        sent += sentBy(node, observer);
        taken += node["taken"];
        unread += node["unread"];
    }
    ledger.equal("taken by the bus and waiting, of what was sent to it",
                 server["taken"] + server["depth"], sent + server["posted"]);
    ledger.equal("taken from the bus and left unread, of what it sent", taken + unread,
                 server["sent"]);
}

void checkNode(Ledger &ledger, const Plan &plan, const Counters &stats, const Tally &tally) {
    const std::string &name = stats.name;
    ledger.equal(name + ", messages taken", stats["taken"], tally.heard + tally.asked);
    ledger.equal(name + ", calls made", stats["made"], tally.calls);
    ledger.equal(name + ", ends of calls", stats["answered"] + stats["refused"] + stats["timedOut"],
                 stats["made"]);
    // Not posted: a call that has waited for its turn only, or that was made while the node was off
    // the bus, where its join had been lost or it had left.
    const bool wasOff = plan.rejoins || plan.floods;
    const std::uint64_t posts = tally.published + tally.asked + tally.calls;
    const std::uint64_t unposted = stats["timedOut"] + (wasOff ? stats["refused"] : 0);
    ledger.between(name + ", sent and dropped",
                   stats["sent"] + stats["busFull"] + stats["noMemory"], posts - unposted, posts);
    const std::uint64_t gone = tally.timers_fired + stats["timers"];
    ledger.between(name + ", timers fired and waiting", gone,
                   tally.timers_set -
                       std::min<std::uint64_t>(tally.timers_set, stats["ownFull"] + tally.kills),
                   tally.timers_set);
}

void checkSums(Ledger &ledger, const World &world, const Stats &stats) {
    const Tally &tally = world.closed;
    const Counters &left = stats.left;
    const Plan &plan = world.plan;
    ledger.equal("nodes on the bus", stats.nodes.size(), 1);
    ledger.equal("ends of calls", left["answered"] + left["refused"] + left["timedOut"],
                 left["made"]);
    // A node makes one call more to leave, none where it is off the bus already.
    const bool calm = plan.call_timeout == 0 && !plan.restarts;
    const std::uint64_t closed = world.connected - 1; // all but the observer
    const bool allLeave = calm && !plan.rejoins && !plan.floods;
    ledger.between("calls made", left["made"], tally.calls + (allLeave ? closed : 0),
                   tally.calls + closed + world.not_connected);
    // Closing a node that does not run, or before the bus has answered, answers what waits for it.
    const std::uint64_t handled = tally.heard + tally.asked;
    ledger.between("messages taken", left["taken"], handled,
                   calm && !plan.unspun ? handled : left["taken"]);
    // Beyond that, a node that goes may have to wake the bus, once.
    const std::uint64_t posts = tally.published + tally.asked + left["made"];
    ledger.between("sent and dropped", left["sent"] + left["busFull"] + left["noMemory"],
                   posts - left["refused"] - left["timedOut"],
                   posts + closed + world.not_connected + (left["taken"] - handled));
}

} // namespace stress
