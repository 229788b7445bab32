// Texts for the C functions: what has to end with a NUL, the JSON that they read, and the answers
// that they free.
#ifndef ZELVO_DETAIL_TEXT_HPP
#define ZELVO_DETAIL_TEXT_HPP

#include "system.hpp"

#include <charconv>
#include <climits>
#include <cstring>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace zelvo {

namespace detail {

// An argument. Out of line, as there are such arguments in all that users call.
[[noreturn]] ZELVO_RARE inline void refuse(const char *why) {
    throw std::invalid_argument(why);
}

} // namespace detail

// A topic, an address or a name as an argument: a text that ends with a NUL and holds no other.
// Made from a literal or a std::string, which are only looked at, or from a view, which is copied.
// Throws std::invalid_argument for a null pointer and where there is a NUL inside, at which the bus
// would cut it.
class CText {
public:
    CText(const char *text) : text_{text} {
        if (!text) {
            detail::refuse("zelvo: a text is missing");
        }
    }
    CText(const std::string &text) : text_{text.c_str()} { check(text.size()); }
    CText(std::string_view text) : copy_{text}, text_{copy_.c_str()} { check(text.size()); }
    CText(const CText &) = delete;
    CText &operator=(const CText &) = delete;
    ~CText() = default;
    const char *c_str() const noexcept { return text_; }

private:
    void check(std::size_t size) const {
        if (std::strlen(text_) != size) {
            detail::refuse("zelvo: a NUL within a topic, an address or a name");
        }
    }

    const std::string copy_;
    const char *text_;
};

namespace detail {

// Contiguous bytes of whatever type; what is a text already goes its own way.
template <class Bytes>
using IfBytes =
    std::enable_if_t<!std::is_convertible_v<const Bytes &, std::string_view> &&
                     sizeof(*std::data(std::declval<const Bytes &>())) == 1 &&
                     std::is_trivially_copyable_v<std::remove_reference_t<decltype(*std::data(
                         std::declval<const Bytes &>()))>>>;
template <class Text>
using IfText = std::enable_if_t<std::is_convertible_v<const Text &, std::string_view>>;

template <class Bytes>
std::string_view viewOf(const Bytes &bytes) noexcept {
    return {reinterpret_cast<const char *>(std::data(bytes)), std::size(bytes)};
}
// A text of char8_t, as u8"..." is from C++20 on; in C++17 it is one of char.
template <class Character, std::size_t Size>
std::string_view viewOf(const Character (&text)[Size]) noexcept {
    const std::string_view all{reinterpret_cast<const char *>(text), Size};
#if defined(__cpp_char8_t)
    return std::is_same_v<Character, char8_t> ? all.substr(0, all.find('\0')) : all;
#else
    return all;
#endif
}

} // namespace detail

// What a message carries, as an argument: it looks at a text, or at any contiguous bytes:
// std::vector<std::byte>, std::array<unsigned char, 4>, std::span. Throws std::invalid_argument for
// a null pointer.
class DataView {
public:
    DataView() = default;
    DataView(std::nullptr_t) = delete;
    DataView(const char *text) : data_{CText{text}.c_str()} {}
    DataView(const char *data, std::size_t size) : data_{data, size} {
        if (!data && size > 0) {
            detail::refuse("zelvo: data is missing");
        }
    }
    template <class Text, class = detail::IfText<Text>>
    DataView(const Text &text) : data_{text} {}
    template <class Bytes, class = detail::IfBytes<Bytes>, class = void>
    DataView(const Bytes &bytes) noexcept : data_{detail::viewOf(bytes)} {}
    operator std::string_view() const noexcept { return data_; }
    const char *data() const noexcept { return data_.data(); }

private:
    std::string_view data_;
};

namespace detail {

template <class Value>
using IfNoData = std::enable_if_t<!std::is_convertible_v<const Value &, DataView>>;

[[noreturn]] ZELVO_RARE inline void refuseLength() {
    throw std::length_error("zelvo: more data than a message can hold");
}
// The length as the C functions take it.
inline int lengthOf(std::string_view data) {
    if (data.size() > static_cast<std::size_t>(INT_MAX)) {
        refuseLength();
    }
    return static_cast<int>(data.size());
}

// ---- what a call handler gives ----

// Null where memory is short.
inline char *answerText(std::string_view text) {
    if (text.find('\0') != text.npos) {
        refuse("zelvo: a NUL within an answer");
    }
    auto *const copy = static_cast<char *>(libraryMalloc(text.size() + 1));
    if (copy) {
        text.copy(copy, text.size());
        copy[text.size()] = '\0';
    }
    return copy;
}

template <class Value>
struct IsOptional : std::false_type {};
template <class Value>
struct IsOptional<std::optional<Value>> : std::true_type {
    using Inside = Value;
};

template <class Value>
constexpr bool isAnswer() {
    if constexpr (IsOptional<Value>::value) {
        return isAnswer<typename IsOptional<Value>::Inside>();
    } else if constexpr (std::is_void_v<Value>) {
        return true;
    } else {
        return !std::is_null_pointer_v<Value> &&
               (std::is_arithmetic_v<Value> ||
                std::is_convertible_v<const Value &, std::string_view> ||
                std::is_convertible_v<const Value &, std::string>);
    }
}

template <class Number>
char *answerNumber(Number value) {
    char text[48]; // enough for the shortest form of any number, of 128 bits too
    const char *const end = std::to_chars(text, text + sizeof text, value).ptr;
    return answerText({text, static_cast<std::size_t>(end - text)});
}

// The answer that the library frees; null for none.
template <class Value>
char *answerOf(const Value &value) {
    if constexpr (IsOptional<Value>::value) {
        return value ? answerOf(*value) : nullptr;
    } else if constexpr (std::is_pointer_v<Value>) {
        return value ? answerText(value) : nullptr;
    } else if constexpr (std::is_convertible_v<const Value &, std::string_view>) {
        return answerText(value);
    } else if constexpr (std::is_same_v<Value, bool>) {
        return answerText(value ? "true" : "false");
    } else if constexpr (std::is_same_v<Value, char>) {
        return answerText({&value, 1});
    } else if constexpr (std::is_arithmetic_v<Value>) {
        return answerNumber(value);
    } else {
        return answerText(static_cast<std::string>(value));
    }
}

// ---- JSON, written ----

// Bytes from 0x80 on stay as they are.
inline void appendJson(std::string &json, std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    json += '"';
    for (const char c : text) {
        const auto code = static_cast<unsigned char>(c);
        const char coded[] = {'\\', 'u', '0', '0', digits[(code >> 4U) & 1U], digits[code & 15U]};
        const char marked[] = {'\\', c};
        const std::string_view one{marked, 2};
        json += code < 0x20             ? std::string_view{coded, sizeof coded}
                : c == '"' || c == '\\' ? one
                                        : one.substr(1);
    }
    json += '"';
}

// To an array, or to "" for one that has none.
inline void appendItem(std::string &array, const std::string &text) {
    if (array.empty()) {
        array += '[';
    } else {
        array.back() = ',';
    }
    appendJson(array, CText{text}.c_str());
    array += ']';
}
inline std::string jsonArray(const std::vector<std::string> &texts) {
    std::string array;
    for (const std::string &text : texts) {
        appendItem(array, text);
    }
    return array.empty() ? "[]" : array;
}

} // namespace detail
} // namespace zelvo

#endif
