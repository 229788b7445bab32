#include "config.h"

#include "json.h"
#include "topics.h"

#include <mosquitto.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string_view>

namespace zelvo_mqtt {
namespace {

constexpr std::size_t kLongestSite = 32;
constexpr std::size_t kLongestNode = 71; // whose join notice the bus can send
constexpr std::size_t kLongestPrefix = 200;
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 40U; // of the buffer
constexpr std::uint64_t kLongestExpiry = std::uint64_t{366} * 24 * 3600;

// ---- members of an object ----

template <typename Type, typename Read>
Member required(const char *name, Type &member, Read read) {
    return {name, true, [&member, read](const Value &value) { member = read(value); }};
}

template <typename Type, typename Read>
Member optional(const char *name, Type &member, Read read) {
    return {name, false, [&member, read](const Value &value) { member = read(value); }};
}

template <typename Type>
Member number(const char *name, Type &member, std::uint64_t least, std::uint64_t most) {
    return optional(name, member,
                    [=](const Value &value) { return Type(value.number(least, most)); });
}

// what: of an entry, that which is to be there once.
template <typename Entry, typename What>
Member list(const char *name, std::vector<Entry> &entries, Entry (*read)(const Value &),
            What what) {
    return {name, false, [=, &entries](const Value &value) {
                std::set<std::string> seen;
                value.elements([&](const Value &element) {
                    entries.push_back(read(element));
                    const std::string &text = std::invoke(what, entries.back());
                    if (!seen.insert(text).second) {
                        element.refuse("\"" + text + "\" stands there twice");
                    }
                });
            }};
}

// ---- values ----

bool isUtf8(const std::string &text) {
    return text.size() < kLongestTopic &&
           mosquitto_validate_utf8(text.c_str(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

// The bus takes every non-empty beginning of these for the host itself.
bool isReserved(std::string_view name) {
    return std::string_view{"bus"}.starts_with(name) ||
           std::string_view{"localKeys"}.starts_with(name);
}

std::string name(const Value &value, std::size_t longest) {
    std::string name = value.text();
    if (name.empty() || name.size() > longest || name.find('/') != name.npos) {
        value.refuse("\"" + name + "\" is no name: 1 to " + std::to_string(longest) +
                     " bytes, without \"/\"");
    }
    if (isReserved(name)) {
        value.refuse("\"" + name +
                     "\" is the bus's own name, as every beginning of \"bus\" and "
                     "\"localKeys\" is: take another, a longer one for example");
    }
    return name;
}

std::string node(const Value &value) {
    return name(value, kLongestNode);
}

// It is also a node's name, unless another is given for that.
std::string site(const Value &value) {
    std::string site = name(value, kLongestSite);
    if (!isUtf8(site)) {
        value.refuse("\"" + site + "\" has control characters or is no UTF-8");
    }
    return site;
}

std::string topic(const Value &value) {
    std::string topic = value.text();
    if (escaped(topic).size() > kLongestTopic - kLongestPrefix - std::size("/topic/")) {
        value.refuse("\"" + topic.substr(0, 50) + "...\" is too long for MQTT");
    }
    return topic;
}

Config::Broker broker(const Value &value) {
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

std::vector<Config::Broker> brokers(const Value &value) {
    std::vector<Config::Broker> brokers;
    if (!value.isArray()) {
        return {broker(value)};
    }
    value.elements([&](const Value &each) { brokers.push_back(broker(each)); });
    if (brokers.empty()) {
        value.refuse("names no broker");
    }
    return brokers;
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

std::string readableFile(const Value &value) {
    fileContent(value);
    return value.text();
}

std::string passwordIn(const Value &file) {
    std::string password = fileContent(file);
    if (password.ends_with('\n')) {
        password.pop_back();
    }
    if (password.find('\0') != password.npos) {
        file.refuse("the file holds a NUL");
    }
    return password;
}

std::string password(const Value &value) {
    if (!value.isObject()) {
        return value.text();
    }
    std::string password;
    value.members({required("file", password, passwordIn)});
    return password;
}

std::string prefix(const Value &value) {
    std::string prefix = value.text();
    if (prefix.empty() || prefix.size() > kLongestPrefix || prefix.front() == '$' ||
        prefix.front() == '/' || prefix.back() == '/' ||
        prefix.find_first_of("+#") != prefix.npos || !isUtf8(prefix)) {
        value.refuse("\"" + prefix + "\" can't begin a topic");
    }
    return prefix;
}

Config::Out out(const Value &value) {
    Config::Out out;
    if (!value.isObject()) {
        out.topic = topic(value);
        return out;
    }
    value.members({required("topic", out.topic, topic),
                   optional("retain", out.retain, std::mem_fn(&Value::boolean)),
                   number("expiry", out.expiry, 1, kLongestExpiry)});
    if (out.retain && out.expiry.count() > 0) {
        value.refuse("\"retain\" and \"expiry\" exclude each other: what is sticky on a bus does "
                     "not expire");
    }
    return out;
}

std::string in(const Value &value) {
    std::string in = topic(value);
    if (in == "mqtt.state") {
        value.refuse("\"mqtt.state\" tells of this bridge");
    }
    return in;
}

Config::Call call(const Value &value) {
    Config::Call call;
    if (value.isObject()) {
        value.members({required("site", call.site, site), required("node", call.node, node)});
    } else {
        call.site = call.node = site(value);
    }
    return call;
}

std::string served(const Value &value) {
    const std::string text = value.text();
    return text == "bus" || text == "localKeys" ? text : node(value);
}

// ---- what several members say together ----

void require(bool met, const std::string &otherwise) {
    if (!met) {
        throw OpenError{otherwise};
    }
}

void checkTogether(const Config &config) {
    constexpr std::size_t kMostOut = 2047; // and the node's own name: as many as a node can have
    require(config.out.size() <= kMostOut,
            "\"out\": has more than " + std::to_string(kMostOut) + " topics");
    for (const Config::Out &out : config.out) {
        require(std::find(config.in.begin(), config.in.end(), out.topic) == config.in.end(),
                "\"in\": \"" + out.topic +
                    "\" stands in \"out\" too, so it would come back; use one topic for each way, "
                    "or put a site's name in it");
    }
    const std::string own = "mqtt." + config.site;
    const auto isOwn = [&own](const std::string &topic) { return topic.starts_with(own + '.'); };
    require(std::none_of(config.in.begin(), config.in.end(), isOwn),
            "\"in\": topics that begin with \"" + own + ".\" are this bridge's");
    for (const Config::Call &call : config.call) {
        require(call.site != config.site, "\"call\": \"" + call.site + "\" is the own site");
    }
    const bool tls = std::any_of(config.brokers.begin(), config.brokers.end(),
                                 [](const Config::Broker &broker) { return broker.tls; });
    require(tls || (config.ca + config.certificate + config.key).empty(),
            "\"ca\", \"cert\" and \"key\" are for a \"url\" with mqtts://");
    require(config.certificate.empty() == config.key.empty() &&
                (config.key.empty() || !config.ca.empty()),
            "\"cert\" and \"key\" need each other, and \"ca\"");
    require(config.password.empty() || !config.user.empty(), "\"password\" needs a \"user\"");
}

} // namespace

Config readConfig(const char *json) {
    Config config;
    const auto text = std::mem_fn(&Value::text);
    const auto itself = std::identity{};
    readJson(json, {required("url", config.brokers, brokers),
                    required("site", config.site, site),
                    optional("prefix", config.prefix, prefix),
                    optional("ca", config.ca, readableFile),
                    optional("cert", config.certificate, readableFile),
                    optional("key", config.key, readableFile),
                    optional("user", config.user, text),
                    optional("password", config.password, password),
                    list("out", config.out, out, &Config::Out::topic),
                    list("in", config.in, in, itself),
                    list("call", config.call, call, &Config::Call::node),
                    list("serve", config.serve, served, itself),
                    number("qos", config.qos, 0, 1),
                    number("callTimeout", config.callTimeout, 1, 3'600'000),
                    {"buffer", false,
                     [&](const Value &value) {
                         value.members({number("messages", config.bufferMessages, 1, 10'000'000),
                                        number("bytes", config.bufferBytes, 1, kMostBytes)});
                     }},
                    number("sessionExpiry", config.sessionExpiry, 0, UINT32_MAX),
                    number("maxPacket", config.maxPacket, 1024, 268'435'456),
                    optional("log", config.log, text),
                    number("logLevel", config.logLevel, 1, 5),
                    number("logSize", config.logSize, 0, 1'000'000)});
    checkTogether(config);
    return config;
}

} // namespace zelvo_mqtt
