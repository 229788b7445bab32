// An input is a list of messages from a broker, one a line: letters, a tab, a topic, a tab, a
// payload. A letter makes the message retained, or gives it a property (kProperties). They go to
// the bridge's message handlers, which have a bus to publish to and a node to call, and no
// connection. A line "!" is the end of what is retained.
#include "fuzz_support.h"

#include "bridge.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace {

constexpr int kInputsOfABus = 512;
constexpr int kMessagesOfAnInput = 64;
constexpr const char *kConfig =
    R"({"url":"mqtt://127.0.0.1:1","site":"s","prefix":"p","in":["t","a/b","+"],"call":["u"],)"
    R"("serve":["echo","bus"],"callTimeout":50,"log":"/dev/null"})";

struct World {
    RunningBus bus{R"({"level":5,"path":"/dev/null","callTimeout":20000})"};
    Node echo{bus.get(), "echo", nullptr, reply};
    Node caller{bus.get(), "caller"};
    zelvo_mqtt::Log log;
    zelvo_mqtt::Common common{bus.get(), zelvo_mqtt::readConfig(kConfig), log};
    zelvo_mqtt::CallLink link{common, [](const auto &, const auto &) {}, [](const auto &) {}};
    zelvo_mqtt::Inflow inflow{common, [] {}};
    zelvo_mqtt::Calls calls{common, link};
    zelvo_mqtt::Serving serving{common, link};

    World() { REQUIRE(log.open("/dev/null", zelvo_mqtt::Level::kWarning)); }
    ~World() {
        calls.close();
        serving.close();
    }
    static char *reply(void *, client_t *, char *, char *data, int) {
        return data ? strdup(data) : nullptr;
    }

    // Everything still has to work after what an input did.
    void check() {
        REQUIRE(answered(caller, "/echo/x", "ping") == "ping");
        REQUIRE(answered(caller, "/u/x/y") == zelvo_mqtt::kNotImplement); // no connection
        const std::string nodes = answered(caller, "/bus/nodes");
        REQUIRE(std::count(nodes.begin(), nodes.end(), ',') == 5);
    }
};
std::optional<World> world;

std::string_view cut(std::string_view &rest, char mark) {
    const std::string_view first = rest.substr(0, rest.find(mark));
    rest.remove_prefix(std::min(first.size() + 1, rest.size()));
    return first;
}

// What follows the letter, up to the next blank, is the value.
struct PropertyKind {
    char letter;
    void (*add)(mosquitto_property *&, const std::string &);
};
constexpr PropertyKind kProperties[] = {
    {'t',
     [](mosquitto_property *&list, const std::string &value) {
         mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, "zelvo-timeout",
                                            value.c_str());
     }},
    {'h',
     [](mosquitto_property *&list, const std::string &value) {
         mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, "zelvo-hops",
                                            value.c_str());
     }},
    {'a',
     [](mosquitto_property *&list, const std::string &value) {
         mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, value.c_str());
     }},
    {'c',
     [](mosquitto_property *&list, const std::string &value) {
         mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, value.data(),
                                       static_cast<std::uint16_t>(value.size()));
     }},
    {'e', [](mosquitto_property *&list, const std::string &value) {
         mosquitto_property_add_int32(&list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                      static_cast<std::uint32_t>(std::atoll(value.c_str())));
     }}};

void receive(std::string_view line) {
    if (line == "!") {
        world->inflow.sweep();
        world->inflow.expect(true);
        world->inflow.check();
        return;
    }
    std::string_view letters = cut(line, '\t');
    const std::string topic{cut(line, '\t')};
    std::string payload{line};
    mosquitto_message message{};
    std::string mutableTopic = topic;
    message.topic = mutableTopic.data();
    message.payload = payload.empty() ? nullptr : payload.data();
    message.payloadlen = static_cast<int>(payload.size());
    mosquitto_property *list = nullptr;
    while (!letters.empty()) {
        const std::string_view word = cut(letters, ' ');
        message.retain = message.retain || word == "r";
        for (const PropertyKind &kind : kProperties) {
            if (!word.empty() && word.front() == kind.letter) {
                kind.add(list, std::string{word.substr(1)});
            }
        }
    }
    const zelvo_mqtt::Properties owned{list};
    const zelvo_mqtt::Incoming incoming = zelvo_mqtt::readIncoming(message, owned.get());
    if (world->inflow.takes(topic)) {
        world->inflow.publish(incoming);
    } else {
        const zelvo_mqtt::Link::Lock lock = world->link.lock();
        zelvo_mqtt::receive(world->common, world->calls, world->serving, incoming);
    }
    REQUIRE(!zelvo_mqtt::unescaped(zelvo_mqtt::escaped(topic)) ||
            *zelvo_mqtt::unescaped(zelvo_mqtt::escaped(topic)) == topic);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    world.emplace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static int inputs = 0;
    if (++inputs % kInputsOfABus == 0) {
        world.reset();
        world.emplace();
    }
    const std::string bytes{reinterpret_cast<const char *>(data), size};
    std::string_view rest = bytes;
    for (int messages = 0; !rest.empty() && messages < kMessagesOfAnInput; ++messages) {
        receive(cut(rest, '\n'));
    }
    world->check();
    return 0;
}
