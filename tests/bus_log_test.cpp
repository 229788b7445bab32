#include "bus_log.h"
#include "test_support.h"
#include "test_system.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

class Log : public testing::Test {
protected:
    ~Log() override { bus::bus_log_exit(); }
    void open(int level, float size = 20, int mode = 0) {
        bus::bus_log_init(level, path_.c_str(), mode, size);
    }
    std::string text() const { return readFile(path_); }
    TempDir dir_;
    const std::string path_ = dir_.file("bus.log");
};

// The line as it has to be, with the milliseconds that it has itself.
std::string expectedLine(const std::string &line, char level, const std::string &source) {
    int ms = -1;
    std::sscanf(line.c_str(), "[%*d:%*d]%*d-%*d-%*d %*d:%*d:%*d.%3d", &ms);
    using std::chrono::system_clock; // std::time() may still give the second before
    const std::time_t now = system_clock::to_time_t(system_clock::now()) + 8 * 3600;
    std::string expected;
    for (std::time_t time = now; time >= now - 1 && expected != line; --time) {
        char stamp[32]; // the second may have ended since
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::gmtime(&time));
        char head[128];
        std::snprintf(head, sizeof head, "[%05u:%05u]%s.%03d [%c] ", ownProcessId(), ownThreadId(),
                      stamp, ms, level);
        expected = head + source;
    }
    return expected;
}

TEST_F(Log, line_carries_ids_time_level_and_source) {
    const std::string levels = "-VDIWE-";
    for (std::size_t level = 0; level < levels.size(); ++level) {
        open(0);
        bus::_bus_log(static_cast<int>(level), "src/a.cpp", 75, "f", "  %s, %s\n", "Tag", "1");
        EXPECT_EQ(text(), expectedLine(text(), levels[level], "src/a.cpp#  75#  Tag, 1\n"));
        bus::bus_log_exit();
    }
    open(0);
    BUS_LOG(3, "  from the macro");
    std::string number = std::to_string(__LINE__ - 1);
    number.insert(0, 4 - number.size(), ' ');
    const std::string source = "tests/bus_log_test.cpp#" + number;
    EXPECT_EQ(text(), expectedLine(text(), 'I', source + "#  from the macro\n"));
    using namespace std::chrono;
    const auto late = bus::toTimeval(sys_days{year{2040} / 1 / 1} + milliseconds{1500});
    EXPECT_EQ(late.tv_sec, 2208988801);
    EXPECT_EQ(late.tv_usec, 500000);
}

TEST_F(Log, threshold_drops_lines_and_evaluates_nothing) {
    BUS_LOG(5, "before the log is open");
    open(2);
    int evaluated = 0;
    for (int level = 0; level <= 5; ++level) {
        BUS_LOG(level, "level %d, %d", level, ++evaluated);
    }
    EXPECT_EQ(evaluated, 4);
    bus::bus_log_init(5, dir_.file("other.log").c_str(), 0, 1); // open: only the level changes
    BUS_LOG(4, "dropped");
    BUS_LOG(5, "kept");
    bus::bus_log_exit();
    BUS_LOG(5, "after it is closed");
    EXPECT_EQ(count(text(), "\n"), 5U);
    EXPECT_TRUE(says(text(), "#level 5, 4\n") && text().ends_with("#kept\n"));
    EXPECT_FALSE(std::filesystem::exists(dir_.file("other.log")));
}

TEST_F(Log, text_is_cut_at_the_budget_and_ends_in_one_line_feed) {
    std::size_t head = 0;
    for (const std::size_t size :
         {0U, 4094U, 4095U, 4096U, 9000U}) { // of the line without line feed
        for (const char *end : {"", "\n"}) {
            open(0);
            const std::string wanted = std::string(size < head ? 0 : size - head, 'x') + end;
            bus::_bus_log(3, "f.cpp", 100, "", "%s", wanted.c_str());
            bus::bus_log_exit();
            head = size == 0 ? text().size() - 1 : head;
            EXPECT_EQ(text().size(), std::clamp<std::size_t>(size, head, 4094) + 1) << size;
            EXPECT_EQ(text().find('\n'), text().size() - 1);
        }
    }
}

