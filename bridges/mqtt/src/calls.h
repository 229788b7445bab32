// Calls to other sites: the nodes that stand for them on the bus.
#ifndef ZELVO_MQTT_CALLS_H
#define ZELVO_MQTT_CALLS_H

#include "call_link.h"
#include "config.h"
#include "log.h"
#include "node.h"
#include "topics.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

class Calls {
public:
    // Joins the bus with every node; throws OpenError.
    Calls(Zelvo_t *bus, const Config &config, const Topics &topics, CallLink &link, Log &log);

    // The link's thread's; none blocks.
    void answer(const Incoming &incoming);
    void presence(std::string_view site, std::string_view state);
    void disconnected(); // calls that wait end, nothing is known of any site

    void close(); // ends every wait, and lets none begin
    template <typename Function>
    void eachNode(Function function) {
        for (Site &site : sites_) {
            function(site.node);
        }
    }

private:
    // A node makes one call after the other, in its thread.
    struct Site {
        Site(Calls &its, Zelvo_t *bus, const Config::Call &call);
        Calls &calls;
        const std::string site, name;
        const std::string answerTopic;
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
    static void end(Site &site, std::string_view failure);

    const Config &config_;
    const Topics &topics_;
    CallLink &link_;
    Log &log_;
    std::mutex mutex_; // of the sites' calls and of closing_
    bool closing_ = false;
    std::deque<Site> sites_; // last: their threads use the others
};

} // namespace zelvo_mqtt

#endif
