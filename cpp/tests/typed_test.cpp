#include "support.h"

#include <array>
#include <limits>

using namespace zelvo;

namespace {

struct Reading {
    std::uint32_t sensor;
    double celsius;
    bool operator==(const Reading &other) const {
        return sensor == other.sensor && celsius == other.celsius;
    }
};
enum class Colour : std::uint8_t { red = 1, green = 200 };

constexpr Topic<Reading> kTemperature{"room.temperature"};
constexpr Topic<int> kCount{"count"};
constexpr Service<Reading, std::string> kDescribe{"/lamp/describe"};
constexpr Service<std::string, std::vector<Reading>> kReadings{"/lamp/readings"};

enum class Switch { off, on };

template <class Value>
void comesBack(const Value &value, std::size_t size) {
    std::string space;
    const std::string bytes{Codec<Value>::encode(value, space)};
    EXPECT_EQ(bytes.size(), size) << bytes;
    EXPECT_TRUE(detail::decoded<Value>(bytes) == value) << bytes;
}
template <class Value>
bool decodes(std::string_view bytes) {
    return detail::decoded<Value>(bytes).has_value();
}

} // namespace

template <>
struct zelvo::Codec<Switch> { // one of the user's own
    static std::string_view encode(Switch value, std::string & /*space*/) {
        return value == Switch::on ? "on" : "off";
    }
    static std::optional<Switch> decode(std::string_view bytes) {
        return bytes == "on" ? Switch::on : throw std::invalid_argument("no switch");
    }
};

TEST(Codecs, values_come_back_and_what_is_none_does_not) {
    comesBack(Reading{3, 21.5}, sizeof(Reading));
    comesBack(std::string{"a\0b", 3}, 3);
    comesBack(-12, 3);
    comesBack(std::numeric_limits<std::uint64_t>::max(), 20);
    comesBack(0.1, 3);
    comesBack(Colour::green, 3);
    comesBack(true, 4);
    comesBack(Switch::on, 2);
    comesBack(std::vector<int>{1, 2, 3}, 3 * sizeof(int));
    comesBack(std::vector<bool>{true, false}, 4 + 4 + 4 + 5);
    comesBack(std::vector<Switch>{Switch::on}, 4 + 2);
    comesBack(std::array<int, 0>{}, 0);
    comesBack(std::vector<std::string>{"a", "", "bc"}, 3 * 4 + 3);
    comesBack(std::array<Reading, 2>{{{1, 2}, {3, 4}}}, 2 * sizeof(Reading));
    comesBack(std::array<std::string, 2>{"a", "b"}, 10);
    comesBack(std::vector<std::vector<int>>{{1}, {}}, 2 * 4 + sizeof(int));
    EXPECT_FALSE(decodes<Reading>("short"));
    EXPECT_FALSE(decodes<int>("12x"));
    EXPECT_FALSE(decodes<bool>("1"));
    EXPECT_FALSE(decodes<Switch>("none")); // its codec throws
    EXPECT_FALSE(decodes<std::vector<int>>("12345"));
    EXPECT_FALSE(decodes<std::vector<std::string>>(std::string_view{"\5\0\0\0abcd", 8}));
    const std::string three(12, '\0'); // three empty ones
    EXPECT_FALSE((decodes<std::array<std::string, 2>>(three)));
    EXPECT_FALSE((decodes<std::array<std::string, 4>>(three)));
}

TEST(Codecs, answers_hold_no_nul_and_look_like_no_refusal) {
    const std::string low{"\0\1\2\3\0a\xFF", 7};
    for (const std::string &bytes : {low, std::string{R"({"data":""})"}, std::string{}}) {
        const std::string text = detail::withoutNul(bytes, detail::isRefusal(bytes));
        EXPECT_EQ(text.find('\0'), text.npos);
        EXPECT_FALSE(detail::isRefusal(text));
        EXPECT_EQ(detail::withNul(text), bytes);
    }
    EXPECT_EQ(detail::withoutNul("plain", false), "plain");
    for (const char *const broken : {"a\1", "\1\4", "\1x"}) {
        EXPECT_EQ(detail::withNul(broken), std::nullopt);
    }
}

