// Calls from other sites to nodes of this bus.
#ifndef ZELVO_MQTT_SERVING_H
#define ZELVO_MQTT_SERVING_H

#include "config.h"
#include "incoming.h"
#include "link.h"
#include "log.h"
#include "node.h"
#include "topics.h"

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace zelvo_mqtt {

// One calling node for each node that is served: a node answers one call after the other anyway,
// and one that is slow, or hangs, holds up no other.
class Serving {
public:
    static constexpr std::size_t kMostWaiting = 1000; // for one node

    // Joins the bus with every calling node, NAME.serve.1 and so on; throws OpenError.
    Serving(Zelvo_t *bus, const Config &config, const Topics &topics, const std::string &name,
            Link &link, Log &log);

    // A message to the topic of requests. The link's thread's; does not block.
    void request(const Incoming &incoming);
    void close(); // no call begins any more
    template <typename Function>
    void eachNode(Function function) {
        for (Caller &caller : callers_) {
            function(caller.node);
        }
    }

private:
    struct Request {
        std::string url;
        std::string data;
        std::string answerTopic;
        std::string correlation;
        Clock::time_point until; // then nobody waits for the answer any more
    };
    struct Caller {
        Caller(Serving &its, Zelvo_t *bus, const std::string &name, std::string served);
        Serving &serving;
        const std::string callee;
        std::mutex mutex; // of the next three
        std::deque<Request> requests;
        bool scheduled = false; // the node's thread will look at the requests
        bool closing = false;
        Node node; // last: its thread uses the others
    };

    static int onTimer(void *self, client_t *, int);
    static std::optional<Request> next(Caller &caller);
    bool append(Caller &caller, Request request);
    void call(Caller &caller, const Request &request);
    Caller *callerOf(std::string_view url);
    void answer(const Request &request, const char *text);
    void refuse(const Request &request, const std::string &why);

    const Config &config_;
    const Topics &topics_;
    Link &link_;
    Log &log_;
    std::deque<Caller> callers_;
};

} // namespace zelvo_mqtt

#endif