TEST_F(Log, file_is_emptied_appended_to_or_begun_anew_when_it_is_full) {
    const std::string filler(1200, 'f');
    const std::string path = dir_.file("l\xc3\xb6g \xe4\xb8\xad"); // the path is UTF-8
    const auto write = [&](float size, int mode, const std::vector<std::string> &lines) {
        bus::bus_log_init(0, path.c_str(), mode, size);
        for (const std::string &line : lines) {
            BUS_LOG(3, "%s", line.c_str());
        }
        bus::bus_log_exit();
        return readFile(path);
    };
    for (const auto &[mode, lines] : {std::pair{0, 1U}, {1, 2U}, {7, 3U}, {0, 1U}}) {
        EXPECT_EQ(count(write(20, mode, {"x"}), "\n"), lines) << mode;
    }
    constexpr float kSize = 0.001F; // 1048 bytes
    const std::size_t length = write(kSize, 0, {filler}).size();
    const std::string begin =
        "\nlog file size: " + std::to_string(length) + ", remove file:  " + path + "\n\n[";
    for (const std::string &anew : {write(kSize, 1, {"next"}), // what was there counts
                                    write(kSize, 0, {filler, "next"})}) {
        EXPECT_TRUE(anew.starts_with(begin) && anew.ends_with("#next\n")) << anew;
    }
    std::ofstream{utf8Path(path), std::ios::binary}
        .seekp(std::int64_t{3} << 30)
        .put('\n'); // beyond 32 bits
    EXPECT_TRUE(write(3072, 1, {"next"}).starts_with("\nlog file size: 3221225473, remove"));
    for (const float never : {0.0F, -1.0F}) {
        EXPECT_GT(write(never, 0, {filler, "x"}).size(), length);
    }
}

TEST_F(Log, standard_output_takes_what_no_file_takes) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const std::string missing = dir_.file("none/bus.log");
    for (const char *path : {static_cast<const char *>(nullptr), "", missing.c_str()}) {
        bus::bus_log_init(0, path, 0, 1);
        BUS_LOG(3, "out");
        bus::bus_log_exit();
    }
    open(0, 0.001F);
    BUS_LOG(3, "%s", std::string(1200, 'f').c_str());
    std::error_code inUse; // Windows leaves a file that is open
    const bool removed = std::filesystem::remove(path_, inUse);
    std::filesystem::create_directories(path_ + "/in the way", inUse);
    BUS_LOG(3, "out");
    EXPECT_EQ(count(testing::internal::GetCapturedStdout(), "#out\n"), removed ? 4U : 3U);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count(told, "zelvo: log " + missing + ": "), 1U) << told;
    EXPECT_EQ(count(told, path_ + ": "), removed ? 1U : 0U) << told;
}

TEST_F(Log, full_disk_is_told_once_and_logging_goes_on_after_it) {
    open(3);
    BUS_LOG(3, "%s", std::string(3000, 'f').c_str()); // standard error has room below that
    testing::internal::CaptureStderr();
    bool possible = true;
    for (int outage = 0; outage < 2; ++outage) {
        possible = withFullDisk(text().size() + 10, [] { // room for a part of a line
            for (int i = 0; i < 100; ++i) {
                BUS_LOG(3, "dropped");
                BUS_LOG(5, "an error");
            }
            BUS_LOG(5, "another error");
        });
        BUS_LOG(3, "after");
    }
    const std::string told = testing::internal::GetCapturedStderr();
    if (!possible) {
        GTEST_SKIP() << "this system can't be given a full disk";
    }
    EXPECT_EQ(count(told, "zelvo: log " + path_ + ": "), 1U) << told;
    EXPECT_EQ(count(told, "#an error\n"), 2U) << told;
    EXPECT_EQ(count(told, "#another error\n"), 2U) << told;
    EXPECT_EQ(count(told, "\n"), 5U) << told;
    EXPECT_EQ(count(text(), "\nlog lines lost: 201\n\n["), 2U) << text();
    EXPECT_EQ(count(text(), "#after\n"), 2U);
    EXPECT_EQ(count(text(), "#dropped"), 0U);
}

// Guards the one lock.
TEST_F(Log, lines_of_threads_never_interleave) {
    open(0);
    const std::string filler(300, 'f');
    inThreads(4, [&](int) {
        for (int i = 0; i < 200; ++i) {
            BUS_LOG(3, "<%s>", filler.c_str());
        }
    });
    EXPECT_EQ(count(text(), "\n"), 800U);
    EXPECT_EQ(count(text(), "#<" + filler + ">\n"), 800U);
}

} // namespace
