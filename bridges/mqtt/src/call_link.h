// The connection for calls, their answers and the presence of sites. Its session is always new; its
// end makes the site offline.
#ifndef ZELVO_MQTT_CALL_LINK_H
#define ZELVO_MQTT_CALL_LINK_H

#include "link.h"
#include "lookup.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelvo_mqtt {

// A message that is sent at once or not at all.
struct Direct {
    std::string topic;
    std::string_view payload;
    std::string answerTopic = {}; // of a request
    std::string correlation = {}; // none: there is no such property
    std::chrono::milliseconds timeout{0};
};

class CallLink final : public Link {
public:
    // Both functions are called with the mutex held and must not block. changed: there is a
    // connection to that address and the broker has the presence, or nothing: there is none, and
    // why.
    using Changed = std::function<void(const std::optional<Target> &, const std::string &why)>;
    using Received = std::function<void(const Incoming &)>;
    CallLink(Common &common, Changed changed, Received received);

    // With the mutex held; does not block. Returns why it is not sent, a literal; empty: it is.
    std::string_view send(const Direct &message);

private:
    void seek() override;
    bool lookUp();
    bool hasAnother() const override { return !targets_.empty(); }
    bool prospers() const override { return Link::prospers() && !hasRival_; }
    void greet() override;
    void received(const Incoming &incoming) override;
    void acknowledged(int mid, int reason) override;
    void lost(const std::string &why, bool byBroker) override;
    void everySecond() override;
    int farewellReason() const override;
    void sayOnline();

    const Changed changed_;
    const Received received_;

    std::vector<Lookup> lookups_;               // one for each broker
    std::size_t broker_ = 0;                    // the next to be looked up
    std::optional<Clock::time_point> lookedUp_; // since when it is
    std::deque<Target> targets_;                // to be tried
    Target target_;
    int presenceMid_ = 0;
    bool presenceStands_ = true; // nobody has taken it away
    bool hasBeenUp_ = false;
    bool hasRival_ = false;             // another bridge has had the name since
    std::map<int, std::size_t> unsent_; // sizes of what the socket has not taken, by mid
    std::size_t unsentBytes_ = 0;
};

} // namespace zelvo_mqtt

#endif
