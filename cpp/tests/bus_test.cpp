#include "support.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

using namespace zelvo;
using namespace std::string_literals;

TEST(FaceBus, keys_are_stored_as_json_in_the_home_directory) {
    Config config = quiet();
    config.home = std::filesystem::temp_directory_path().string() + "/zelvo face \xC3\xA4 " +
                  std::to_string(std::random_device{}());
    const std::filesystem::path home = std::filesystem::u8path(config.home);
    ASSERT_TRUE(std::filesystem::create_directory(home));
    config.log = config.home + "/log";
    config.log_megabytes = 0;
    config.level = Level::warnings;
    {
        const Bus bus{config};
        const Node node{bus, "node"};
        const Node gui{bus, "gui", [](Task task) { task(); }};
        const PolledNode polled{bus, "polled"};
        const Keys keys = node.keys();
        EXPECT_EQ(keys.get("none"), std::nullopt);
        std::istringstream good{
            R"(30|-1.5e3|0.50E-1|"a \"text\" \u00e4"|true|null|[ ]|{"data":""}|)"
            R"( [1, {"a" : ["\ud83d\ude00"]}]|"\ud800\udc00\uDBFF\uDFFF\ud7ff\ue000")"};
        for (std::string json; std::getline(good, json, '|');) {
            keys.set("key \"one\"", json);
            EXPECT_TRUE(keys.get("KEY \"one\"")) << json;
        }
        keys.set("kept", "\"here\"", true);
        keys.set("deep", std::string(501, '[') + std::string(501, ']'));
        std::istringstream bad{
            R"(|x|01|1.|-|1e|1e+|1 2|1}|'a'|"a|"|"\x"|"\u12"|"\u0000"|"\u00g0"|)"
            R"("\uDA00"|"\ud83d\ue000"|"\udc00\udc00"|{:1}|{"a"}|{1:2}|[1,]|[1|[|{|)"
            "1,\"b\":2|\"\n\""};
        for (std::string json; std::getline(bad, json, '|');) {
            EXPECT_THROW(keys.set("kept", json), std::invalid_argument) << json;
        }
        EXPECT_THROW(keys.set("kept", std::string(502, '[') + std::string(502, ']')),
                     std::invalid_argument);
        EXPECT_EQ(keys.get("kept"), "\"here\"");
        EXPECT_THROW(static_cast<void>(keys.get("")), std::invalid_argument);
    }
    EXPECT_LT(std::filesystem::file_size(home / "keys.json"), 1000U); // without "deep"
    EXPECT_EQ(std::filesystem::file_size(home / "log"), 0U);          // nothing to warn of
    std::filesystem::remove_all(home);
}

TEST(FaceBus, names_are_refused_where_they_could_not_be_called) {
    Config config = quiet();
    config.call_timeout = kLimit;
    const Bus bus{config};
    Node node{bus, "a \"name\" of a node\t\\"};
    const auto refusal = [&bus](std::string_view name) {
        try {
            const Node joined{bus, name};
        } catch (const std::exception &error) {
            return std::string{error.what()};
        }
        return std::string{};
    };
    const struct {
        std::string name;
        const char *why;
    } cases[] = {
        {"", "127"},         {std::string(128, 'n'), "127"},     {"a/b", "slash"},
        {"bu", "localKeys"}, {std::string("a\0b", 3), "NUL"},    {"b", "localKeys"},
        {"l", "localKeys"},  {node.name(), "the name is taken"}, {std::string(127, 'n'), ""},
    };
    for (const auto &entry : cases) {
        const std::string why = refusal(entry.name);
        const bool isTold = *entry.why == '\0' ? why.empty() : why.find(entry.why) != why.npos;
        EXPECT_TRUE(isTold) << entry.name << ": " << why;
    }
    EXPECT_EQ(node.call("/bus/nodes").text.find("zelvo/helper/"), std::string::npos);
    EXPECT_EQ(node.nodes(), std::vector<std::string>{node.name()});
    node.call_async("/" + node.name() + "/x").get(); // all of them have run
    const auto threads = threadNames();
    for (const std::string &name : {node.name().substr(0, 15), "zelvo bus"s, "zelvo helper"s}) {
        EXPECT_TRUE(threads.empty() || threads.count(name) > 0) << name;
    }
    EXPECT_EQ(node.stats(), std::nullopt); // not configured
    const Node other{bus, "other"};
    std::vector<client_t *> many;
    do {
        const std::string name = std::to_string(many.size());
        many.push_back(detail::connectSilently(bus.native(), name.c_str()));
    } while (many.back());
    EXPECT_NE(refusal("late").find("2,048"), std::string::npos);
    EXPECT_EQ(other.call_async("/x").get().cause, Cause::lost); // no helper of its own can join
    for (client_t *const client : many) {
        busClientClose(client);
    }
    EXPECT_EQ(other.call_async("/x").get().cause, Cause::no_node);
    config.log_megabytes = -1;
    EXPECT_THROW(Bus{config}, std::invalid_argument);
}

TEST(FaceBusDeathTest, a_handler_may_end_the_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto end = [] {
        static Bus bus{quiet()};
        static Node other{bus, "other"};
        static Node node{bus, "node"};
        node.after(0ms, [] { std::exit(3); });
        Gate{}.wait();
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(3), "");
}
