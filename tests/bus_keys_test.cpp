// The key store through the public header: what a get finds, and what becomes of the file.
#include "running.h"
#include "test_system.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>

namespace {

using std::filesystem::perms;

const std::string kNothing = "{\"data\":\"\"}";

// A bus with a home, and a node that asks it.
class Keys : public testing::Test {
protected:
    Keys() { restart(home_.path()); }

    void restart() { restart(home_.path()); }
    void restart(const std::string &home) {
        node_.reset();
        bus_.emplace(3, R"(,"persistSync":false,"homePath":")" + home + '"');
        node_.emplace(*bus_, "n");
    }
    std::string ask(const std::string &key, const std::string &payload) {
        return node_->call("/localKeys/" + key, payload);
    }
    std::string set(const std::string &key, const std::string &value,
                    const std::string &persist = R"("no")") {
        return ask(key, R"({"operation":"set","data":)" + value + R"(,"persist":)" + persist + "}");
    }
    std::string persist(const std::string &key, const std::string &value) {
        return set(key, value, R"("true")");
    }
    std::string get(const std::string &key) { return ask(key, R"({"operation":"get"})"); }

    std::string read(const std::string &name = "keys.json") const {
        return readFile(home_.file(name.c_str()));
    }
    void write(const std::string &text) { std::ofstream{file_, std::ios::binary} << text; }
    std::size_t logged(const std::string &line) const {
        return count(bus_->log(), "  Vek-server " + line);
    }
    std::ptrdiff_t files() const { return entries(home_.path()); }

    const TempDir home_;
    const std::string file_ = home_.file("keys.json");
    std::optional<Bus> bus_;
    std::optional<Node> node_;
};

TEST_F(Keys, values_come_back_as_they_were_set) {
    const std::string longKey(3000, 'k');
    const struct {
        std::string key, payload, got;
    } kCases[] = {{"volume", "", kNothing}, // no store yet
                  {"volume", R"({"operation":"set","data":30})", "30"},
                  {"VOLUME", R"({"operation":"get"})", "30"},
                  {"volume", R"({"operation":"settings","data":5})", "5"},
                  {"volume", "no json", "5"},
                  {"volume", R"({"operation":"set"})", "5"},
                  {"volume", R"({"operation":"SET","data":2})", "5"},
                  {"volume", R"({"operation":7,"data":2})", "5"},
                  {"volume", R"({"operation":"set","data":null,"persist":true})", "null"},
                  {"", R"({"operation":"set","data":"a\"b"})", R"("a\"b")"},
                  {"deep/er", R"({"operation":"set","data":{"x":[1]}})", "{\n\t\"x\":\t[1]\n}"},
                  {longKey, R"({"operation":"set","data":true,"persist":"no"})", "true"},
                  {"unknown", "{}", kNothing}};
    for (const auto &c : kCases) {
        const bool gets = says(c.payload, "get");
        EXPECT_EQ(ask(c.key, c.payload), gets ? c.got : kNothing) << c.payload;
        EXPECT_EQ(get(c.key), c.got) << c.payload;
    }
    EXPECT_EQ(logged("not exist, file: " + file_ + "\n"), 3U); // until there was a store
    EXPECT_EQ(node_->call("/local/volume", R"({"operation":"get"})"), "null");
    EXPECT_EQ(files(), 0);
}

TEST_F(Keys, file_is_taken_over_or_set_aside_when_the_store_is_written) {
    const struct {
        std::string text, got, written, aside;
    } kCases[] = {
        {R"({"a":1,"B":5,"c":3,"b":4})", "1", "{\n\t\"a\":\t1,\n\t\"c\":\t3,\n\t\"b\":\t2\n}", ""},
        {"", kNothing, "{\n\t\"b\":\t2\n}", ""}, // holds nothing to keep
        {"[1]", kNothing, "{\n\t\"b\":\t2\n}", "keys.json.bad"},
        {"{\"cut\":", kNothing, "{\n\t\"b\":\t2\n}", "keys.json.bad.1"},
        {"{} more", kNothing, "{\n\t\"b\":\t2\n}", "keys.json.bad.2"},
        {std::string("{}\0{}", 5), kNothing, "{\n\t\"b\":\t2\n}", "keys.json.bad.3"}};
    for (const auto &c : kCases) {
        write(c.text);
        restart();
        EXPECT_EQ(get("a"), c.got) << c.text;
        set("lost", "0");
        restart();
        EXPECT_EQ(read(), c.text);
        persist("b", "2");
        EXPECT_EQ(read(), c.written);
        EXPECT_EQ(logged(file_ + " is no key store, kept as " + home_.file(c.aside.c_str()) + "\n"),
                  c.aside.empty() ? 0U : 1U);
        EXPECT_TRUE(c.aside.empty() || read(c.aside) == c.text);
    }
    EXPECT_EQ(files(), 5);
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
    const std::string notOpened = "fopen failed, file: " + file_ + "\n";
    const std::pair<std::function<bool(const std::function<void()> &)>, std::string> kCases[] = {
        {[&](auto &body) { return whileReplaced(file_, nullptr, body); }, notOpened},
        {[&](auto &body) { return whileReplaced(file_, "keys.json", body); }, notOpened},
        {[&](auto &body) {
             return std::filesystem::exists(kShort) && whileReplaced(file_, kShort, body);
         },
         "read localKeys error\n"},
        {withoutFiles, notOpened}};
    for (const auto &[broken, line] : kCases) {
        write(R"({"old":1})");
        restart();
        const bool ran = broken([&] {
            EXPECT_EQ(get("old"), kNothing);
            EXPECT_EQ(persist("new", "2"), kNothing);
            EXPECT_EQ(get("new"), "2");
        });
        EXPECT_EQ(logged(line), ran ? 3U : 0U) << line;
        EXPECT_EQ(read(), R"({"old":1})") << line;
        EXPECT_EQ(get("old"), "1") << line;
        persist("OLD", "3");
        EXPECT_EQ(read(), ran ? "{\n\t\"new\":\t2,\n\t\"OLD\":\t3\n}" : "{\n\t\"OLD\":\t3\n}");
        EXPECT_EQ(files(), 1) << line;
    }
}

