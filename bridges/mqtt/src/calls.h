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
#include <map>
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
    struct Site {
        Site(Calls &its, Zelvo_t *bus, const Config::Call &call);
        Calls &calls;
        const std::string site;
        const std::string name;
        Node node;
    };
    // A call that waits; one of each node at most.
    struct Waiting {
        std::condition_variable ended;
        std::string site, answerTopic;
        bool done = false;
        std::string answer;
        std::string_view failure; // why there is none, a literal; empty: there is
    };

    static char *onCall(void *self, client_t *, char *url, char *data, int len);
    std::string ask(const Site &site, std::string_view path, std::string_view data);
    std::string_view request(Waiting &waiting, const std::string &topic, std::string_view data);
    std::string_view send(Direct message) noexcept; // why it is not sent; empty: it is
    std::string_view await(Waiting &waiting, std::unique_lock<std::mutex> &lock) const;
    static void end(Waiting &waiting, std::string_view failure);

    const Config &config_;
    const Topics &topics_;
    CallLink &link_;
    Log &log_;
    std::mutex mutex_;                                // of everything below but the nodes
    std::map<std::string, Waiting *> waiting_;        // by correlation data
    std::map<std::string, bool, std::less<>> online_; // by site; others are unknown
    bool closing_ = false;
    std::deque<Site> sites_; // last: their threads use the others
};

} // namespace zelvo_mqtt

#endif
