// The topics of the broker: which there are, and how a text of the bus becomes a part of one.
//   PREFIX/topic/TOPIC         publications
//   PREFIX/call/SITE/NODE/...  requests to a site
//   PREFIX/answer/SITE         its answers
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
// The text that was escaped. Nothing: it has a "%" without two hexadecimal digits, or a %00.
std::optional<std::string> unescaped(std::string_view topic);

class Topics {
public:
    Topics(const std::string &prefix, std::string_view site);

    std::string publication(std::string_view topic) const {
        return root_ + "topic/" + escaped(topic);
    }
    std::string presence(std::string_view site) const {
        return root_ + "site/" + escapedLevel(site);
    }
    // path: what stands behind the site in an address, "/pump/state".
    std::string call(std::string_view site, std::string_view path) const;
    // Of the own site: where requests come, with a "/" behind it, and where answers come.
    const std::string &requests() const { return requests_; }
    const std::string &answers() const { return answers_; }
    // Whether answers may be sent to a topic that somebody else has chosen.
    bool isForAnswers(std::string_view topic) const;
    bool isPresence(std::string_view topic) const { return topic.starts_with(presences_); }
    std::optional<std::string> siteOf(std::string_view presence) const {
        return unescaped(presence.substr(presences_.size()));
    }

private:
    std::string root_, presences_, allAnswers_, requests_, answers_;
};

} // namespace zelvo_mqtt

#endif
