#include "bus_log.h"
#include "platform/platform.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>

namespace {

using namespace std::chrono;

void write(const std::string &line) {
    BUS_LOG(3, line.size() % 2 == 0 ? "%s" : "%1s", line.c_str()); // the latter a longer way
}

class Log : public testing::Test {
protected:
    ~Log() override { bus::bus_log_exit(); }

    void open(int level = 0, int mode = 0, float kilobytes = 20000) const {
        bus::bus_log_init(level, path_.c_str(), mode, kilobytes / 1024);
    }
    // The file after these lines, from its opening to its closing.
    std::string written(const std::vector<std::string> &lines, int mode = 0,
                        float kilobytes = 20000) {
        open(0, mode, kilobytes);
        std::for_each(lines.begin(), lines.end(), write);
        bus::bus_log_exit();
        return text();
    }
    // What the file holds, of each line's head the level alone.
    std::string text() const {
        std::string all = readFile(path_);
        for (std::size_t at = 0; (at = all.find('[', at)) != all.npos;) {
            const char level = all[all.find("] ", at) - 1];
            all.replace(at, all.find('#', all.find('#', at) + 1) + 1 - at, {level, ' '});
        }
        return all;
    }
    const TempDir dir_;
    const std::string path_ = dir_.file("l\xc3\xb6g \xe4\xb8\xad"); // which is UTF-8
};

TEST_F(Log, line_carries_ids_time_and_source) {
    open();
    std::uint32_t thread = 0;
    time_point<system_clock, milliseconds> time;
    std::thread{[&] { // whose id is not the process's
        thread = platform::threadId();
        time = floor<milliseconds>(system_clock::now());
        bus::_bus_log(5, "src/a.cpp", 75, "f", "  %s, %3d, %9d, %d, %u\n", "Tag", 1, 23, 0, 4U);
    }}
        .join();
    char line[128] = "";
    for (; line != readFile(path_) && time <= system_clock::now(); time += 1ms) {
        const std::time_t local = system_clock::to_time_t(time + 8h);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::gmtime(&local));
        std::snprintf(line, sizeof line,
                      "[%05u:%05u]%s.%03d [E] src/a.cpp#  75#  Tag,   1,        23, 0, 4\n",
                      platform::processId(), thread, stamp,
                      static_cast<int>(time.time_since_epoch() / 1ms % 1000));
    }
    EXPECT_EQ(line, readFile(path_));
    EXPECT_EQ(bus::toTimeval(sys_days{year{2040} / 1 / 1}).tv_sec, 2208988800);
}

TEST_F(Log, threshold_drops_lines_and_evaluates_nothing) {
    BUS_LOG(5, "before the log is open");
    open(3);
    int evaluated = 0;
    BUS_LOG(2, "%d", ++evaluated);
    BUS_LOG(3, "%d", ++evaluated);
    BUS_LOG(6, "%d", ++evaluated);
    bus::bus_log_init(5, "", 1, 0.00001F); // open: only the level changes
    BUS_LOG(4, "dropped");
    BUS_LOG(5, "kept");
    bus::bus_log_exit();
    BUS_LOG(5, "after it is closed");
    EXPECT_EQ(text(), "I 1\n- 2\nE kept\n");
}

TEST_F(Log, text_is_cut_and_file_is_emptied_appended_to_or_begun_anew) {
    EXPECT_EQ(written({"a", "b"}, 0, 0), "I a\nI b\n");
    EXPECT_EQ(written({"c"}, 7, -1), "I a\nI b\nI c\n");
    written({""});
    const std::size_t head = readFile(path_).size();
    const std::string notice = "\nlog file size: ";
    const std::string anew = ", remove file:  " + path_ + "\n\nI next\n";
    EXPECT_EQ(written({"d", "next"}, 0, 1.0F / 1024), notice + std::to_string(head + 1) + anew);
    for (const std::size_t size : {1023U, 1024U, 4095U, 4096U, 9000U}) {
        const std::string text(size - head, 'x'); // a line of that size, of which the file has
        const std::size_t kept = std::min<std::size_t>(size, 4095);
        EXPECT_EQ(written({text + "\n"}), "I " + text.substr(0, kept - head) + "\n");
        EXPECT_EQ(written({text, "next"}, 0, 1),
                  size < 1024 ? "I " + text + "\nI next\n" : notice + std::to_string(kept) + anew);
    }
    std::ofstream{utf8Path(path_)}.seekp(std::int64_t{3} << 30).put('x'); // beyond 32 bits
    EXPECT_EQ(written({"next"}, 1, 2.5E6F), notice + "3221225473" + anew);
}

// Guards what a disk that fails takes.
TEST_F(Log, full_disk_is_told_once_and_logging_goes_on_after_it) {
    open(3);
    write(std::string(3000, 'f')); // standard error has room below that
    testing::internal::CaptureStderr();
    const bool possible = withFullDisk(3110, [] { // room for a part of a line
        for (int i = 0; i < 100; ++i) {
            write("dropped");
            BUS_LOG(5, "an error");
        }
        BUS_LOG(5, "another error");
    });
    write("after");
    write("and on");
    const std::string told = testing::internal::GetCapturedStderr() + readFile(path_);
    for (const char *once : {path_.c_str(), "#an error\n", "#another error\n",
                             "\nlog lines lost: 201\n\n[", "#after\n"}) {
        EXPECT_TRUE(!possible || count(told, once) == 1) << once << told;
    }
}

TEST_F(Log, standard_output_takes_what_no_file_takes) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    for (const std::string &path : {std::string{}, dir_.file("none/bus.log")}) {
        bus::bus_log_init(0, path.c_str(), 0, 1);
        write("a line");
        bus::bus_log_exit();
    }
    EXPECT_EQ(count(testing::internal::GetCapturedStdout(), "#a line\n"), 2U);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(count(told, "none/bus.log: ") == 1 && count(told, "\n") == 1) << told;
}

} // namespace
