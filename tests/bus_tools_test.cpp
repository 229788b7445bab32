#include "bus_tools.h"
#include "test_system.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <set>
#include <string>
#include <utility>

namespace bus {
namespace {

TEST(Tools, milliseconds_count_within_the_hour) {
    using namespace std::chrono;
    using namespace std::chrono_literals;
    const auto noon = system_clock::time_point{sys_days{2024y / 5 / 6} + 12h};
    EXPECT_EQ(millsOfHour(noon + 59min + 59s + 999ms), 3599999);
    EXPECT_EQ(millsOfHour(noon + 1h), 0);
    EXPECT_EQ(millsOfHour(noon + 25h + 1min + 2s + 3ms + 900us), 62003);
    EXPECT_EQ(millsOfHour(system_clock::time_point{-1ms}), 3599999);
    const long before = millsOfHour(system_clock::now());
    const long passed = (system_gettimestampmills() - before + 3600000) % 3600000;
    EXPECT_LT(passed, 60000);
}

TEST(Tools, fraction_of_the_second_stays_below_a_million_and_follows_the_clock) {
    const auto before = std::fmod(clock_gettimestamp(), 1.0) * 1e6;
    const unsigned int fraction = bus_getstimeval();
    const auto after = std::fmod(clock_gettimestamp(), 1.0) * 1e6 + 1000;
    EXPECT_LT(fraction, 1000000u);
    EXPECT_TRUE(before > after || (fraction + 1 >= before && fraction <= after));
}

TEST(Tools, identifier_has_its_layout_and_no_more) {
    const char *const layout = "%*8[0-9a-f]-%*4[0-9a-f]-4%*1[0-9a-e]%*2[0-9a-f]-"
                               "%*1[89ab]%*1[0-9a-e]%*2[0-9a-f]-%*12[0-9a-f]%n";
    std::set<char> variants;
    for (int i = 0; i < 2000; ++i) {
        char uuid[38] = {};
        uuid[36] = '#';
        bus_getuuid(uuid);
        int length = 0;
        std::sscanf(uuid, layout, &length);
        ASSERT_EQ(length, 36) << uuid;
        ASSERT_EQ(uuid[36], '#');
        variants.insert(uuid[19]);
    }
    EXPECT_EQ(variants, (std::set<char>{'8', '9', 'a', 'b'}));
}

TEST(Tools, running_executable_is_found_by_name_in_any_case) {
    const std::filesystem::path program{testing::internal::GetArgvs().front()};
    std::string name = program.filename().string();
    EXPECT_EQ(check_progress(name.c_str()), 0);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    EXPECT_EQ(check_progress(name.c_str()), 0);
    name.pop_back();
    EXPECT_EQ(check_progress(name.c_str()), -1);
    EXPECT_EQ(check_progress(""), -1);
    EXPECT_EQ(check_progress(nullptr), -1);
}

TEST(Tools, missing_process_list_is_told) {
    int result = 0;
    testing::internal::CaptureStdout();
    const bool ran = withoutFiles([&] { result = check_progress("init"); });
    const std::string out = testing::internal::GetCapturedStdout();
    if (!ran) {
        GTEST_SKIP() << "nothing keeps this system from listing its processes";
    }
    EXPECT_EQ(out, "CreateToolhelp32Snapshot()调用失败!");
    EXPECT_EQ(result, -1);
}

int scaled(short sample, float volume, int value) {
    short samples[] = {sample, 99};
    EXPECT_EQ(volume_adjust(samples, samples, volume, value), 0);
    EXPECT_EQ(samples[1], 99);
    return samples[0];
}

TEST(Tools, sample_is_scaled_and_clipped) {
    const std::pair<float, int> kCases[] = {{98.5F, 1001},     {98.0F, 1001},   {99.0F, 1001},
                                            {97.0F, 1001},     {96.0F, 500},    {99.5F, 1501},
                                            {0.0F, 0},         {-5.0F, 0},      {100.0F, 2002},
                                            {HUGE_VALF, 2002}, {-HUGE_VALF, 0}, {std::nanf(""), 0}};
    for (const auto &[volume, out] : kCases) {
        EXPECT_EQ(scaled(1001, volume, 2), out) << volume;
        EXPECT_EQ(scaled(-1001, volume, 2), -out) << volume;
    }
    EXPECT_EQ(scaled(20000, 100, 2), 32767);
    EXPECT_EQ(scaled(-20000, 100, 2), -32768);
    EXPECT_EQ(scaled(1, std::nextafter(98.0F, 0.0F), 2), 32767);
    EXPECT_EQ(scaled(1, 100, std::numeric_limits<int>::min()), -32768);
}

} // namespace
} // namespace bus
