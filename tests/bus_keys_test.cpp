#include "server_fixture.h"
#include "test_system.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
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
    bool exists(const char *name) const {
        return std::filesystem::exists(std::filesystem::path{home_} / name);
    }
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
    EXPECT_EQ(entries(home_), 1);
}

TEST_F(Keys, file_that_is_no_store_is_set_aside_when_the_store_is_written) {
    const std::pair<const char *, std::string> kCases[] = {
        {"keys.json.bad", "[1]"},
        {"keys.json.bad.1", "{\"cut\":"},
        {"keys.json.bad.2", "{} and more"},
        {"keys.json.bad.3", std::string("{}\0{}", 5)}};
    for (const auto &[aside, text] : kCases) {
        restart();
        write(text);
        startLog(5);
        EXPECT_EQ(get("a"), kNothing);
        EXPECT_EQ(read("keys.json"), text);
        persist("a", "1");
        EXPECT_TRUE(says(log(), file_ + " is no key store, kept as " + file(aside) + "\n"));
        EXPECT_EQ(read(aside), text);
        EXPECT_EQ(read("keys.json"), "{\n\t\"a\":\t1\n}");
    }
    restart();
    write("");
    persist("b", "2"); // an empty file holds nothing to keep
    EXPECT_FALSE(exists("keys.json.bad.4"));
}

// Runs body while something else has the file's name: a link to target, or a directory.
bool whileReplaced(const std::string &file, const char *target, const std::function<void()> &body) {
    std::error_code error;
    std::filesystem::rename(file, file + ".away");
    target ? std::filesystem::create_symlink(target, file, error)
           : static_cast<void>(std::filesystem::create_directory(file, error));
    if (!error) {
        body();
    }
    std::filesystem::remove(file);
    std::filesystem::rename(file + ".away", file);
    return !error;
}

TEST_F(Keys, store_that_cannot_be_read_is_left_and_taken_over_once_it_can) {
    const char *const kShort = "/sys/kernel/uevent_seqnum"; // has more bytes than can be read
    const std::string notOpened = "  Vek-server fopen failed, file: " + file_ + "\n";
    const std::pair<std::function<bool(const std::function<void()> &)>, std::string> kCases[] = {
        {[&](auto &body) { return whileReplaced(file_, nullptr, body); }, notOpened},
        {[&](auto &body) { return whileReplaced(file_, "keys.json", body); }, notOpened},
        {[&](auto &body) { return exists(kShort) && whileReplaced(file_, kShort, body); },
         "  Vek-server read localKeys error\n"},
        {withoutFiles, notOpened}};
    for (const auto &[broken, line] : kCases) {
        restart();
        write(R"({"old":1})");
        startLog(5);
        const bool ran = broken([&] {
            EXPECT_EQ(get("old"), kNothing);
            EXPECT_EQ(persist("new", "2"), kNothing);
            EXPECT_EQ(get("new"), "2");
        });
        EXPECT_EQ(::count(log(), line), ran ? 3U : 0U) << line;
        EXPECT_EQ(read("keys.json"), R"({"old":1})") << line;
        EXPECT_EQ(get("old"), "1") << line;
        persist("OLD", "3");
        EXPECT_EQ(read("keys.json"),
                  ran ? "{\n\t\"new\":\t2,\n\t\"OLD\":\t3\n}" : "{\n\t\"OLD\":\t3\n}");
        EXPECT_EQ(entries(home_), 1) << line;
    }
}

TEST_F(Keys, file_that_comes_after_the_first_look_is_taken_over) {
    EXPECT_EQ(set("new", "2"), kNothing);
    write(R"({"old":1})");
    persist("newer", "3");
    EXPECT_EQ(read("keys.json"), "{\n\t\"old\":\t1,\n\t\"new\":\t2,\n\t\"newer\":\t3\n}");
}

TEST_F(Keys, mode_and_link_stay) {
    using std::filesystem::perms;
    const auto mode = [](const std::string &name) {
        return std::filesystem::status(name).permissions();
    };
    const std::string target = file("target");
    std::error_code error;
    std::filesystem::create_symlink("target", file_, error);
    if (error) {
        GTEST_SKIP() << "no links on this system";
    }
    persist("a", "1"); // the link leads nowhere
    EXPECT_EQ(mode(target), perms::owner_read | perms::owner_write);
    std::filesystem::permissions(target, perms{0646});
    persist("a", "2");
    EXPECT_EQ(mode(target), perms{0646});
    std::ofstream{target} << "[1]";
    restart();
    persist("a", "3");
    EXPECT_EQ(readFile(target), "{\n\t\"a\":\t3\n}");
    EXPECT_EQ(read("target.bad"), "[1]");
    EXPECT_TRUE(std::filesystem::is_symlink(file_));
    EXPECT_EQ(entries(home_), 3);
}

// What one may do to root's file in root's directory.
TEST_F(Keys, file_in_a_directory_that_cannot_be_written_is_written_in_place) {
    using std::filesystem::perms;
    for (const perms directory : {perms{0755}, perms{01777}}) { // sticky: new files, no others
        restart();
        write(R"({"a":1})");
        std::filesystem::permissions(home_, directory);
        std::filesystem::permissions(file_, perms{0666});
        startLog(4);
        const bool ran = asNobody([&] {
            persist("a", "2");
            persist("a", "3");
        });
        EXPECT_EQ(::count(log(), file_ + " can't be replaced"), ran ? 1U : 0U);
        if (!ran) {
            GTEST_SKIP() << "needs root";
        }
        EXPECT_EQ(read("keys.json"), "{\n\t\"a\":\t3\n}");
        restart();
        write("[1]"); // can't be set aside, and so stays
        asNobody([&] { persist("a", "4"); });
        EXPECT_EQ(read("keys.json"), "[1]");
        EXPECT_EQ(entries(home_), 1);
    }
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
    restart();
    persist("first", "0");
    EXPECT_EQ(entries(home_), 1); // what the killed have left is gone
}

} // namespace
} // namespace bus
