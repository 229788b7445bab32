// Calls to other sites: the nodes that stand for them on the bus.
#ifndef ZELVO_MQTT_CALLS_H
#define ZELVO_MQTT_CALLS_H

#include "call_link.h"
#include "node.h"

#include <condition_variable>
#include <deque>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

class Calls {
public:
    // Joins the bus with every node; throws OpenError.
    Calls(Common &common, CallLink &link);

    // With the link's mutex held; none blocks.
    void answer(const Incoming &incoming);
    void presence(std::string_view site, std::string_view state);
    void disconnected(); // calls that wait end, nothing is known of any site

    void close(); // ends every wait, and lets none begin

private:
    // A node makes one call after the other, in its thread.
    struct Site {
        Site(Calls &its, const Config::Call &call);
        Calls &calls;
        const std::string site, name;
        const std::string answerTopic;
        // The link's mutex guards the rest.
        std::condition_variable ended;
        std::string correlation; // of the call that waits; empty: none
        std::string answer;
        std::string_view failure; // why there is none, a literal; empty: there is
        bool offline = false;     // else it is online, or nothing is known
        Node node;                // last: its thread uses the others
    };

    static char *onCall(void *self, client_t *, char *url, char *data, int len);
    std::string_view ask(Site &site, std::string_view path, std::string_view data);
    std::string_view refusal(const Site &site) const;
    void end(Site &site, std::string_view failure);

    Common &common_;
    CallLink &link_;
    bool closing_ = false;   // guarded by the link's mutex
    std::deque<Site> sites_; // last: their threads use the others
};

} // namespace zelvo_mqtt

#endif
