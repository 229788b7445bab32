#include "server_fixture.h"
#include "test_support.h"
#include "test_system.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <thread>

namespace bus {
namespace {

// A new directory; in a child the parent's.
class Home {
public:
    Home() : path_{childArgument()} {
        if (path_.empty()) {
            path_ = own_.emplace().path();
        }
    }
    const std::string &path() const { return path_; }
    std::string file(const char *name) const { return path_ + "/" + name; }

private:
    std::optional<TempDir> own_;
    std::string path_;
};

// A server with its home, and a node that asks it.
class Keys : protected Home, public Server {
protected:
    Keys() : Server{Home::path().c_str()}, file_{file("keys.json")} {}

    std::string set(const std::string &key, const std::string &value, const char *more = "") {
        return ask(*node_, ("/localKeys/" + key).c_str(),
                   R"({"operation":"set","data":)" + value + more + "}");
    }
    std::string persist(const std::string &key, const std::string &value) {
        return set(key, value, R"(,"persist":"true")");
    }
    std::string get(const std::string &key) {
        return ask(*node_, ("/localKeys/" + key).c_str(), R"({"operation":"get"})");
    }
    void write(const std::string &text) { std::ofstream{file_, std::ios::binary} << text; }
    bool exists(const char *name) const { return std::filesystem::exists(file(name)); }
    std::string read(const char *name) const { return readFile(file(name)); }
    void restart() { restart(Home::path()); }
    void restart(const std::string &home) {
        clients_.clear();
        busServerDelete(server_);
        server_ = busServerNew(home.c_str());
        node_ = &join("n");
    }

    const std::string kNothing{kEmptyAnswer};
    const std::string file_;
    client_t *node_ = &join("n");
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

TEST_F(Keys, keys_ignore_case_and_move_to_the_end) {
    persist("volume", "1");
    persist("other", "2");
    persist("Volume", "3");
    EXPECT_EQ(get("vOLUME"), "3");
    EXPECT_EQ(read("keys.json"), "{\n\t\"other\":\t2,\n\t\"Volume\":\t3\n}");
}

TEST_F(Keys, set_replaces_every_member_that_has_the_key) {
    write(R"({"a":1,"b":2,"A":3,"a":4})");
    EXPECT_EQ(get("a"), "1");
    persist("a", "5");
    EXPECT_EQ(get("a"), "5");
    EXPECT_EQ(read("keys.json"), "{\n\t\"b\":\t2,\n\t\"a\":\t5\n}");
}

TEST_F(Keys, unknown_requests_change_nothing) {
    persist("a", "1");
    for (const char *payload :
         {"", "no json", "{}", R"({"operation":"set"})", R"({"operation":"SET","data":2})",
          R"({"operation":7,"data":2})", R"({"data":2})"}) {
        EXPECT_EQ(ask(*node_, "/localKeys/a", payload), kNothing) << payload;
    }
    EXPECT_EQ(ask(*node_, "/localKeys/a", R"({"operation":"settings","data":5})"), kNothing);
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
    const std::string texts[] = {"[1]", "{\"cut\":", "{} and more", std::string("{}\0{}", 5)};
    const char *const names[] = {"keys.json.bad", "keys.json.bad.1", "keys.json.bad.2",
                                 "keys.json.bad.3"};
    for (std::size_t i = 0; i < 4; ++i) {
        write(texts[i]);
        startLog(5);
        EXPECT_EQ(get("a"), kNothing);
        const std::string text = log();
        EXPECT_NE(text.find(file_ + " is no key store, kept as " + file_), text.npos) << text;
        EXPECT_EQ(read(names[i]), texts[i]);
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
    const std::string text = log();
    EXPECT_NE(text.find("  Vek-server fopen failed, file: " + file_ + "\n"), text.npos) << text;
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
    const std::string text = log();
    EXPECT_NE(text.find("  Vek-server fopen failed"), text.npos) << text;
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
            Child child{Home::path()};
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
