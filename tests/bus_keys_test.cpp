// The key store through the public header: what a get finds, and what becomes of the file.
#include "running.h"

#include <gtest/gtest.h>

namespace {

using std::filesystem::permissions;
using std::filesystem::perms;

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
    std::string ask(const std::string &key, const std::string &payload) {
        return node_->call("/localKeys/" + key, payload);
    }
    std::string get(const std::string &key) { return ask(key, R"({"operation":"get"})"); }
    void persist(const std::string &key, const std::string &value) {
        ask(key, R"({"operation":"set","data":)" + value + R"(,"persist":"true"})");
    }
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
    const std::tuple<std::string, std::string, std::string> kCases[] = {
        {"volume", "", kNothing}, // no store yet
        {"volume", R"({"operation":"set","data":30})", "30"},
        {"VOLUME", R"({"operation":"settings","data":5})", "5"},
        {"volume", R"({"operation":"SET","data":2})", "5"},
        {"volume", R"({"operation":"set","data":null,"persist":true})", "null"},
        {"", R"({"operation":"set","data":"a\"b","persist":"no"})", R"("a\"b")"},
        {"deep/er", R"({"operation":"set","data":{"x":[1]}})", "{\n\t\"x\":\t[1]\n}"},
        {std::string(3000, 'k'), R"({"operation":"set","data":true})", "true"}};
    for (const auto &[key, payload, got] : kCases) {
        EXPECT_EQ(ask(key, payload), kNothing) << payload;
        EXPECT_EQ(get(key), got) << payload;
    }
    EXPECT_EQ(logged("not exist, file: " + file() + "\n"), 3U); // until there was a store
    EXPECT_EQ(node_->call("/local/volume", R"({"operation":"get"})"), "null");
    EXPECT_TRUE(std::filesystem::is_empty(home_));
    write(R"({"came":"after the store"})");
    persist("other", "1");
    EXPECT_TRUE(count(read(), "\"volume\"") == 1 && !says(read(), "came")) << read();
}

bool asEver(const Body &body) {
    body();
    return true;
}

TEST_F(Keys, file_is_taken_over_set_aside_or_left_until_its_hindrance_has_gone) {
    const std::string big = '"' + std::string(4000, 'b') + '"';
    const std::string old = R"({"a":1})";
    const std::string fresh = "{\n\t\"b\":\t" + big + ",\n\t\"c\":\t2\n}";
    const std::string both = "{\n\t\"a\":\t1," + fresh.substr(1);
    std::ptrdiff_t files = 1;
    // by: false where this system can't. line: what is logged once. stays: what the file holds,
    // until it may be written. home, mode: of directory and file, which root does not mind.
    const auto persists = [&](const std::string &text, const std::string &written,
                              const std::string &aside = "", bool (*by)(const Body &) = asEver,
                              const char *line = "", bool stays = false, unsigned home = 0755,
                              unsigned mode = 0666) {
        write(text);
        restart();
        permissions(home_, perms{home});
        permissions(file(), perms{mode});
        if (!by([&] {
                for (int i = 0; i < 3; ++i) {
                    persist("b", big);
                }
                EXPECT_EQ(get("b"), big);
            })) {
            return;
        }
        EXPECT_EQ(read() == text, stays) << text << line;
        EXPECT_TRUE(*line == '\0' || logged(line) == 1) << line << bus_->log();
        persist("c", "2");
        EXPECT_EQ(read(), written) << line;
        EXPECT_TRUE(aside.empty() || read(aside) == text) << aside;
        EXPECT_EQ(logged(" is no key store, "), aside.empty() ? 0U : 2U);
        files += aside.empty() ? 0 : 1; // and nothing else is left behind
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator{home_}, {}), files);
    };
    persists(R"({"a":1,"B":5,"b":4})", both);
    persists("", fresh); // holds nothing to keep
    persists("1", fresh, ".bad");
    persists("{\"cut\":", fresh, ".bad.1");
    persists(old + std::string(" more\0{}", 8), both);
    const auto onFullDisk = [](const Body &body) { return withFullDisk(3000, body); };
    persists(old, both, "", onFullDisk, "write localKeys error, file: ", true);
    persists(old, both, "", asNobody, "is not read, and left as it is", true, 0755, 0200);
    persists(old, both, "", asNobody, "can't be replaced as a whole");
    persists(old, both, "", asNobody, "can't be replaced as a whole", false, 01777);
    persists("[1]", fresh, ".bad.2", asNobody, "can't be set aside", true);
    persists("[1]", fresh, ".bad.3", asNobody, "is not written", true, 01777);
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
    EXPECT_EQ(std::filesystem::status(target).permissions(), perms{0600});
    permissions(target, perms{0646});
    write("[2,3,4]");
    restart();
    EXPECT_EQ(get("a"), kNothing);
    write(R"({"a":17})");
    EXPECT_EQ(get("a"), "17");
    write("[1]");
    std::ofstream{target + ".0123456789abcdef.new"};
    std::ofstream{target + ".another's.new"};
    restart();
    persist("a", "3");
    EXPECT_EQ(std::filesystem::status(target).permissions(), perms{0646});
    EXPECT_EQ(readFile(target) + readFile(target + ".bad"), "{\n\t\"a\":\t3\n}[1]");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator{home_}, {}), 4);
    std::filesystem::remove(target);
    std::filesystem::create_symlink("/sys/kernel/uevent_seqnum", target, error);
    restart();
    persist("a", "4");
    persist("a", "5");
    EXPECT_EQ(logged("is not read to its end"), std::filesystem::exists(target) ? 1U : 0U);
}

} // namespace
