// Publications from the broker to the bus.
#ifndef ZELVO_MQTT_INFLOW_H
#define ZELVO_MQTT_INFLOW_H

#include "incoming.h"
#include "node.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

// The bus drops what it has no room for, and the broker sends faster than it can take. So a mark
// goes along behind every kChunk publications, to a node of the inflow's own: as long as two of
// them have not come back, nothing more is to be read from the broker. One that is lost is sent
// again.
class Inflow {
public:
    static constexpr int kChunk = 128;

    // wake: called in the node's thread when a pause is over. Joins the bus, where something is to
    // come in; throws OpenError.
    Inflow(Common &common, std::function<void()> wake);

    // The rest is the link's thread's. None of it blocks. Topics are the broker's.
    bool takes(const std::string &topic) const { return topics_.contains(topic); }
    const std::map<std::string, std::string> &topics() const { return topics_; } // and the bus's
    void publish(const Incoming &incoming); // of a topic that it takes
    std::chrono::milliseconds pause();      // 0: go on reading

    // What is retained of the expected topics is to come now; what is sticky already is then not
    // published again.
    void expectNone() { expected_.clear(); }
    void expectAll();
    bool expectSticky(); // those that are sticky and have not come; false: there are none
    const std::set<std::string> &expected() const { return expected_; }
    void sweep(); // what has not come is sticky no more

private:
    static constexpr std::chrono::milliseconds kMarkAgain{250};

    static int onMessage(void *self, client_t *, char *topic, char *data, int len);
    void mark();
    bool isUnchanged(const Incoming &incoming);
    void retain(const Incoming &incoming, const std::string &topic);
    void removeSticky(const std::string &topic);

    Common &common_;
    const std::function<void()> wake_;
    const std::string name_;
    std::map<std::string, std::string> topics_; // the bus's by the broker's
    std::map<std::string, std::string> sticky_; // payloads, by the broker's topic
    std::set<std::string> expected_;

    int unmarked_ = 0;
    std::uint32_t marks_ = 0;
    Clock::time_point marked_{}, since_{};
    bool told_ = false;
    std::atomic<std::uint32_t> returned_{0};
    std::optional<Node> node_; // last: its thread uses the others
};

} // namespace zelvo_mqtt

#endif
