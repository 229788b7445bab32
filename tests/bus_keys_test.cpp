// The key store through the public header: what a get finds, and what becomes of the file.
#include "running.h"
#include "test_system.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

const std::string kNothing = "{\"data\":\"\"}";

// A bus with a home, and a node that asks it.
class Keys : public testing::Test {
protected:
    Keys() { restart(); }

    void restart() {
        node_.reset();
        bus_.emplace(3, R"(,"persistSync":false,"homePath":")" + home_ + '"');
        node_.emplace(*bus_, "n");
    }
    static std::string setting(const std::string &value, const std::string &persist = R"("true")") {
        return R"({"operation":"set","data":)" + value + R"(,"persist":)" + persist + "}";
    }
    std::string ask(const std::string &key, const std::string &payload) {
        return node_->call("/localKeys/" + key, payload);
    }
    void persist(const std::string &key, const std::string &value) {
        EXPECT_EQ(ask(key, setting(value)), kNothing);
    }
    std::string get(const std::string &key) { return ask(key, R"({"operation":"get"})"); }

    std::string file() const { return home_ + "/keys.json"; }
    std::string read(const std::string &end = "") const { return readFile(file() + end); }
    void write(const std::string &text) { std::ofstream{file(), std::ios::binary} << text; }
    std::size_t logged(const std::string &line) const { return count(bus_->log(), line); }

    const TempDir dir_;
    std::string home_ = dir_.path();
    std::optional<Bus> bus_;
    std::optional<Node> node_;
};

TEST_F(Keys, values_come_back_as_they_were_set) {
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
                  {"volume", setting("null", "true"), "null"},
                  {"", setting(R"("a\"b")", R"("no")"), R"("a\"b")"},
                  {"deep/er", R"({"operation":"set","data":{"x":[1]}})", "{\n\t\"x\":\t[1]\n}"},
                  {std::string(3000, 'k'), R"({"operation":"set","data":true})", "true"},
                  {"unknown", "{}", kNothing}};
    for (const auto &c : kCases) {
        EXPECT_EQ(ask(c.key, c.payload), says(c.payload, "get") ? c.got : kNothing) << c.payload;
        EXPECT_EQ(get(c.key), c.got) << c.payload;
    }
    EXPECT_EQ(logged("not exist, file: " + file() + "\n"), 3U); // until there was a store
    EXPECT_EQ(node_->call("/local/volume", R"({"operation":"get"})"), "null");
    EXPECT_EQ(entries(home_), 0);
    persist("other", "1");
    EXPECT_EQ(count(read(), "\"volume\""), 1U);
}

// What keeps the file from being read or written.
struct Hindrance {
    const char *target = nullptr; // a link leads there instead
    unsigned mode = 0;            // of its directory, where another user writes to root's file
    bool full = false;            // the disk is
};

