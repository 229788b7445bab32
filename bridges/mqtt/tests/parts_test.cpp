// The parts that need no broker.
#include "config.h"
#include "log.h"
#include "outbox.h"
#include "test_support.h"
#include "topics.h"
#include "waiter.h"

#include <gtest/gtest.h>
#include <mosquitto.h>

#include <ctime>
#include <string>
#include <vector>

using namespace zelvo_mqtt;
using namespace std::string_literals;

namespace {

TEST(Topics, any_text_becomes_a_valid_topic_and_comes_back) {
    const char *const four = "\xf0\x90\x80\x80"; // bytes
    std::vector<std::pair<std::string, std::string>> cases = {
        {"lamp.state", "lamp.state"},  {"+/#", "%2B/%23"},           {"$SYS/x y", "$SYS/x y"},
        {"\x01\n\x7f", "%01%0A%7F"},   {"t\xc3\xbcr", "t\xc3\xbcr"}, {"\xff\xc3(", "%FF%C3("},
        {"\xed\xa0\x80", "%ED%A0%80"}, {"\xc2\x80", "%C2%80"},       {four, four}};
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text{static_cast<char>(byte), 'x', static_cast<char>(byte)};
        cases.emplace_back(text, escaped(text));
    }
    for (const auto &[text, expected] : cases) {
        const std::string topic = "p/topic/" + escaped(text);
        EXPECT_EQ(escaped(text), expected);
        EXPECT_EQ(unescaped(escaped(text)), text);
        EXPECT_EQ(unescapedLevel(escapedLevel(text)), text);
        EXPECT_EQ(escapedLevel(text).find('/'), std::string::npos);
        EXPECT_EQ(mosquitto_pub_topic_check(topic.c_str()), MOSQ_ERR_SUCCESS) << topic;
        EXPECT_EQ(mosquitto_validate_utf8(topic.c_str(), static_cast<int>(topic.size())), 0);
    }
    for (const char *const other :
         {"%", "%4", "%00", "%G0", "a%-1", "st%6Fp", "%2b", "a+", "%2F"}) {
        EXPECT_EQ(unescaped(other), std::nullopt) << other;
    }
    EXPECT_EQ(unescapedLevel("a/b"), std::nullopt);
    const Topics own{"p", "s/"};
    for (const char *const foreign :
         {"p/answer/c/s", "p/answer/s%2F", "p/answer//s%2F", "p/topic/c/s%2F", "p/answer/c/d/s%2F",
          "p/answer/%63/s%2F", "p/answer/c/s%2f"}) {
        EXPECT_FALSE(own.isForOwnAnswers(foreign)) << foreign;
    }
    EXPECT_TRUE(own.isForOwnAnswers(own.answers("c/", "s/")));
}

std::string configWith(const std::string &members) {
    return R"({"url":"mqtt://h","site":"s")"s + (members.empty() ? "" : ",") + members + "}";
}

