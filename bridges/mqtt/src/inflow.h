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
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

// The bus drops what it has no room for, and the broker sends faster than it can take. So a mark
// goes along behind every kChunk publications, to a node of the inflow's own: as long as two of
// them have not come back, nothing more is to be read from the broker. One that is lost is sent
// again. What is sticky has to be so in the end, but nobody is told what the bus drops: so the node
// looks at it afterwards, as any subscriber does, and what is something else is published again.
class Inflow {
public:
    static constexpr int kChunk = 128;

    // wake: called in the node's thread when a pause is over. Joins the bus, where something is to
    // come in; throws OpenError.
    Inflow(Common &common, std::function<void()> wake);

    // What is retained at the broker, and sticky on the bus.
    struct Topic {
        enum class Look { kDone, kDue, kBegun, kWrong };

        const std::string onBus;
        bool expected = false; // what is retained is to come now
        int hops = 0;          // of what was retained last
        // Written by the link's thread with the mutex, as the node's thread looks at them.
        std::optional<std::string> sticky = {}; // what this bridge has made so
        Look look = Look::kDone;                // whether it is so
        int tries = 0;                          // to make it so again
    };
    using Topics = std::map<std::string, Topic>; // by the broker's

    // The rest is the link's thread's. None of it blocks. Topics are the broker's.
    bool takes(const std::string &topic) const { return topics_.contains(topic); }
    const Topics &topics() const { return topics_; }
    void publish(const Incoming &incoming); // of a topic that it takes
    bool pauses();                          // nothing is to be read
    void check();                           // what is sticky; now and then
    void correct();                         // what is not as it should be, while nothing pauses

    // What is retained of the expected topics is to come now; what is sticky already is then not
    // published again.
    void expect(bool all);
    bool expectSticky(); // those that are sticky and have not come; false: there are none
    void sweep();        // what has not come is sticky no more; correct() makes it so

private:
    static constexpr std::chrono::milliseconds kMarkAgain{250};

    void mark(const std::string &text);
    void count();
    void settle(Topic &topic);

    // In the node's thread.
    static int onMessage(void *self, client_t *, char *topic, char *data, int len);
    void handle(const std::string &topic, std::string_view data);
    void see(const std::string &topic, std::string_view data);
    void judge(Topic &topic, bool isSo);
    void look();

    Common &common_;
    const std::function<void()> wake_;
    const std::string name_;
    Topics topics_;
    std::mutex mutex_; // of what is sticky

    int unmarked_ = 0;
    std::uint32_t marks_ = 0;
    Clock::time_point marked_{}, since_{}, asked_{};
    bool told_ = false;
    std::atomic<std::uint32_t> returned_{0}, look_{0}; // the latest mark; the look that is open
    std::atomic<bool> wrong_{false};                   // some topic is

    std::string watched_, lookedTo_; // the node's thread's
    std::optional<Node> node_;       // last: its thread uses the others
};

} // namespace zelvo_mqtt

#endif
