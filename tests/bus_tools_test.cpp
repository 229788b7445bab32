#include "bus_tools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>

namespace bus {

TEST(Tools, clocks_count_within_the_hour_the_second_and_without_end) {
    using namespace std::chrono;
    const std::pair<milliseconds, long> kTimes[] = {
        {3599999ms, 3599999}, {3600000ms, 0}, {90062003ms, 62003}, {-1ms, 3599999}};
    for (const auto &[time, expected] : kTimes) {
        EXPECT_EQ(millsOfHour(system_clock::time_point{time}), expected);
    }
    EXPECT_LT(system_gettimestampmills(), 3600000);
    EXPECT_LT(bus_getstimeval(), 1000000U);
    const duration<double> seconds = steady_clock::now().time_since_epoch();
    EXPECT_NEAR(clock_gettimestamp(), seconds.count(), 60);
}

TEST(Tools, identifier_has_its_layout_and_no_more) {
    const char *const layout = "%*8[0-9a-f]-%*4[0-9a-f]-4%*1[0-9a-e]%*2[0-9a-f]-"
                               "%*1[89ab]%*1[0-9a-e]%*2[0-9a-f]-%*12[0-9a-f]%n#";
    for (int i = 0; i < 500; ++i) {
        std::string uuid(37, '#');
        bus_getuuid(uuid.data());
        int length = 0;
        std::sscanf(uuid.c_str(), layout, &length);
        EXPECT_EQ(length, 36) << uuid;
        EXPECT_EQ(uuid[36], '#');
    }
}

TEST(Tools, running_executable_is_found_by_name_in_any_case) {
    const std::filesystem::path program{testing::internal::GetArgvs().front()};
    std::string name = program.filename().string();
    EXPECT_EQ(check_progress(name.c_str()), 0);
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::toupper(c); });
    EXPECT_EQ(check_progress(name.c_str()), 0);
    EXPECT_EQ(check_progress(name.c_str() + 1), -1);
    EXPECT_EQ(check_progress(nullptr), -1);
    EXPECT_EQ(get_dir_size("."), -1);
}

TEST(Tools, sample_is_scaled_and_clipped) {
    const std::pair<float, int> kCases[] = {
        {98.5F, 10001},    {98, 10001}, {99, 10001}, {97, 10001},  {96, 5000},
        {99.5F, 15001},    {0, 0},      {-5, 0},     {100, 32767}, {HUGE_VALF, 32767},
        {std::nanf(""), 0}};
    for (const auto &[volume, out] : kCases) {
        short samples[] = {10001, -10001};
        EXPECT_EQ(volume_adjust(&samples[0], &samples[0], volume, 4), 0);
        EXPECT_EQ(volume_adjust(&samples[1], &samples[1], volume, 4), 0);
        EXPECT_EQ(samples[0], out) << volume;
        EXPECT_EQ(samples[1], out == 32767 ? -32768 : -out) << volume;
    }
}

} // namespace bus
