// Publications from the broker to the bus.
#ifndef ZELVO_MQTT_INFLOW_H
#define ZELVO_MQTT_INFLOW_H

#include "backlog.h"
#include "config.h"
#include "incoming.h"
#include "log.h"
#include "node.h"
#include "passing.h"
#include "topics.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

// The bus drops what it has no room for, and the broker sends faster than it can take. So a mark
// goes along behind every kChunk publications, to a node of the inflow's own: as long as two of
// them have not come back, nothing more is to be read from the broker. Before the node gives a mark
// back it waits for nodes that are far behind, as long as they catch up.
class Inflow {
public:
    static constexpr int kChunk = 128;

    // wake: called in the node's thread when a pause is over. Joins the bus; throws OpenError.
    Inflow(Zelvo_t *bus, const Config &config, const Topics &topics, const std::string &name,
           Passing &passing, Log &log, std::function<void()> wake);

    // The rest, except close(), is the link's thread's. None of it blocks.
    bool takes(const std::string &topic) const { return topics_.contains(topic); }
    void publish(const Incoming &incoming); // of a topic that it takes
    std::chrono::milliseconds pause();      // 0: go on reading

    void close(); // the node waits for nobody any more
    Node &node() { return node_; }

private:
    static constexpr std::chrono::milliseconds kLongestPause{1000};

    static int onMessage(void *self, client_t *, char *topic, char *data, int len);
    void mark();
    void awaitOthers();
    bool sleep(std::chrono::milliseconds time);

    Passing &passing_;
    Log &log_;
    const std::function<void()> wake_;
    const std::string name_;
    std::map<std::string, std::string> topics_; // the bus's by the broker's

    int unmarked_ = 0;
    std::uint32_t marks_ = 0;
    Clock::time_point marked_{};
    std::atomic<std::uint32_t> returned_{0};

    Backlog backlog_; // the node's thread's
    std::mutex mutex_;
    std::condition_variable changed_;
    bool closing_ = false; // guarded by mutex_
    Node node_;            // last: its thread uses the others
};

} // namespace zelvo_mqtt

#endif
