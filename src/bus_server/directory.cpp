#include "bus_server/directory.h"

#include "bus_server_ex.h"

#include <algorithm>
#include <new>

namespace bus {
namespace {

// Where node stands in all, or is to stand.
auto placeOf(const node_t &node, auto &all) noexcept {
    const auto joinedBefore = [](const node_t *other, std::uint64_t joined) {
        return other->joined < joined;
    };
    return std::lower_bound(all.begin(), all.end(), node.joined, joinedBefore);
}

} // namespace

node_t *Directory::find(std::string_view name) const noexcept {
    const auto found = nodes_.find(name);
    return found == nodes_.end() ? nullptr : found->second;
}

bool Directory::add(node_t &node) noexcept {
    try {
        nodes_.emplace(node.name.get(), &node);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

void Directory::remove(const node_t &node) noexcept {
    nodes_.erase(node.name.get());
}

Topic *Directory::topic(std::string_view name) noexcept {
    const auto found = topics_.find(name);
    return found == topics_.end() ? nullptr : &found->second;
}

Topic &Directory::entryOf(std::string_view name) {
    Topic *const known = topic(name);
    return known ? *known : topics_.emplace(name, Topic{}).first->second;
}

Topic *Directory::makeTopic(std::string_view name) noexcept {
    try {
        return &entryOf(name);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void Directory::prune(std::string_view name) noexcept {
    const auto found = topics_.find(name);
    if (found != topics_.end() && found->second.subscribers.empty() && !found->second.sticky) {
        topics_.erase(found);
    }
}

bool Directory::subscribe(node_t &node, std::string_view topic) noexcept {
    try {
        std::vector<node_t *> &all = entryOf(topic).subscribers;
        all.insert(placeOf(node, all), &node);
        return true;
    } catch (const std::bad_alloc &) {
        prune(topic);
        return false;
    }
}

void Directory::unsubscribe(const node_t &node, std::string_view topic) noexcept {
    const auto found = topics_.find(topic);
    if (found == topics_.end()) {
        return;
    }
    std::vector<node_t *> &all = found->second.subscribers;
    if (const auto place = placeOf(node, all); place != all.end() && *place == &node) {
        all.erase(place);
        prune(topic);
    }
}

bool Directory::isSubscribed(const node_t &node, std::string_view topic) const noexcept {
    const auto found = topics_.find(topic);
    if (found == topics_.end()) {
        return false;
    }
    const std::vector<node_t *> &all = found->second.subscribers;
    const auto place = placeOf(node, all);
    return place != all.end() && *place == &node;
}

} // namespace bus