TEST(Config, is_refused_as_a_whole_by_the_name_of_what_is_wrong) {
    const TempDir directory;
    const std::string here = '"' + directory.path() + '"';
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "the configuration: is no JSON"},
        {R"({"url":"mqtt://h"})", "\"site\": is missing"},
        {R"({"site":"s","url":"mqtt://h:0"})", "\"url\": has to be mqtt://HOST"},
        {R"({"site":"s","url":"mqtt://[::1]x"})", "\"url\": has to be mqtt://HOST"},
        {R"({"site":"b","url":"mqtt://h"})", "\"site\": \"b\" is the bus's own name"},
        {R"({"site":"s\n","url":"mqtt://h"})", "has control characters"},
        {R"({"site":"s","url":[]})", "\"url\": names no broker"},
        {configWith(R"("qosx":1)"), "\"qosx\": there is no such member"},
        {configWith(R"("qos":1,"qos":1)"), "\"qos\": stands there twice"},
        {configWith(R"("out":"x")"), "\"out\": has to be an array"},
        {configWith(R"("user":1)"), "\"user\": has to be a text"},
        {configWith(R"("out":[{"topic":"x","retain":1}])"), "\"out[0].retain\": has to be true"},
        {configWith(R"("out":[{"topic":"x","expiry":1,"retain":true}])"), "\"retain\" and"},
        {configWith(R"("out":["x","x"])"), "\"out[1]\": \"x\" stands there twice"},
        {configWith(R"("out":["x"],"in":["y","x"])"), "\"in\": \"x\" stands in \"out\" too"},
        {configWith(R"("in":["mqtt.s.in"])"), "\"in\": topics that begin with \"mqtt.s.\""},
        {configWith("\"in\":[\"" + std::string(30'000, '+') + "\"]"), "is too long for MQTT"},
        {configWith(R"("in":["a\u0000b"])"), "has a NUL"},
        {configWith(R"("call":["s"])"), "\"call\": \"s\" is the own site"},
        {configWith(R"("call":[{"site":"t","node":"a/b"}])"), "\"call[0].node\": \"a/b\""},
        {configWith(R"("prefix":"a/#")"), "\"prefix\": \"a/#\""},
        {configWith(R"("prefix":"/a")"), "\"prefix\": \"/a\""},
        {configWith(R"("ca":"/dev/null")"), "mqtts://"},
        {configWith("\"password\":{\"file\":" + here + "},\"user\":\"u\""), "\"password.file\""},
        {configWith(R"("password":"p")"), "\"password\" needs a \"user\""},
    };
    for (const auto &[json, why] : cases) {
        try {
            readConfig(json.c_str());
            ADD_FAILURE() << "is taken: " << json;
        } catch (const OpenError &refused) {
            EXPECT_TRUE(says(refused.what(), why)) << json << "\n" << refused.what();
        }
    }
    EXPECT_THROW(readConfig(nullptr), OpenError);
}

TEST(Config, has_limits) {
    // What stands before a number, or text, and behind it; the least and the most, or lengths.
    using Case = std::tuple<std::string, std::string, std::uint64_t, std::uint64_t>;
    for (const auto &[before, after, least, most] :
         std::vector<Case>{{"\"qos\":", "", 0, 1},
                           {"\"callTimeout\":", "", 1, 3'600'000},
                           {"\"maxPacket\":", "", 1024, 268'435'456},
                           {"\"sessionExpiry\":", "", 0, 4'294'967'295},
                           {"\"logLevel\":", "", 1, 5},
                           {R"("buffer":{"bytes":)", "}", 1, 1'099'511'627'776},
                           {R"("out":[{"topic":"x","expiry":)", "}]", 1, 31'622'400},
                           {"\"prefix\":\"", "\"", 1, 200},
                           {"\"call\":[\"", "\"]", 1, 32},
                           {"\"serve\":[\"", "\"]", 1, 71}}) {
        const auto read = [&front = before, &back = after](std::uint64_t value) {
            const bool text = front.back() == '"';
            const auto shown = text ? std::string(value, 'x') : std::to_string(value);
            readConfig(configWith(front + shown + back).c_str());
        };
        EXPECT_NO_THROW(read(least); read(most)) << before;
        EXPECT_THROW(read(most + 1), OpenError) << before;
        EXPECT_THROW(read(least - 1), OpenError) << before; // 2^64 - 1 below 0
    }
}

TEST(Config, is_taken) {
    const Config config = readConfig(
        R"({"url":["mqtt://other","mqtts://[::1]:99","mqtts://h"],"site":"s\\u0000","serve":["bus"],)"
        R"("call":["t",{"site":"t","node":"t.2"}],"out":[{"topic":"o","retain":true}]})");
    const auto &[host, port, tls] = config.brokers[1];
    EXPECT_EQ(std::tie(host, port, tls, config.site, config.prefix),
              std::make_tuple("::1"s, 99, true, "s\\u0000"s, "zelvo"s));
    EXPECT_TRUE(config.brokers[0].port == 1883 && config.brokers[2].port == 8883);
    EXPECT_EQ(config.call[0].node + config.call[1].node + config.call[1].site, "tt.2t");
    EXPECT_TRUE(config.out[0].retain && config.serve[0] == "bus");
}

TEST(Log, a_line_has_the_form_of_the_bus_s_log_and_a_flood_is_counted) {
    const TempDir directory;
    {
        Log log;
        log.setName("site");
        ASSERT_TRUE(log.open(directory.file("log"), Level::kWarning));
        log.info("less");
        log.error({"a\n\x1f\x7f \xc3\xbc", std::string(1000, '.')});
        for (int i = 0; i < 150; ++i) {
            log.warning("flood");
        }
    }
    const std::string text = readFile(directory.file("log"));
    std::tm time{};
    const char *const rest = strptime(&text[text.find(']') + 1], "%Y-%m-%d %H:%M:%S", &time);
    ASSERT_TRUE(rest) << text;
    EXPECT_LE(std::abs(timegm(&time) - 8 * 3600 - std::time(nullptr)), 60); // in UTC+8
    int milliseconds = 0, number = 0, head = 0;
    std::sscanf(rest, ".%3d [E] bridges/mqtt/tests/parts_test.cpp#%d#  zelvo-mqtt site %n",
                &milliseconds, &number, &head);
    const std::string line{rest + head, std::strchr(rest, '\n')};
    EXPECT_EQ(line, "a??? \xc3\xbc" + std::string(593, '.'));
    EXPECT_TRUE(says(text, " 51 further lines were left out") && count(text, "flood") == 99U);
}

TEST(Log, a_file_that_has_got_too_large_is_begun_anew) {
    const TempDir directory;
    const std::string path = directory.file("log");
    Log log, other; // of two bridges
    ASSERT_TRUE(log.open(path, Level::kInfo, 200) && other.open(path, Level::kInfo, 200));
    for (int i = 0; i < 60; ++i) {
        const std::string line = "line " + std::to_string(i) + std::string(100, '.');
        (i % 10 == 0 ? other : log).info(line);
        EXPECT_TRUE(says(readFile(path), line));
        EXPECT_LT(std::filesystem::file_size(path), 200U + 300U);
    }
    EXPECT_FALSE(log.open(directory.path(), Level::kInfo));
}

TEST(Log, that_nobody_reads_holds_up_nobody) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    const std::string full(std::size_t{1} << 16, 'x');
    EXPECT_EQ(write(ends[1], full.data(), full.size()), static_cast<ssize_t>(full.size()));
    Log log;
    ASSERT_TRUE(log.open("/proc/self/fd/" + std::to_string(ends[1]), Level::kInfo));
    log.info("left out");
}

// The first letters of what is handed over with these numbers, "-" where there is nothing.
std::string handedOver(Outbox &outbox, int first, int last) {
    std::string all;
    for (int mid = first; mid <= last; ++mid) {
        auto publication = outbox.next(4);
        all += publication ? publication->payload.substr(0, 1) : "-";
        if (publication) {
            publication->mid = mid;
            outbox.sent(std::move(*publication));
        }
    }
    return all;
}

TEST(Outbox, where_it_is_full_of_bytes_drops_the_oldest_and_counts) {
    Outbox outbox{3, 100};
    for (const char letter : {'a', 'b'}) {
        outbox.push({"t", std::string(60, letter)});
    }
    outbox.push({"t", std::string(100, 'c')}); // with its topic larger than all
    EXPECT_EQ(outbox.fill().bytes, 61U);
    EXPECT_EQ(outbox.dropped, 2U);
    EXPECT_EQ(handedOver(outbox, 1, 2), "b-");
    EXPECT_EQ(outbox.fill().bytes, 0U);
}

TEST(Outbox, after_a_lost_connection_hands_over_what_was_not_acknowledged) {
    Outbox outbox{100, std::size_t{20} << 20};
    for (const char *const payload : {"a", "b", "c", "d", "e", "f"}) {
        outbox.push({"t", payload});
    }
    EXPECT_EQ(handedOver(outbox, 1, 5), "abcd-");
    EXPECT_TRUE(outbox.done(1) && outbox.done(2) && !outbox.done(1));
    EXPECT_FALSE(outbox.connectionLost(false));
    EXPECT_EQ(outbox.fill().messages, 4U);
    outbox.back(outbox.next(4).value());
    EXPECT_EQ(handedOver(outbox, 1, 2), "cd");
    for (int lost = 0; lost < 2; ++lost) {
        EXPECT_FALSE(outbox.connectionLost(true)); // c may be why, and goes alone
        EXPECT_EQ(handedOver(outbox, 1, 2), "c-");
    }
    EXPECT_EQ(outbox.connectionLost(true).value_or(Publication{}).payload, "c");
    outbox.push({"t", std::string(std::size_t{5} << 20, 'g')});
    outbox.push({"t", "h"});
    EXPECT_EQ(handedOver(outbox, 1, 5), "defg-");
    EXPECT_TRUE(outbox.done(1));
    EXPECT_EQ(handedOver(outbox, 5, 5), "-"); // too many bytes
}

TEST(Waiter, a_socket_that_is_closed_and_forgotten_wakes_nobody_though_a_child_has_it) {
    constexpr std::chrono::milliseconds limit{20};
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    const int childs = dup(ends[0]);
    Waiter waiter;
    EXPECT_TRUE(waiter.watch(ends[0], EPOLLIN));
    EXPECT_EQ(close(ends[1]), 0);
    EXPECT_EQ(waiter.wait(limit), std::uint32_t{EPOLLHUP});
    EXPECT_EQ(close(ends[0]), 0);
    waiter.forget();
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(waiter.wait(limit), 0U);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, limit);
    close(childs);
}

} // namespace
