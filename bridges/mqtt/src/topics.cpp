#include "topics.h"

#include <mosquitto.h>

#include <charconv>

namespace zelvo_mqtt {
namespace {

// The length of the character of UTF-8 that text begins with; 0: none that MQTT allows.
std::size_t characterLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    const std::string character{text.substr(0, length)};
    return mosquitto_validate_utf8(character.c_str(), static_cast<int>(length)) == 0 ? length : 0;
}

std::string escapedExcept(std::string_view text, std::string_view special) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string topic;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool plain = byte >= 0x20 && byte < 0x7F && special.find(text[i]) == text.npos;
        const std::size_t length = plain ? 1 : byte < 0x80 ? 0 : characterLength(text.substr(i));
        if (length > 0) {
            topic.append(text, i, length);
            i += length;
        } else {
            topic += {'%', digits[byte >> 4U], digits[byte & 0xFU]};
            ++i;
        }
    }
    return topic;
}

// A text that could have become this one; whether it does is another question.
std::optional<std::string> decoded(std::string_view topic) {
    std::string text;
    for (std::size_t i = 0; i < topic.size(); ++i) {
        if (topic[i] != '%') {
            text += topic[i];
            continue;
        }
        const std::string_view digits = topic.substr(i + 1, 2);
        unsigned char byte = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (byte == 0) {
            return std::nullopt;
        }
        text += static_cast<char>(byte);
        i += 2;
    }
    return text;
}

std::optional<std::string> decodedBy(std::string (*escape)(std::string_view),
                                     std::string_view topic) {
    std::optional<std::string> text = decoded(topic);
    return text && escape(*text) == topic ? text : std::nullopt;
}

} // namespace

std::string escaped(std::string_view text) {
    return escapedExcept(text, "%+#");
}

std::string escapedLevel(std::string_view text) {
    return escapedExcept(text, "%+#/");
}

std::optional<std::string> unescaped(std::string_view topic) {
    return decodedBy(escaped, topic);
}

std::optional<std::string> unescapedLevel(std::string_view topic) {
    return decodedBy(escapedLevel, topic);
}

Topics::Topics(const std::string &prefix, std::string_view site)
    : root_{prefix + '/'},
      level_{escapedLevel(site)},
      publications_{root_ + "topic/"},
      presences_{root_ + "site/"},
      allAnswers_{root_ + "answer/"},
      requests_{root_ + "call/" + level_ + '/'},
      ownPresence_{presences_ + level_} {}

std::string Topics::call(std::string_view site, std::string_view path) const {
    return root_ + "call/" + escapedLevel(site) + escaped(path);
}

bool Topics::isForOwnAnswers(std::string_view topic) const {
    if (!isAnswer(topic)) {
        return false;
    }
    topic.remove_prefix(allAnswers_.size());
    if (!topic.ends_with('/' + level_)) {
        return false;
    }
    topic.remove_suffix(1 + level_.size());
    return !topic.empty() && unescapedLevel(topic).has_value();
}

std::optional<std::string> Topics::siteOf(std::string_view topic) const {
    return topic.starts_with(presences_) ? unescapedLevel(topic.substr(presences_.size()))
                                         : std::nullopt;
}

} // namespace zelvo_mqtt
