#include "config.h"

#include "config_reader.h"
#include "topics.h"

#include <mosquitto.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <set>
#include <string_view>

namespace zelvo_mqtt {
namespace {

constexpr std::size_t kLongestSite = 32;
constexpr std::size_t kLongestNode = 71; // whose join notice the bus can send
constexpr std::size_t kLongestPrefix = 200;
constexpr std::uint64_t kLongestExpiry = std::uint64_t{366} * 24 * 3600;

bool isUtf8(const std::string &text) {
    return text.size() < kLongestTopic &&
           mosquitto_validate_utf8(text.c_str(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

// The bus takes every non-empty beginning of these for the host itself.
bool isReserved(std::string_view name) {
    return std::string_view{"bus"}.starts_with(name) ||
           std::string_view{"localKeys"}.starts_with(name);
}

// A site's name is also a node's, unless another is given for it.
void checkName(const Value &value, const std::string &name, std::size_t longest) {
    if (name.empty() || name.size() > longest || name.find('/') != name.npos) {
        value.refuse("\"" + name + "\" is no name: 1 to " + std::to_string(longest) +
                     " bytes, without \"/\"");
    }
    if (isReserved(name)) {
        value.refuse("\"" + name +
                     "\" is the bus's own name, as every beginning of \"bus\" and "
                     "\"localKeys\" is: take another, a longer one for example");
    }
}

void checkNode(const Value &value, const std::string &name) {
    checkName(value, name, kLongestNode);
}

void checkSite(const Value &value, const std::string &site) {
    checkName(value, site, kLongestSite);
    if (!isUtf8(site)) {
        value.refuse("\"" + site + "\" has control characters or is no UTF-8");
    }
}

Config::Broker brokerAt(const Value &value) {
    const std::string text = value.text();
    std::string_view rest = text;
    const auto take = [&rest](std::string_view start) {
        const bool there = rest.starts_with(start);
        rest.remove_prefix(there ? start.size() : 0);
        return there;
    };
    Config::Broker broker;
    broker.tls = take("mqtts://");
    bool valid = broker.tls || take("mqtt://");
    const bool bracket = take("[");
    broker.host = rest.substr(0, rest.find(bracket ? ']' : ':'));
    rest.remove_prefix(broker.host.size());
    valid = valid && !broker.host.empty() && (!bracket || take("]")) &&
            broker.host.find_first_of("/@?#[] ") == std::string::npos;
    broker.port = broker.tls ? 8883 : 1883;
    if (take(":")) {
        const char *const last = rest.data() + rest.size();
        const auto [end, error] = std::from_chars(rest.data(), last, broker.port);
        valid = valid && error == std::errc{} && broker.port > 0 && broker.port <= 65535;
        rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
    }
    if (!valid || !rest.empty()) {
        value.refuse("has to be mqtt://HOST[:PORT] or mqtts://HOST[:PORT]");
    }
    return broker;
}

void readUrl(Config &config, const Value &value) {
    if (!value.isArray()) {
        config.brokers = {brokerAt(value)};
        return;
    }
    value.elements([&](const Value &each) { config.brokers.push_back(brokerAt(each)); });
    if (config.brokers.empty()) {
        value.refuse("names no broker");
    }
}

std::string fileContent(const Value &value) {
    const std::string path = value.text();
    try {
        std::ifstream file{path, std::ios::binary};
        if (file) {
            return {std::istreambuf_iterator<char>{file}, {}};
        }
    } catch (const std::ios_base::failure &) { // a directory can be opened, not read
    }
    value.refuse("the file \"" + path + "\" can't be read");
}

template <std::string Config::*Member>
void readFileName(Config &config, const Value &value) {
    fileContent(value);
    config.*Member = value.text();
}

template <std::string Config::*Member>
void readText(Config &config, const Value &value) {
    config.*Member = value.text();
}

void readPassword(Config &config, const Value &value) {
    if (!value.isObject()) {
        config.password = value.text();
        return;
    }
    value.members({{"file", true, [&](const Value &file) {
                        config.password = fileContent(file);
                        if (config.password.ends_with('\n')) {
                            config.password.pop_back();
                        }
                        if (config.password.find('\0') != config.password.npos) {
                            file.refuse("the file holds a NUL");
                        }
                    }}});
}

void readSite(Config &config, const Value &value) {
    config.site = value.text();
    checkSite(value, config.site);
}

void readPrefix(Config &config, const Value &value) {
    config.prefix = value.text();
    const std::string &prefix = config.prefix;
    if (prefix.empty() || prefix.size() > kLongestPrefix || prefix.front() == '$' ||
        prefix.front() == '/' || prefix.back() == '/' ||
        prefix.find_first_of("+#") != prefix.npos || !isUtf8(prefix)) {
        value.refuse("\"" + prefix + "\" can't begin a topic");
    }
}

void readOut(Config &config, const Value &value) {
    value.elements([&](const Value &element) {
        Config::Out out;
        if (element.isObject()) {
            element.members({{"topic", true, [&](const Value &v) { out.topic = v.text(); }},
                             {"retain", false, [&](const Value &v) { out.retain = v.boolean(); }},
                             {"expiry", false, [&](const Value &v) {
                                  out.expiry = std::chrono::seconds{v.number(1, kLongestExpiry)};
                              }}});
            if (out.retain && out.expiry.count() > 0) {
                element.refuse("\"retain\" and \"expiry\" exclude each other: what is sticky on a "
                               "bus does not expire");
            }
        } else {
            out.topic = element.text();
        }
        config.out.push_back(out);
    });
}

void readIn(Config &config, const Value &value) {
    value.elements([&](const Value &element) {
        config.in.push_back(element.text());
        if (config.in.back() == "mqtt.state") {
            element.refuse("\"mqtt.state\" tells of this bridge");
        }
    });
}

void readCall(Config &config, const Value &value) {
    value.elements([&](const Value &element) {
        Config::Call call;
        if (element.isObject()) {
            element.members({{"site", true, [&](const Value &v) { call.site = v.text(); }},
                             {"node", true, [&](const Value &v) { call.node = v.text(); }}});
        } else {
            call.site = call.node = element.text();
        }
        checkSite(element, call.site);
        checkNode(element, call.node);
        config.call.push_back(call);
    });
}

void readServe(Config &config, const Value &value) {
    value.elements([&](const Value &element) {
        const std::string node = element.text();
        if (node != "bus" && node != "localKeys") {
            checkNode(element, node);
        }
        config.serve.push_back(node);
    });
}

void readBuffer(Config &config, const Value &value) {
    value.members({{"messages", false,
                    [&](const Value &v) { config.bufferMessages = v.number(1, 10'000'000); }},
                   {"bytes", false, [&](const Value &v) {
                        config.bufferBytes = v.number(1, std::uint64_t{1} << 40U);
                    }}});
}

// ---- what several members say together ----

void checkTexts(const char *member, std::vector<std::string> texts) {
    std::sort(texts.begin(), texts.end());
    const auto twice = std::adjacent_find(texts.begin(), texts.end());
    if (twice != texts.end()) {
        throw ConfigError{std::string{"\""} + member + "\": \"" + *twice + "\" stands there twice"};
    }
}

template <typename List, typename Text>
std::vector<std::string> textsOf(const List &list, Text text) {
    std::vector<std::string> texts;
    std::transform(list.begin(), list.end(), std::back_inserter(texts), text);
    return texts;
}

void checkTopics(const Config &config) {
    std::vector<std::string> out =
        textsOf(config.out, [](const Config::Out &entry) { return entry.topic; });
    checkTexts("out", out);
    checkTexts("in", config.in);
    const Topics topics{config.prefix, config.site};
    const std::set<std::string> outgoing{out.begin(), out.end()};
    for (const std::string &topic : config.in) {
        if (outgoing.contains(topic)) {
            throw ConfigError{"\"in\": \"" + topic +
                              "\" stands in \"out\" too, so it would come back; use one topic for "
                              "each way, or put a site's name in it"};
        }
    }
    out.insert(out.end(), config.in.begin(), config.in.end());
    for (const std::string &topic : out) {
        if (topics.publication(topic).size() > kLongestTopic) {
            throw ConfigError{"the topic \"" + topic.substr(0, 50) + "...\" is too long for MQTT"};
        }
    }
}

void checkTogether(const Config &config) {
    checkTopics(config);
    checkTexts("serve", config.serve);
    checkTexts("call", textsOf(config.call, [](const Config::Call &entry) { return entry.node; }));
    for (const Config::Call &call : config.call) {
        if (call.site == config.site) {
            throw ConfigError{"\"call\": \"" + call.site + "\" is the own site"};
        }
    }
    const bool tls = std::any_of(config.brokers.begin(), config.brokers.end(),
                                 [](const Config::Broker &broker) { return broker.tls; });
    if (!tls && !(config.ca + config.certificate + config.key).empty()) {
        throw ConfigError{"\"ca\", \"cert\" and \"key\" are for a \"url\" with mqtts://"};
    }
    if (config.certificate.empty() != config.key.empty() ||
        (config.ca.empty() && !config.key.empty())) {
        throw ConfigError{"\"cert\" and \"key\" need each other, and \"ca\""};
    }
    if (config.user.empty() && !config.password.empty()) {
        throw ConfigError{"\"password\" needs a \"user\""};
    }
}

} // namespace

Config readConfig(const char *json) {
    Config config;
    const auto to = [&config](void (*read)(Config &, const Value &)) {
        return [&config, read](const Value &value) { read(config, value); };
    };
    const auto number = [](auto &member, std::uint64_t least, std::uint64_t most) {
        return [&member, least, most](const Value &value) {
            member = std::decay_t<decltype(member)>(value.number(least, most));
        };
    };
    readJson(json, {{"url", true, to(readUrl)},
                    {"site", true, to(readSite)},
                    {"prefix", false, to(readPrefix)},
                    {"ca", false, to(readFileName<&Config::ca>)},
                    {"cert", false, to(readFileName<&Config::certificate>)},
                    {"key", false, to(readFileName<&Config::key>)},
                    {"user", false, to(readText<&Config::user>)},
                    {"password", false, to(readPassword)},
                    {"out", false, to(readOut)},
                    {"in", false, to(readIn)},
                    {"call", false, to(readCall)},
                    {"serve", false, to(readServe)},
                    {"qos", false, number(config.qos, 0, 1)},
                    {"callTimeout", false, number(config.callTimeout, 1, 3'600'000)},
                    {"buffer", false, to(readBuffer)},
                    {"sessionExpiry", false, number(config.sessionExpiry, 0, UINT32_MAX)},
                    {"maxPacket", false, number(config.maxPacket, 1024, 268'435'456)},
                    {"log", false, to(readText<&Config::log>)},
                    {"logLevel", false, number(config.logLevel, 1, 5)},
                    {"logSize", false, number(config.logSize, 0, 1'000'000)}});
    checkTogether(config);
    return config;
}

} // namespace zelvo_mqtt
