#include "support.h"

#include <random>

using namespace zelvo;

TEST(FaceBus, keys_are_stored_as_json_in_the_home_directory) {
    Config config = quiet();
    config.home =
        std::filesystem::temp_directory_path() /
        std::filesystem::u8path("zelvo face \xC3\xA4 " + std::to_string(std::random_device{}()));
    ASSERT_TRUE(std::filesystem::create_directory(config.home));
    {
        const Bus bus{config};
        const Node node{bus, "node"};
        const Keys keys = node.keys();
        EXPECT_EQ(keys.get("none"), std::nullopt);
        for (const char *const json :
             {"30", "-1.5e3", "\"a \\\"text\\\" \\u00e4\"", "true", "null", "[ ]",
              "{\"data\":\"\"}", " [1, {\"a\" : [\"\\ud83d\\ude00\"]}]"}) {
            keys.set("key \"one\"", json);
            EXPECT_TRUE(keys.get("KEY \"one\"")) << json;
        }
        keys.set("kept", "\"here\"", true);
        for (const char *const json :
             {"",     "x",  "01",      "1.",      "-",         "1e",          "'a'",
              "\"a",  "\"", "\"\n\"",  "\"\\x\"", "\"\\u12\"", "\"\\u0000\"", "\"\\ud83d\"",
              "[1,]", "[1", "{\"a\"}", "{1:2}",   "1 2",       "1}",          "1,\"b\":2"}) {
            EXPECT_THROW(keys.set("kept", json), std::invalid_argument) << json;
        }
        EXPECT_THROW(keys.set("kept", std::string(600, '[') + std::string(600, ']')),
                     std::invalid_argument);
        EXPECT_EQ(keys.get("kept"), "\"here\"");
        EXPECT_THROW(static_cast<void>(keys.get("")), std::invalid_argument);
    }
    EXPECT_TRUE(std::filesystem::exists(config.home / "keys.json"));
    std::filesystem::remove_all(config.home);
}

TEST(FaceBus, names_are_refused_where_they_could_not_be_called) {
    const Bus bus{quiet()};
    const Node node{bus, "a \"name\"\t\\"};
    EXPECT_EQ(node.nodes(), std::vector<std::string>{"a \"name\"\t\\"});
    EXPECT_THROW(Node(bus, node.name()), Error);
    for (const std::string &name :
         {std::string{}, std::string{"a/b"}, std::string{"bu"}, std::string{"localKeys"},
          std::string(128, 'n'), std::string("a\0b", 3)}) {
        EXPECT_THROW(Node(bus, name), std::invalid_argument) << name;
    }
    try {
        const Node b{bus, "b"};
        ADD_FAILURE() << "it could not be called";
    } catch (const std::invalid_argument &error) {
        EXPECT_NE(std::string{error.what()}.find("localKeys"), std::string::npos) << error.what();
    }
    const Node longest{bus, std::string(127, 'n')};
    EXPECT_EQ(node.nodes().size(), 2U);
    EXPECT_EQ(node.stats(), std::nullopt); // not configured
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
