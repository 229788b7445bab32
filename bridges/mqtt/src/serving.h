// Calls from other sites to nodes of this bus.
#ifndef ZELVO_MQTT_SERVING_H
#define ZELVO_MQTT_SERVING_H

#include "call_link.h"
#include "node.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace zelvo_mqtt {

// One calling node for each node that is served: a node answers one call after the other anyway,
// and one that is slow, or hangs, holds up no other.
class Serving {
public:
    static constexpr std::size_t kMostWaiting = 1000; // for one node
    // For all together; each node has its share of it, and room for one packet at least.
    static constexpr std::size_t kMostBytes = std::size_t{16} << 20;

    // Joins the bus with every calling node, NAME.serve.1 and so on; throws OpenError.
    Serving(Common &common, CallLink &link);

    // A message to the topic of requests. With the link's mutex held; does not block.
    void request(const Incoming &incoming);
    void close(); // no call begins any more

private:
    struct Request {
        std::string url;
        std::string data;
        std::string answerTopic;
        std::string correlation;
        Clock::time_point until; // then nobody waits for the answer any more

        std::size_t size() const {
            return url.size() + data.size() + answerTopic.size() + correlation.size();
        }
    };
    struct Caller {
        Caller(Serving &its, const std::string &name, std::string served);
        Serving &serving;
        const std::string callee;
        // The link's mutex guards the rest.
        std::condition_variable come;
        std::deque<Request> requests;
        std::size_t bytes = 0;  // of them
        bool scheduled = false; // the node's thread looks at the requests, or will
        Node node;              // last: its thread uses the others
    };

    static int onTimer(void *self, client_t *, int);
    std::optional<Request> next(Caller &caller);
    bool append(Caller &caller, Request request);
    std::chrono::milliseconds timeFor(const Incoming &incoming) const;
    const char *refusalOf(const Request &request, Caller *caller) const;
    bool hasRoom(const Caller &caller, std::size_t size) const;
    void dropExpired(Caller &caller) const;
    void call(Caller &caller, const Request &request);
    Caller *callerOf(std::string_view url);
    void answer(const Request &request, const char *text);
    void refuse(const Request &request, const std::string &why);

    Common &common_;
    CallLink &link_;
    bool closing_ = false;       // guarded by the link's mutex
    std::deque<Caller> callers_; // last: their threads use the others
};

} // namespace zelvo_mqtt

#endif
