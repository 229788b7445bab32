// A bus whose log or key store lies on a disk that takes nothing: it goes on, and says why.
#include "running.h"
#include "test_system.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

const std::string kStored = "{\"data\":\"\"}";

// A bus, and a node that asks it.
class AskedBus {
public:
    AskedBus(const std::string &log, const std::string &home)
        : bus_{3, R"(,"path":")" + log + R"(","homePath":")" + home + '"'} {}

    std::string ask(const char *url, const std::string &data) { return node_.call(url, data); }
    std::string set(const std::string &value, const char *persist = "true") {
        return ask("/localKeys/k", R"({"operation":"set","persist":")" + std::string{persist} +
                                       R"(","data":)" + value + "}");
    }
    std::string get() { return ask("/localKeys/k", R"({"operation":"get"})"); }

private:
    Bus bus_;
    Node node_{bus_, "node"};
};

class BrokenDisk : public testing::Test {
protected:
    BrokenDisk() { std::ofstream{dir_.file("file")} << "no directory"; }

    TempDir dir_;
    const std::string log_ = dir_.file("bus.log");
    const std::string noHome_ = dir_.file("file/home"); // no rights help there, not even root's
};

TEST_F(BrokenDisk, every_key_request_is_answered_and_the_reason_is_said) {
    const std::string kFull = fullDevice(); // where there is none its cases are left out
    const struct {
        std::string log, home;
    } kCases[] = {
        {log_, noHome_},  {log_, kFull},  {kFull, dir_.path()},
        {kFull, noHome_}, {kFull, kFull}, {dir_.file("file/bus.log"), noHome_},
    };
    for (const auto &c : kCases) {
        if (c.log.empty() || c.home.empty()) {
            continue;
        }
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        for (const int start : {1, 2}) {
            AskedBus bus{c.log, c.home};
            const bool kept = start == 2 && c.home == dir_.path();
            EXPECT_EQ(bus.get(), kept ? "30" : kStored) << c.home;
            for (int value = 1; value <= 30; ++value) {
                EXPECT_EQ(bus.set(std::to_string(value), value % 2 == 0 ? "true" : "no"), kStored);
                EXPECT_EQ(bus.get(), std::to_string(value));
            }
            EXPECT_TRUE(says(bus.ask("/bus/nodes", ""), "\"node\""));
        }
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string error = testing::internal::GetCapturedStderr();
        const std::string log = c.log == log_ ? readFile(log_) : c.log == kFull ? error : out;
        const bool homeBroken = c.home != dir_.path();
        EXPECT_EQ(says(log, "fopen failed, file: " + c.home + "/keys.json\n"), homeBroken) << log;
        EXPECT_EQ(says(error, "zelvo: log " + c.log + ": "), c.log != log_) << error;
        EXPECT_LE(count(error, "\n"), 4U) << error; // not one for each line that is lost
    }
}

TEST_F(BrokenDisk, store_is_kept_on_a_full_disk_and_written_after_it) {
    const std::string filler(4000, 'f');
    AskedBus bus{log_, dir_.path()};
    EXPECT_EQ(bus.set("1"), kStored);
    const std::string before = readFile(dir_.file("keys.json"));
    std::string answer;
    std::string value;
    const auto files = entries(dir_.path());
    const bool possible = withFullDisk(2000, [&] { // the log has room
        answer = bus.set("\"" + filler + "\"");
        value = bus.get();
    });
    if (!possible) {
        GTEST_SKIP() << "this system can't be given a full disk";
    }
    EXPECT_EQ(answer, kStored);
    EXPECT_EQ(value, "\"" + filler + "\"");
    EXPECT_EQ(entries(dir_.path()), files);
    EXPECT_EQ(readFile(dir_.file("keys.json")), before);
    EXPECT_TRUE(says(readFile(log_), "write localKeys error, file: " + dir_.file("keys.json")));
    EXPECT_EQ(bus.set("2"), kStored);
    EXPECT_EQ(readFile(dir_.file("keys.json")), "{\n\t\"k\":\t2\n}");
}

TEST_F(BrokenDisk, home_that_comes_back_is_written_whole) {
    AskedBus bus{log_, noHome_};
    EXPECT_EQ(bus.set("1"), kStored);
    std::filesystem::remove(dir_.file("file"));
    std::filesystem::create_directories(noHome_);
    EXPECT_EQ(bus.ask("/localKeys/other", R"({"operation":"set","persist":"true","data":2})"),
              kStored);
    EXPECT_EQ(readFile(noHome_ + "/keys.json"), "{\n\t\"k\":\t1,\n\t\"other\":\t2\n}");
}

} // namespace