TEST(Typed, values_reach_handlers_of_their_type_and_others_are_told) {
    std::string told;
    Config config = quiet();
    config.on_error = [&](std::string_view node, const std::exception_ptr &error) {
        try {
            std::rethrow_exception(error);
        } catch (const Unreadable &what) {
            told += std::string{node} + " " + what.topic() + " " + std::to_string(what.size()) +
                    "/" + std::to_string(what.expected()) + ";";
        }
    };
    const Bus bus{config};
    Node lamp{bus, "lamp"};
    Node panel{bus, "panel"};
    std::vector<Reading> heard;
    lamp.publish_sticky(kCount, 7);
    panel.subscribe(kTemperature, [&](const Reading &reading) { heard.push_back(reading); });
    panel.subscribe(kCount, [&, only = std::make_unique<int>(1)](int count) {
        heard.push_back({static_cast<std::uint32_t>(count), 0});
    });
    const int before = allocations();
    lamp.publish(kTemperature, {3, 21.5});
    EXPECT_EQ(allocations(), before);
    lamp.publish(kTemperature.name(), "short");
    lamp.publish("count", "12");
    settle(lamp, panel);
    EXPECT_EQ(heard, (std::vector<Reading>{{7, 0}, {3, 21.5}, {12, 0}}));
    const std::string size = std::to_string(sizeof(Reading));
    EXPECT_EQ(told, "panel room.temperature 5/" + size + ";");
    EXPECT_EQ(panel.unreadable(), 1U);
}

TEST(Typed, a_service_answers_by_value_and_says_why_there_is_none) {
    Config config = quiet();
    config.on_error = [](std::string_view, const std::exception_ptr &) {};
    const Bus bus{config};
    Node lamp{bus, "lamp"};
    Node panel{bus, "panel"};
    EXPECT_EQ(panel.call(kReadings, "x").cause(), Cause::no_handler);
    EXPECT_THROW(panel.call(kReadings, "x").value(), Error);
    lamp.on_call(kDescribe, [](const Reading &reading) -> std::optional<std::string> {
        return reading.sensor == 0 ? std::nullopt : std::optional{std::string(3, '\0')};
    });
    lamp.on_call(kReadings, [](const std::string &text) {
        return std::vector<Reading>(text.size(), Reading{1, 0});
    });
    EXPECT_EQ(panel.call(kDescribe, {1, 0}).value(), std::string(3, '\0'));
    EXPECT_EQ(panel.call(kDescribe, {0, 0}).outcome(), Outcome::not_implemented);
    EXPECT_EQ(panel.call(kDescribe.url(), "?").outcome, Outcome::not_implemented);
    EXPECT_EQ(lamp.unreadable(), 1U);
    std::future<Result<std::vector<Reading>>> later = panel.call_async(kReadings, "ab");
    EXPECT_EQ(later.get()->size(), 2U);
    EXPECT_EQ(panel.call_for(kLimit, kReadings, "abc")->size(), 3U);
    Gate done;
    panel.call_async(kReadings, "", [&](const Result<std::vector<Reading>> &readings) {
        EXPECT_TRUE(readings && readings->empty());
        done.open();
    });
    EXPECT_TRUE(done.wait());
    lamp.on_call("/nul", [] { return std::string(2, '\0'); });
    EXPECT_EQ(panel.call("/lamp/nul").cause, Cause::no_handler);
    lamp.on_call("/readings", [] { return "\1\1"; }); // a NUL is no number of readings
    EXPECT_EQ(panel.call(kReadings, "x").cause(), Cause::unreadable);
    Node{bus, "n"}.on_call(Service<int, int>{"/n/"}, [](int) { return 1; });
    EXPECT_THROW(lamp.on_call(Service<int, int>{"/lamp"}, [](int) { return 1; }),
                 std::invalid_argument);
    EXPECT_THROW(lamp.on_call(kDescribe, std::function<std::string(Reading)>{}),
                 std::invalid_argument);
    EXPECT_THROW(lamp.subscribe(kCount, std::function<void(int)>{}), std::invalid_argument);
}