TEST_F(Keys, store_that_cannot_be_written_waits_for_its_disk) {
    const std::string big = "\"" + std::string(4000, 'b') + "\"";
    set("a", "1");
    write(R"({"old":1})");                     // came after the first look
    const bool full = withFullDisk(3000, [&] { // the log has room
        EXPECT_EQ(persist("a", big), kNothing);
        EXPECT_EQ(get("a"), big);
    });
    EXPECT_EQ(logged("write localKeys error, file: "), full ? 1U : 0U);
    persist("a", "2");
    EXPECT_EQ(read(), "{\n\t\"old\":\t1,\n\t\"a\":\t2\n}");
    EXPECT_EQ(files(), 1);
    restart(file_ + "/home"); // under a file
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(persist("a", "3"), kNothing);
    }
    EXPECT_EQ(logged("fopen failed, file: " + file_ + "/home/keys.json\n"), 3U);
    std::filesystem::remove(file_);
    std::filesystem::create_directories(file_ + "/home");
    persist("b", "4");
    EXPECT_EQ(read("keys.json/home/keys.json"), "{\n\t\"a\":\t3,\n\t\"b\":\t4\n}");
}

TEST_F(Keys, mode_link_and_name_of_the_file_stay) {
    const std::string home = home_.file("h\xc3\xa4user \xe4\xb8\xad");
    std::filesystem::create_directory(utf8Path(home));
    restart(home);
    persist("a", "1");
    EXPECT_EQ(readFile(home + "/keys.json"), "{\n\t\"a\":\t1\n}");
    restart();
    std::error_code error;
    std::filesystem::create_symlink("target", file_, error);
    if (error) {
        GTEST_SKIP() << "no links on this system";
    }
    const std::string target = home_.file("target");
    const auto mode = [&] { return std::filesystem::status(target).permissions(); };
    persist("a", "1"); // the link leads nowhere
    EXPECT_EQ(mode(), perms::owner_read | perms::owner_write);
    std::filesystem::permissions(target, perms{0646});
    write("[1]");
    restart();
    persist("a", "3");
    EXPECT_EQ(mode(), perms{0646});
    EXPECT_EQ(read("target") + read("target.bad"), "{\n\t\"a\":\t3\n}[1]");
    EXPECT_TRUE(std::filesystem::is_symlink(file_));
    EXPECT_EQ(files(), 4);
}

// What one may do to root's file in root's directory.
TEST_F(Keys, file_in_a_directory_that_cannot_be_written_is_written_in_place) {
    for (const perms directory : {perms{0755}, perms{01777}}) { // sticky: new files, no others
        write(R"({"a":1})");
        restart();
        std::filesystem::permissions(home_.path(), directory);
        std::filesystem::permissions(file_, perms{0666});
        if (!asNobody([&] {
                persist("a", "2");
                persist("a", "3");
            })) {
            GTEST_SKIP() << "needs root";
        }
        EXPECT_EQ(count(bus_->log(), file_ + " can't be replaced"), 1U);
        EXPECT_EQ(read(), "{\n\t\"a\":\t3\n}");
        write("[1]"); // can't be set aside, and so stays
        restart();
        asNobody([&] { persist("a", "4"); });
        EXPECT_EQ(read(), "[1]");
        EXPECT_EQ(files(), 1);
    }
}

// Guards the file against two writers, and against the death of one.
TEST_F(Keys, no_look_at_the_file_finds_it_torn) {
    const std::string values[] = {"\"" + std::string(50000, '1') + "\"", "2"};
    const auto isWhole = [&](const std::string &text) {
        return text == "{\n\t\"k\":\t" + values[0] + "\n}" || text == "{\n\t\"k\":\t2\n}";
    };
    persist("k", "2");
    node_.reset();
    bus_.reset();
    const bool killed = whileKilled(
        20,
        [&] {
            restart();
            for (std::size_t i = 0;; ++i) {
                persist("k", values[i % 2]);
            }
        },
        [&] { EXPECT_TRUE(isWhole(read())); });
    restart();
    persist("k", "2");
    EXPECT_EQ(files(), 1) << killed; // what the killed have left is gone
    Bus second{4, R"(,"persistSync":false,"homePath":")" + home_.path() + '"'};
    Node other{second, "n"};
    std::atomic<bool> done{false};
    std::thread reader{[&] {
        while (!done) {
            const std::string text = read(); // nothing where the system keeps it from being opened
            ASSERT_TRUE(text.empty() || isWhole(text));
        }
    }};
    inThreads(2, [&](int i) {
        const std::string payload =
            R"({"operation":"set","persist":"true","data":)" + values[i] + "}";
        for (int n = 0; n < 100; ++n) {
            EXPECT_EQ((i == 0 ? other : *node_).call("/localKeys/k", payload), kNothing);
        }
    });
    done = true;
    reader.join();
    EXPECT_EQ(files(), 1);
}

} // namespace
