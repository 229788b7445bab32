// Publications from the bus to the broker, and the bridge's own node.
#ifndef ZELVO_MQTT_OUTFLOW_H
#define ZELVO_MQTT_OUTFLOW_H

#include "data_link.h"
#include "node.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace zelvo_mqtt {

class Outflow {
public:
    // state: the answer of the call "state", in the node's thread. Joins the bus; throws OpenError.
    Outflow(Common &common, DataLink &link, std::function<std::string()> state);

    // Waits until what has been published before has got into the buffer, or until then.
    void finish(Clock::time_point until);
    Node &node() { return node_; }

private:
    struct Way {
        std::string topic; // the broker's
        const Config::Out *out = nullptr;
    };
    using Ways = std::map<std::string, Way>; // by the bus's topic
    static Ways waysOf(const Common &common);
    static int onMessage(void *self, client_t *, char *topic, char *data, int len);
    static char *onCall(void *self, client_t *, char *url, char *, int);
    void take(const std::string &topic, std::string payload);
    // Whether what the bus has had for the node before has been taken by then.
    bool settles(Clock::time_point until);

    Common &common_;
    DataLink &link_;
    const std::function<std::string()> state_;
    const Ways ways_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string mark_; // that is waited for; empty: it has come. Guarded by mutex_
    unsigned marks_ = 0;
    Node node_; // last: its thread uses the others
};

} // namespace zelvo_mqtt

#endif
