#include "support.h"

#include <fstream>
#include <random>

using namespace zelvo;

namespace {

// Also where the system does not tell.
bool runsThread(const std::string &wanted) {
    std::error_code none;
    std::string name;
    for (const auto &thread : std::filesystem::directory_iterator{"/proc/self/task", none}) {
        std::ifstream file{thread.path() / "comm"};
        if (std::getline(file, name) && name == wanted) {
            return true;
        }
    }
    return none.value() != 0;
}

} // namespace

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
              "{\"data\":\"\"}", " [1, {\"a\" : [\"\\ud83d\\ude00\"]}]",
              "\"\\ud800\\udc00\\uDBFF\\uDFFF\\ud7ff\\ue000\"", "0.50E-1"}) {
            keys.set("key \"one\"", json);
            EXPECT_TRUE(keys.get("KEY \"one\"")) << json;
        }
        keys.set("kept", "\"here\"", true);
        for (const char *const json : {"",
                                       "x",
                                       "01",
                                       "1.",
                                       "-",
                                       "1e",
                                       "'a'",
                                       "\"a",
                                       "\"",
                                       "\"\n\"",
                                       "\"\\x\"",
                                       "\"\\u12\"",
                                       "\"\\u0000\"",
                                       "\"\\ud83d\"",
                                       "\"\\ud83d\\ue000\"",
                                       "\"\\udc00\"",
                                       "{:1}",
                                       "1e+",
                                       "\"\\u00g0\"",
                                       "[1,]",
                                       "[1",
                                       "{\"a\"}",
                                       "{1:2}",
                                       "1 2",
                                       "1}",
                                       "1,\"b\":2"}) {
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
    EXPECT_EQ(node.stats(), std::nullopt); // not configured
    const auto refusal = [&bus](const std::string &name) {
        try {
            const Node joined{bus, name};
        } catch (const Error &error) {
            return error.cause();
        }
        return Cause::answered;
    };
    EXPECT_EQ(refusal(std::string(127, 'n')), Cause::answered);
    EXPECT_EQ(refusal(node.name()), Cause::name_taken);
    EXPECT_EQ(node.nodes().size(), 1U);
    std::vector<client_t *> many;
    do {
        many.push_back(busClientConnect(bus.native(), std::to_string(many.size()).c_str(), nullptr,
                                        nullptr, nullptr));
    } while (many.back());
    EXPECT_EQ(refusal("late"), Cause::bus_full);
    for (client_t *const client : many) {
        busClientClose(client);
    }
}

TEST(FaceBus, threads_bear_the_names_of_their_nodes) {
    const Bus bus{quiet()};
    const Node lamp{bus, "a lamp with a long name"};
    lamp.call_async("/" + lamp.name() + "/x").wait(); // all of them run
    for (const char *const name : {"zelvo bus", "zelvo helper", "a lamp with a l"}) {
        EXPECT_TRUE(runsThread(name)) << name;
    }
}

TEST(FaceBus, a_copy_of_the_hook_that_throws_leaves_nothing_behind) {
    struct Hook {
        Hook() = default;
        Hook(Hook &&) = default;
        Hook(const Hook &) { throw std::runtime_error("no copy"); }
        void operator()(std::string_view, const std::exception_ptr &) const {}
    };
    Config config = quiet();
    config.on_error = Hook{};
    EXPECT_THROW(Bus{config}, std::runtime_error);
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
