// Publications from the bus to the broker, and the bridge's own node.
#ifndef ZELVO_MQTT_OUTFLOW_H
#define ZELVO_MQTT_OUTFLOW_H

#include "config.h"
#include "log.h"
#include "node.h"
#include "outbox.h"
#include "passing.h"
#include "topics.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace zelvo_mqtt {

class Outflow {
public:
    // kick: called in the node's thread when something is in the outbox. state: the answer of the
    // call "state", in the same thread. Joins the bus; throws OpenError.
    Outflow(Zelvo_t *bus, const Config &config, const Topics &topics, const std::string &name,
            Passing &passing, Outbox &outbox, Log &log, std::function<void()> kick,
            std::function<std::string()> state);

    void start();
    // Waits until what has been published before has got into the buffer, or until then.
    void finish(Clock::time_point until);
    Node &node() { return node_; }

private:
    struct Way {
        std::string topic; // the broker's
        bool retain = false;
        std::chrono::seconds expiry{0}; // 0: none
    };
    static int onMessage(void *self, client_t *, char *topic, char *data, int len);
    static char *onCall(void *self, client_t *, char *url, char *, int);
    void take(const char *topic, std::string payload);

    Passing &passing_;
    Outbox &outbox_;
    Log &log_;
    const std::function<void()> kick_;
    const std::function<std::string()> state_;
    const std::string name_;
    std::map<std::string, Way, std::less<>> ways_; // by the bus's topic
    std::mutex mutex_;
    std::condition_variable changed_;
    bool finished_ = false; // guarded by mutex_
    Node node_;             // last: its thread uses the others
};

} // namespace zelvo_mqtt

#endif
