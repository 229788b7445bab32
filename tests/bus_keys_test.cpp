#include "server_fixture.h"
#include "test_system.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <thread>
#include <utility>

namespace bus {
namespace {

// A server with its home, in a child the parent's, and a node that asks it.
class Keys : public Server {
protected:
    Keys() { restart(); }

    std::string request(const std::string &key, const std::string &data) {
        return ask(*node_, ("/localKeys/" + key).c_str(), data);
    }
    std::string set(const std::string &key, const std::string &value, const char *more = "") {
        return request(key, R"({"operation":"set","data":)" + value + more + "}");
    }
    std::string persist(const std::string &key, const std::string &value) {
        return set(key, value, R"(,"persist":"true")");
    }
    std::string get(const std::string &key) { return request(key, R"({"operation":"get"})"); }
    std::string file(const char *name) const { return home_ + "/" + name; }
    void write(const std::string &text) { std::ofstream{file_, std::ios::binary} << text; }
    bool exists(const char *name) const { return std::filesystem::exists(file(name)); }
    std::string read(const char *name) const { return readFile(file(name)); }
    void restart() { restart(home_); }
    void restart(const std::string &home) {
        clients_.clear();
        busServerDelete(server_);
        server_ = busServerNew(home.c_str());
        node_ = &join("n");
    }

    std::optional<TempDir> own_;
    const std::string home_ = childArgument().empty() ? own_.emplace().path() : childArgument();
    const std::string kNothing{kEmptyAnswer};
    const std::string file_ = file("keys.json");
    client_t *node_ = nullptr;
};

TEST_F(Keys, values_come_back_as_they_were_set) {
    EXPECT_EQ(get("volume"), kNothing); // no store yet
    const std::string longKey(3000, 'k');
    const struct {
        std::string key, value, printed;
    } kCases[] = {{"volume", "30", "30"},
                  {"name", R"("a\"b")", R"("a\"b")"},
                  {"", "true", "true"},
                  {"deep/er", R"({"x":[1]})", "{\n\t\"x\":\t[1]\n}"},
                  {longKey, "null", "null"}};
    for (const auto &c : kCases) {
        EXPECT_EQ(set(c.key, c.value), kNothing);
    }
    for (const auto &c : kCases) {
        EXPECT_EQ(get(c.key), c.printed) << c.key;
    }
    EXPECT_EQ(ask(*node_, "/local/volume", R"({"operation":"get"})"), "30");
    EXPECT_EQ(get("unknown"), kNothing);
    EXPECT_FALSE(exists("keys.json"));
}

TEST_F(Keys, set_replaces_every_member_of_the_key_in_any_case) {
    write(R"({"a":1,"b":2,"A":3,"a":4})");
    EXPECT_EQ(get("a"), "1");
    persist("A", "5");
    EXPECT_EQ(get("a"), "5");
    EXPECT_EQ(read("keys.json"), "{\n\t\"b\":\t2,\n\t\"A\":\t5\n}");
}

TEST_F(Keys, unknown_requests_change_nothing) {
    persist("a", "1");
    for (const char *payload :
         {"", "no json", "{}", R"({"operation":"set"})", R"({"operation":"SET","data":2})",
          R"({"operation":7,"data":2})", R"({"data":2})"}) {
        EXPECT_EQ(request("a", payload), kNothing) << payload;
    }
    EXPECT_EQ(request("a", R"({"operation":"settings","data":5})"), kNothing);
    EXPECT_EQ(get("a"), "5");
}

TEST_F(Keys, only_persisted_values_survive) {
    persist("kept", "1");
    set("lost", "2");
    set("lost", "3", R"(,"persist":true)"); // a boolean does not count
    restart();
    EXPECT_EQ(get("kept"), "1");
    EXPECT_EQ(get("lost"), kNothing);
    EXPECT_FALSE(exists("keys.json.new"));
}

TEST_F(Keys, unreadable_store_is_kept_aside) {
    const std::pair<const char *, std::string> kCases[] = {
        {"keys.json.bad", "[1]"},
        {"keys.json.bad.1", "{\"cut\":"},
        {"keys.json.bad.2", "{} and more"},
        {"keys.json.bad.3", std::string("{}\0{}", 5)}};
    for (const auto &[aside, text] : kCases) {
        write(text);
        startLog(5);
        EXPECT_EQ(get("a"), kNothing);
        EXPECT_TRUE(says(log(), file_ + " is no key store, kept as " + file_)) << aside;
        EXPECT_EQ(read(aside), text);
        EXPECT_FALSE(exists("keys.json"));
    }
    persist("a", "1");
    EXPECT_EQ(read("keys.json"), "{\n\t\"a\":\t1\n}");
    restart();
    write("");
    persist("b", "2"); // an empty file holds nothing to keep
    EXPECT_FALSE(exists("keys.json.bad.4"));
}

TEST_F(Keys, store_that_cannot_be_read_or_written_is_reported_and_left) {
    std::filesystem::create_directory(file_);
    startLog(5);
    EXPECT_EQ(persist("a", "1"), kNothing);
    EXPECT_TRUE(says(log(), "  Vek-server fopen failed, file: " + file_ + "\n"));
    EXPECT_TRUE(std::filesystem::is_directory(file_));
    EXPECT_EQ(get("a"), "1");
}

TEST_F(Keys, home_is_named_in_utf8) {
    const std::string home = file("h\xc3\xa4user \xe4\xb8\xad");
    std::filesystem::create_directory(utf8Path(home));
    restart(home);
    persist("a", "1");
    restart(home);
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(readFile(home + "/keys.json"), "{\n\t\"a\":\t1\n}");
    restart(file("\xff")); // no UTF-8, and no such directory
    startLog(5);
    EXPECT_EQ(persist("a", "2"), kNothing);
    EXPECT_TRUE(says(log(), "  Vek-server fopen failed"));
    EXPECT_EQ(get("a"), "2");
}

// A process that persists in a loop is killed at random moments; the file is whole each time.
TEST_F(Keys, killed_process_leaves_a_whole_store) {
    const std::string filler(20000, 'f');
    if (!childArgument().empty()) {
        for (int n = std::stoi(get("first")) + 1;; ++n) {
            persist("first", std::to_string(n));
            tellParent();
            persist("filler", "\"" + filler + "\"");
            persist("last", std::to_string(n));
        }
    }
    persist("first", "-1");
    std::minstd_rand random{7};
    std::string before = read("keys.json");
    const int kills = scaled(200);
    for (int i = 0; i < kills; ++i) {
        {
            Child child{home_};
            ASSERT_TRUE(child.hasTold()) << i;
            std::this_thread::sleep_for(std::chrono::microseconds{random() % 8000});
        }
        const std::string text = read("keys.json");
        const JsonPtr json{cJSON_ParseWithOpts(text.c_str(), nullptr, 1)};
        ASSERT_TRUE(cJSON_IsObject(json.get())) << i << ": " << text.substr(0, 200);
        ASSERT_TRUE(cJSON_HasObjectItem(json.get(), "first")) << i;
        EXPECT_NE(text, before) << i;
        before = text;
    }
}

} // namespace
} // namespace bus
