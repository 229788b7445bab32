// An input is a pattern, a zero byte, and the text in which it is searched.
#include "bus_mk_str.h"
#include "fuzz_support.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

// On the heap and as long as it needs to be, so that a byte read outside is seen.
class Text {
public:
    explicit Text(std::string_view bytes) : bytes_{std::make_unique<char[]>(bytes.size() + 1)} {
        std::copy(bytes.begin(), bytes.end(), bytes_.get());
    }
    const char *get() const { return bytes_.get(); }
    std::size_t size() const { return std::strlen(bytes_.get()); }

private:
    std::unique_ptr<char[]> bytes_;
};

struct Search {
    int found;
    bus_mk_str_result result;
};

// The record is filled before, so that what is left uncleared differs from run to run.
Search search(const Text &text, const Text &pattern, int fill) {
    Search done{};
    std::memset(&done.result, fill, sizeof done.result);
    done.found = bus_mk_str_find(text.get(), pattern.get(), &done.result);
    return done;
}

// Whether a search may take a power of the text's length with the number of its repeats.
bool mayTakeLong(std::string_view pattern, std::string_view text) {
    constexpr std::string_view kDigits = "0123456789";
    bool refers = false;
    for (std::size_t i = 1; i < pattern.size(); ++i) {
        refers |= pattern[i - 1] == '%' && kDigits.find(pattern[i]) != kDigits.npos;
    }
    const auto repeats = std::count_if(pattern.begin(), pattern.end(), [](char c) {
        return c == '*' || c == '+' || c == '-' || c == '?';
    });
    return refers && repeats > 1 && (repeats > 4 || text.size() > 64);
}

void checkMatch(const bus_mk_str_result &result, const Text &text) {
    const auto size = static_cast<std::ptrdiff_t>(text.size());
    REQUIRE(0 <= result.pos_start && result.pos_start <= size);
    REQUIRE(result.pos_start - 1 <= result.pos_end && result.pos_end < size);
    REQUIRE(0 <= result.captures && result.captures <= bus_mk_str_max_captures);
    for (int i = 0; i < result.captures; ++i) {
        const std::ptrdiff_t at = result.p[i] - text.get();
        REQUIRE(result.pos_start <= at && 0 <= result.len[i]);
        REQUIRE(at + result.len[i] <= result.pos_end + 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view input{reinterpret_cast<const char *>(data), size};
    const std::size_t split = std::min(input.find('\0'), size);
    const Text pattern{input.substr(0, split)};
    const Text text{input.substr(std::min(split + 1, size))};
    if (mayTakeLong(pattern.get(), text.get())) {
        return 0;
    }
    const Search first = search(text, pattern, 0x5a);
    const Search second = search(text, pattern, 0xa5);
    REQUIRE(first.found == second.found);
    REQUIRE(std::memcmp(&first.result, &second.result, sizeof first.result) == 0);
    REQUIRE(first.found == 0 || first.found == -1);
    if (first.found == 0) {
        checkMatch(first.result, text);
    } else {
        const bus_mk_str_result zeros{};
        REQUIRE(std::memcmp(&first.result, &zeros, sizeof zeros) == 0);
    }
    return 0;
}
