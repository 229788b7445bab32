// Finds nodes by name and subscribers by topic, so that no message pays for the nodes and topics
// that it does not concern. The server's queues own what stands in here, and keep its order; this
// is an index into them. Server thread only.
#ifndef ZELVO_BUS_SERVER_DIRECTORY_H
#define ZELVO_BUS_SERVER_DIRECTORY_H

#include "bus_mk_list.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace bus {

struct message_t;
struct node_t;

// What the bus knows of one topic. It exists while anything of it is there.
struct Topic {
    std::vector<node_t *> subscribers; // in the order in which they joined the bus
    message_t *sticky = nullptr;
    bus_mk_list_node *place = nullptr; // of sticky, in the sticky store
};

class Directory {
public:
    node_t *find(std::string_view name) const noexcept;
    std::size_t nodes() const noexcept { return nodes_.size(); }
    // False: no memory, nothing is changed.
    bool add(node_t &node) noexcept;
    void remove(const node_t &node) noexcept;

    // Null when the topic is unknown. A Topic stays where it is until prune.
    Topic *topic(std::string_view name) noexcept;
    // Makes the topic when it is unknown; null: no memory.
    Topic *makeTopic(std::string_view name) noexcept;
    // Forgets the topic when neither subscriber nor sticky message is left.
    void prune(std::string_view name) noexcept;

    // False: no memory, nothing is changed.
    bool subscribe(node_t &node, std::string_view topic) noexcept;
    void unsubscribe(const node_t &node, std::string_view topic) noexcept;
    bool isSubscribed(const node_t &node, std::string_view topic) const noexcept;

private:
    // As makeTopic, but for the lack of memory: throws std::bad_alloc.
    Topic &entryOf(std::string_view name);

    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    std::unordered_map<std::string_view, node_t *> nodes_; // keys lie in the nodes
    std::unordered_map<std::string, Topic, Hash, std::equal_to<>> topics_;
};

} // namespace bus

#endif
