#include "bus_tools.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>

namespace bus {

TEST(Tools, clocks_count_within_the_hour_the_second_and_without_end) {
    using namespace std::chrono;
    EXPECT_EQ(millsOfHour(system_clock::time_point{-1ms}), 3599999);
    EXPECT_EQ(millsOfHour(system_clock::time_point{90062003ms}), 62003);
    EXPECT_LT(bus_getstimeval(), 1000000U);
    const duration<double> seconds = steady_clock::now().time_since_epoch();
    EXPECT_NEAR(clock_gettimestamp(), seconds.count(), 60);
}

TEST(Tools, identifier_has_its_layout_and_no_more) {
    const char *const layout = "%*8[0-9a-f]-%*4[0-9a-f]-4%*1[0-9a-e]%*2[0-9a-f]-"
                               "%*1[89ab]%*1[0-9a-e]%*2[0-9a-f]-%*12[0-9a-f]%n#";
    for (int i = 0; i < 500; ++i) {
        std::string uuid(37, '#');
        int length = 0;
        bus_getuuid(uuid.data());
        std::sscanf(uuid.c_str(), layout, &length);
        EXPECT_TRUE(length == 36 && uuid[36] == '#') << uuid;
    }
}

TEST(Tools, running_executable_is_found_by_name_in_any_case) {
    std::string name = std::filesystem::path{testing::internal::GetArgvs()[0]}.filename().string();
    name.replace(0, 5, "ZELvo");
    EXPECT_EQ(check_progress(name.c_str()), 0);
    EXPECT_EQ(check_progress(name.c_str() + 1) + check_progress(nullptr) + get_dir_size("."), -3);
}

TEST(Tools, sample_is_scaled_and_clipped) {
    const std::pair<float, int> kCases[] = {{98.5F, -10001}, {98, -10001},    {99, -10001},
                                            {96, -5000},     {99.5F, -15001}, {0, 0},
                                            {100, -32768},   {101, 32767},    {std::nanf(""), 0}};
    for (const auto &[volume, out] : kCases) {
        short sample = -10001;
        EXPECT_EQ(volume_adjust(&sample, &sample, volume, volume > 100 ? -4 : 4), 0);
        EXPECT_EQ(sample, out) << volume;
    }
}

} // namespace bus