TEST_F(Keys, file_is_taken_over_set_aside_or_left_until_its_hindrance_has_gone) {
    // False: this system can't.
    const auto hindered = [this](const Hindrance &by, const Body &body) {
        if (by.mode != 0) {
            std::filesystem::permissions(home_, std::filesystem::perms{by.mode});
            std::filesystem::permissions(file(), std::filesystem::perms{0666});
            return asNobody(body);
        }
        if (by.full) {
            return withFullDisk(3000, body);
        }
        if (!by.target) {
            body();
            return true;
        }
        std::error_code error;
        std::filesystem::rename(file(), file() + ".away");
        std::filesystem::create_symlink(by.target, file(), error);
        const bool can = !error && (by.target[0] != '/' || std::filesystem::exists(by.target));
        if (can) {
            body();
        }
        std::filesystem::rename(file() + ".away", file());
        return can;
    };
    const std::string big = '"' + std::string(4000, 'b') + '"';
    const std::string old = R"({"a":1})";
    const std::string end = "\n\t\"b\":\t" + big + ",\n\t\"c\":\t2\n}";
    const std::string fresh = "{" + end, both = "{\n\t\"a\":\t1," + end;
    const struct {
        std::string text;
        Hindrance hindrance;
        std::string written, aside = "";
        bool stays = false; // as long as there is the hindrance
        std::string line = "";
    } kCases[] = {{R"({"a":1,"B":5,"b":4})", {}, both},
                  {"", {}, fresh}, // holds nothing to keep
                  {"[1]", {}, fresh, ".bad"},
                  {"{\"cut\":", {}, fresh, ".bad.1"},
                  {old + std::string(" more\0{}", 8), {}, both},
                  {old, {.full = true}, both, "", true, "write localKeys error, file: "},
                  {old, {"."}, both, "", true, "is not read, and left as it is"},
                  // Has more bytes than can be read.
                  {old, {"/sys/kernel/uevent_seqnum"}, both, "", true, "is not read to its end"},
                  {old, {.mode = 0755}, both, "", false, "can't be replaced as a whole"},
                  {old, {.mode = 01777}, both, "", false, "can't be replaced as a whole"},
                  {"[1]", {.mode = 0755}, fresh, ".bad.2", true, "can't be set aside"},
                  {"[1]", {.mode = 01777}, fresh, ".bad.3", true, "is not written"}};
    std::ptrdiff_t known = 1;
    for (const auto &c : kCases) {
        write(c.text);
        restart();
        if (!hindered(c.hindrance, [&] {
                for (int i = 0; i < 3; ++i) {
                    persist("b", big);
                }
                EXPECT_EQ(get("b"), big);
            })) {
            continue;
        }
        EXPECT_EQ(read() == c.text, c.stays) << c.text << c.line;
        EXPECT_TRUE(c.line.empty() || logged(c.line) == 1) << bus_->log();
        persist("c", "2");
        EXPECT_EQ(read(), c.written) << c.line;
        EXPECT_TRUE(c.aside.empty() || read(c.aside) == c.text) << c.aside;
        EXPECT_EQ(logged(", kept as " + file() + c.aside + "\n") == 1, !c.aside.empty());
        EXPECT_EQ(entries(home_), known += c.aside.empty() ? 0 : 1); // nothing else is left behind
    }
}

TEST_F(Keys, mode_link_and_name_of_the_file_stay_and_what_a_killed_process_left_goes) {
    home_ = dir_.file("h\xc3\xa4user \xe4\xb8\xad");
    restart();
    persist("a", "1"); // there is no home yet
    std::filesystem::create_directory(utf8Path(home_));
    std::error_code error;
    std::filesystem::create_symlink("target", utf8Path(file()), error); // leads nowhere yet
    persist("b", "2");
    EXPECT_EQ(read(), "{\n\t\"a\":\t1,\n\t\"b\":\t2\n}");
    if (error) {
        GTEST_SKIP() << "no links on this system";
    }
    const std::string target = home_ + "/target";
    const auto mode = [&] { return std::filesystem::status(target).permissions(); };
    EXPECT_EQ(mode(), std::filesystem::perms{0600});
    std::filesystem::permissions(target, std::filesystem::perms{0646});
    write("[2,3,4]");
    restart();
    const auto time = std::filesystem::last_write_time(target);
    EXPECT_EQ(get("a"), kNothing);
    write(R"({"a":7})"); // which is not seen
    std::filesystem::last_write_time(target, time);
    EXPECT_EQ(get("a"), kNothing);
    write(R"({"a":17})");
    EXPECT_EQ(get("a"), "17");
    write("[1]");
    for (const char *end : {"0123456789abcdef", "0123456789abcdeg"}) { // the second is another's
        std::ofstream{target + '.' + end + ".new"};
    }
    restart();
    persist("a", "3");
    EXPECT_EQ(mode(), std::filesystem::perms{0646});
    EXPECT_EQ(readFile(target) + readFile(target + ".bad"), "{\n\t\"a\":\t3\n}[1]");
    EXPECT_EQ(entries(home_), 4);
}

} // namespace
