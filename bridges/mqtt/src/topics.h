// The topics of the broker: which there are, and how a text of the bus becomes a part of one.
//   PREFIX/topic/TOPIC         publications
//   PREFIX/call/SITE/NODE/...  requests to a site
//   PREFIX/answer/SITE/CALLED  the answers of the site CALLED to the calls of SITE
//   PREFIX/site/SITE           retained: "online" or "offline"
#ifndef ZELVO_MQTT_TOPICS_H
#define ZELVO_MQTT_TOPICS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

inline constexpr std::size_t kLongestTopic = 65535; // in MQTT

// Any text without a NUL as a part of a topic that is valid in MQTT. Printable characters stay,
// "/" included; "%", "+", "#", control characters and what is no UTF-8 become %XX.
std::string escaped(std::string_view text);
// The same for a part that is to be one level: "/" becomes %2F.
std::string escapedLevel(std::string_view text);
// The text of which escaped(), or escapedLevel(), makes exactly this. Nothing: there is none, so
// that no text has a second form that a rule about topics would not know.
std::optional<std::string> unescaped(std::string_view topic);
std::optional<std::string> unescapedLevel(std::string_view topic);

class Topics {
public:
    Topics(const std::string &prefix, std::string_view site);

    std::string publication(std::string_view topic) const { return publications_ + escaped(topic); }
    std::string presence(std::string_view site) const { return presences_ + escapedLevel(site); }
    // path: what stands behind the site in an address, "/pump/state".
    std::string call(std::string_view site, std::string_view path) const;
    // Of the own site: where requests come, with a "/" behind it.
    const std::string &requests() const { return requests_; }
    const std::string &ownPresence() const { return ownPresence_; }
    // Where one site's answers to another's calls go; of the own calls all, as a subscription.
    std::string answers(std::string_view caller, std::string_view called) const {
        return allAnswers_ + escapedLevel(caller) + '/' + escapedLevel(called);
    }
    std::string ownAnswers() const { return allAnswers_ + level_ + "/+"; }
    // Whether answers of this site may go to a topic that somebody else has chosen.
    bool isForOwnAnswers(std::string_view topic) const;
    bool isAnswer(std::string_view topic) const { return topic.starts_with(allAnswers_); }
    // The site whose presence a topic is. Nothing: no presence.
    std::optional<std::string> siteOf(std::string_view topic) const;

private:
    std::string root_, level_, publications_, presences_, allAnswers_, requests_, ownPresence_;
};

} // namespace zelvo_mqtt

#endif
