// The names of the files that replaceFile writes beside a file before they take its name.
#ifndef ZELVO_PLATFORM_BESIDE_H
#define ZELVO_PLATFORM_BESIDE_H

#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <string>
#include <string_view>

namespace platform {

inline constexpr std::string_view kBesideEnd = ".new";
inline constexpr std::size_t kBesideDigits = 16;

// How often another name is tried where one is taken or the file has been removed meanwhile.
inline constexpr int kBesideAttempts = 16;

// A name that this process has not used before: path, ".", the process and a number, ".new".
inline std::string besideName(const std::string &path) {
    static std::atomic<std::uint32_t> number{0};
    std::array<char, kBesideDigits + 1> digits{};
    std::snprintf(digits.data(), digits.size(), "%08x%08x", processId(), ++number);
    return path + '.' + digits.data() + std::string{kBesideEnd};
}

// Whether name, without directory, is such a name of the file base.
inline bool isBesideName(std::string_view name, std::string_view base) noexcept {
    if (name.size() != base.size() + 1 + kBesideDigits + kBesideEnd.size() ||
        !name.starts_with(base) || name[base.size()] != '.' || !name.ends_with(kBesideEnd)) {
        return false;
    }
    const std::string_view digits = name.substr(base.size() + 1, kBesideDigits);
    return std::all_of(digits.begin(), digits.end(),
                       [](unsigned char c) { return std::isxdigit(c) != 0; });
}

} // namespace platform

#endif
