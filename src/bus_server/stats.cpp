// The answer of "/bus/stats".
#include "bus_server/internal.h"

#include <new>

namespace bus {
namespace {

template <typename Counters>
struct Row {
    const char *group; // the object that the member stands in, or null: the outermost
    const char *name;
    Counter Counters::*counter;
};

constexpr Row<NodeCounters> kNodeRows[] = {
    {nullptr, "taken", &NodeCounters::taken},
    {nullptr, "sent", &NodeCounters::sent},
    {"drops", "queueFull", &NodeCounters::queue_full},
    {"drops", "busFull", &NodeCounters::bus_full},
    {"drops", "ownFull", &NodeCounters::own_full},
    {"drops", "noMemory", &NodeCounters::no_memory},
    {"drops", "lateAnswer", &NodeCounters::late_answers},
    {"drops", "unread", &NodeCounters::unread},
    {"calls", "made", &NodeCounters::calls_made},
    {"calls", "answered", &NodeCounters::calls_answered},
    {"calls", "refused", &NodeCounters::calls_refused},
    {"calls", "timedOut", &NodeCounters::calls_timed_out},
    {"calls", "givenUp", &NodeCounters::calls_given_up},
};
constexpr Row<ServerCounters> kServerRows[] = {
    {nullptr, "taken", &ServerCounters::taken},
    {nullptr, "sent", &ServerCounters::sent},
    {nullptr, "posted", &ServerCounters::posted},
    {"drops", "queueFull", &ServerCounters::queue_full},
    {"drops", "noMemory", &ServerCounters::no_memory},
    {"drops", "noAddressee", &ServerCounters::no_addressee},
    {"drops", "stickyFull", &ServerCounters::sticky_full},
};

// Every step of the building may fail for want of memory.
cJSON *made(cJSON *json) {
    if (!json) {
        throw std::bad_alloc{};
    }
    return json;
}

void addNumber(cJSON *object, const char *name, double value) {
    made(cJSON_AddNumberToObject(object, name, value));
}

template <typename Counters, std::size_t kRows>
void addRows(cJSON *object, const Row<Counters> (&rows)[kRows], const Counters &counters) {
    for (const Row<Counters> &row : rows) {
        cJSON *group = row.group ? cJSON_GetObjectItem(object, row.group) : object;
        if (!group) {
            group = made(cJSON_AddObjectToObject(object, row.group));
        }
        const std::uint64_t value = (counters.*row.counter).load(std::memory_order_relaxed);
        addNumber(group, row.name, static_cast<double>(value));
    }
}

void addQueue(cJSON *object, bus_mk_q_t *queue) {
    cJSON *const group = made(cJSON_AddObjectToObject(object, "queue"));
    addNumber(group, "depth", bus_mk_q_count(queue));
    addNumber(group, "highest", bus_mk_q_highest(queue));
}

void addNode(cJSON *nodes, const client_t &client) {
    JsonPtr owned{made(cJSON_CreateObject())};
    cJSON *const node = owned.get();
    if (!cJSON_AddItemToArray(nodes, node)) {
        throw std::bad_alloc{};
    }
    static_cast<void>(owned.release());
    made(cJSON_AddStringToObject(node, "name", client.name.get()));
    addRows(node, kNodeRows, client.counters);
    addQueue(node, client.message_queue);
    addNumber(node, "timers", bus_mk_q_count(client.timer_queue));
}

void addNodes(cJSON *data, server_t &server) {
    cJSON *const nodes = made(cJSON_AddArrayToObject(data, "nodes"));
    const auto visit = [](void *item, void *arg) {
        try {
            addNode(static_cast<cJSON *>(arg), *static_cast<const node_t *>(item)->node);
            return 0;
        } catch (const std::bad_alloc &) { // not through the list's walk
            return -1;
        }
    };
    if (bus_mk_q_visit(server.nodes_queue, visit, nodes) != 0) {
        throw std::bad_alloc{};
    }
}

} // namespace

std::string statsText(server_t &server) {
    const JsonPtr answer{made(cJSON_CreateObject())};
    cJSON *const data = made(cJSON_AddObjectToObject(answer.get(), "data"));
    cJSON *const own = made(cJSON_AddObjectToObject(data, "server"));
    made(cJSON_AddStringToObject(own, "name", server.name.get()));
    addRows(own, kServerRows, server.counters);
    addQueue(own, server.message_queue);
    addNodes(data, server);
    addRows(made(cJSON_AddObjectToObject(data, "left")), kNodeRows, server.left);
    const JsonText printed{cJSON_Print(answer.get())};
    if (!printed) {
        throw std::bad_alloc{};
    }
    return printed.get();
}

} // namespace bus
