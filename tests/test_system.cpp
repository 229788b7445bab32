#include "test_system.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string_view>

namespace {

constexpr std::string_view kOption = "--child=";

} // namespace

std::string childArgument() {
    const std::string last = testing::internal::GetArgvs().back();
    return last.starts_with(kOption) ? last.substr(kOption.size()) : "";
}

void tellParent() {
    std::putchar(kTold);
    std::fflush(stdout);
}

std::vector<std::string> childCommand(const std::string &argument) {
    const testing::TestInfo &test = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string{test.test_suite_name()} + "." + test.name();
    return {testing::internal::GetArgvs().front(), "--gtest_filter=" + name,
            std::string{kOption} + argument};
}
