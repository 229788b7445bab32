// Topics and services that know the types of what travels, and how a value becomes bytes. Included
// by zelvo/bus.hpp; its functions for nodes are zelvo::Node's.
#ifndef ZELVO_CODEC_HPP
#define ZELVO_CODEC_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Zelvo for C++ needs C++17 (-std=c++17); before that there is zelvo/bus_client.h"
#else

#include "types.hpp"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace zelvo {

// A topic whose messages are values of one type. Declared once and shared by both sides:
//     inline constexpr zelvo::Topic<Reading> temperature{"room.temperature"};
// Nobody keeps others from using the bare name; what then does not decode reaches no handler.
template <class Value>
class Topic {
    static_assert(!std::is_void_v<Value>, "zelvo: a topic without values has an empty struct");

public:
    constexpr explicit Topic(const char *name) noexcept : name_{name} {} // lives as long as this
    constexpr const char *name() const noexcept { return name_; }

private:
    const char *name_;
};

// Calls of "/node/path" that ask with a value of one type and answer with one of another.
template <class Question, class Reply>
class Service {
    static_assert(!std::is_void_v<Question> && !std::is_void_v<Reply>,
                  "zelvo: a service that asks or answers nothing has an empty struct");

public:
    constexpr explicit Service(const char *url) noexcept : url_{url} {} // lives as long as this
    constexpr const char *url() const noexcept { return url_; }

private:
    const char *url_;
};

// How a value travels, found by its type. One of your own has two static functions:
//     template <> struct zelvo::Codec<Mine> {
//         // The bytes, which may lie in value or in space.
//         static std::string_view encode(const Mine &value, std::string &space);
//         // Nothing, or an exception: they are no such value.
//         static std::optional<Mine> decode(std::string_view bytes);
//     };
// Every part of the program has to see the same one. There are:
//   std::string, std::string_view  the bytes as they are; a view is good until the handler returns
//   numbers, enums, bool           as text, "21.5", "true": the shortest that is read back the same
//   trivially copyable types       their bytes as they lie in memory: the padding too, whatever it
//                                  holds, and the order of bytes of this machine; their size is
//                                  checked, and nothing else: both sides must be of one build, and
//                                  pointers inside mean what they mean here. Up to 256 kB: they
//                                  come through the stack of a thread. A std::array of them
//                                  likewise, and of numbers, but of bool; and a std::vector, of
//                                  which only that the bytes are a multiple is checked.
//   std::vector, std::array        of other types with one of these, or where those above have a
//                                  codec of your own: each behind its length, which is 4 bytes in
//                                  this machine's order
//   what JSON can be made of       with zelvo/json.hpp
// Answers to calls end at a NUL. So in an answer of a service the byte 0 travels as the two bytes
// 1 1, the byte 1 as 1 2, and 1 3 stands for nothing; it is at the beginning of an answer that
// would look like one of the bus's refusals. A text without these bytes is what a caller in C
// reads.
template <class Value, class = void>
struct Codec {
    static std::string_view encode(const Value & /*value*/, std::string &space) {
        static_assert(sizeof(Value) == 0, "zelvo: no codec for this type: zelvo/json.hpp may have "
                                          "one, or write a zelvo::Codec of your own");
        return space;
    }
    static std::optional<Value> decode(std::string_view /*bytes*/) {
        static_assert(sizeof(Value) == 0, "zelvo: no codec for this type: zelvo/json.hpp may have "
                                          "one, or write a zelvo::Codec of your own");
        return std::nullopt;
    }
};

namespace detail {

template <class Value>
struct IsArray : std::false_type {};
template <class Value, std::size_t Size>
struct IsArray<std::array<Value, Size>> : std::true_type {};

template <class Value>
constexpr bool isNumber() {
    return std::is_arithmetic_v<Value> || std::is_enum_v<Value>;
}
template <class Value>
constexpr bool isPlain() {
    return std::is_trivially_copyable_v<Value> && !isNumber<Value>() && !IsArray<Value>::value &&
           !std::is_pointer_v<Value> && !std::is_member_pointer_v<Value> &&
           !std::is_convertible_v<const Value &, std::string_view>;
}

// Those that are copied as they lie.
inline constexpr std::size_t kMostPlain = std::size_t{256} * 1024;
template <class Value>
struct PlainCodec {
    static_assert(sizeof(Value) <= kMostPlain,
                  "zelvo: too large for a thread's stack, which such values come through: send a "
                  "std::vector");
    static constexpr std::size_t kSize = sizeof(Value);
    static std::string_view encode(const Value &value, std::string & /*space*/) noexcept {
        return {reinterpret_cast<const char *>(&value), sizeof value};
    }
    static std::optional<Value> decode(std::string_view bytes) noexcept {
        if (bytes.size() != sizeof(Value)) {
            return std::nullopt;
        }
        alignas(Value) unsigned char copy[sizeof(Value)];
        std::memcpy(copy, bytes.data(), sizeof copy);
        return *std::launder(reinterpret_cast<const Value *>(copy));
    }
};

template <class Value>
struct NumberCodec {
    static std::string_view encode(Value value, std::string &space) {
        if constexpr (std::is_enum_v<Value>) {
            using Number = std::underlying_type_t<Value>;
            return NumberCodec<Number>::encode(static_cast<Number>(value), space);
        } else if constexpr (std::is_same_v<Value, bool>) {
            return value ? "true" : "false";
        } else {
            char text[64];
            const auto end = std::to_chars(text, text + sizeof text, value).ptr;
            space.assign(text, end);
            return space;
        }
    }
    static std::optional<Value> decode(std::string_view bytes) {
        if constexpr (std::is_enum_v<Value>) {
            const auto number = NumberCodec<std::underlying_type_t<Value>>::decode(bytes);
            return number ? std::optional{static_cast<Value>(*number)} : std::nullopt;
        } else if constexpr (std::is_same_v<Value, bool>) {
            return bytes == "true" || bytes == "false" ? std::optional{bytes == "true"}
                                                       : std::nullopt;
        } else {
            Value value{};
            const char *const end = bytes.data() + bytes.size();
            const auto [rest, error] = std::from_chars(bytes.data(), end, value);
            return error == std::errc{} && rest == end ? std::optional{value} : std::nullopt;
        }
    }
};

// Whether values of the type may lie side by side as they are in memory.
template <class Value>
inline constexpr bool kLiesPlain = std::is_base_of_v<PlainCodec<Value>, Codec<Value>> ||
                                   (std::is_base_of_v<NumberCodec<Value>, Codec<Value>> &&
                                    !std::is_same_v<Value, bool>);

// Of several: each behind its length, or all as they lie.
template <class Values>
struct ManyCodec {
    using Value = typename Values::value_type;
    static std::string_view encode(const Values &values, std::string &space) {
        if constexpr (kLiesPlain<Value>) {
            return {reinterpret_cast<const char *>(values.data()), values.size() * sizeof(Value)};
        } else {
            for (const Value &value : values) { // which may be a copy, of bits
                std::string inside;
                append(space, Codec<Value>::encode(value, inside));
            }
            return space;
        }
    }
    // add(value); false: there are other bytes.
    template <class Add>
    static bool decode(std::string_view bytes, Add add) {
        while (!bytes.empty()) {
            const auto value = Codec<Value>::decode(take(bytes));
            if (!value || !add(*value)) {
                return false;
            }
        }
        return true;
    }

private:
    static void append(std::string &space, std::string_view bytes) {
        const auto size = static_cast<std::uint32_t>(bytes.size());
        if (size != bytes.size()) {
            throw std::length_error("zelvo: more data than a message can hold");
        }
        space.append(reinterpret_cast<const char *>(&size), sizeof size).append(bytes);
    }
    static std::string_view take(std::string_view &bytes) {
        std::uint32_t size = 0;
        if (bytes.size() < sizeof size) {
            throw std::length_error("zelvo: a length is cut");
        }
        std::memcpy(&size, bytes.data(), sizeof size);
        bytes.remove_prefix(sizeof size);
        if (bytes.size() < size) {
            throw std::length_error("zelvo: a value is cut");
        }
        const std::string_view taken = bytes.substr(0, size);
        bytes.remove_prefix(size);
        return taken;
    }
};

// The types that have a codec here.
template <class Value>
struct IsBuiltIn : std::bool_constant<isNumber<Value>() || isPlain<Value>()> {};
template <>
struct IsBuiltIn<std::string> : std::true_type {};
template <>
struct IsBuiltIn<std::string_view> : std::true_type {};
template <class Value>
struct IsBuiltIn<std::vector<Value>> : IsBuiltIn<Value> {};
template <class Value, std::size_t Size>
struct IsBuiltIn<std::array<Value, Size>> : IsBuiltIn<Value> {};

} // namespace detail

template <>
struct Codec<std::string> {
    static std::string_view encode(const std::string &value, std::string & /*space*/) noexcept {
        return value;
    }
    static std::optional<std::string> decode(std::string_view bytes) { return std::string{bytes}; }
};
template <>
struct Codec<std::string_view> {
    static std::string_view encode(std::string_view value, std::string & /*space*/) noexcept {
        return value;
    }
    static std::optional<std::string_view> decode(std::string_view bytes) { return bytes; }
};
template <class Value>
struct Codec<Value, std::enable_if_t<detail::isNumber<Value>()>> : detail::NumberCodec<Value> {};
template <class Value>
struct Codec<Value, std::enable_if_t<detail::isPlain<Value>()>> : detail::PlainCodec<Value> {};

template <class Value>
struct Codec<std::vector<Value>, std::enable_if_t<detail::IsBuiltIn<Value>::value>>
    : detail::ManyCodec<std::vector<Value>> {
    static std::optional<std::vector<Value>> decode(std::string_view bytes) {
        static_assert(std::is_default_constructible_v<Value>,
                      "zelvo: a std::vector needs values that can be made of nothing");
        std::vector<Value> values;
        if constexpr (detail::kLiesPlain<Value>) {
            if (bytes.size() % sizeof(Value) != 0) {
                return std::nullopt;
            }
            values.resize(bytes.size() / sizeof(Value));
            bytes.copy(reinterpret_cast<char *>(values.data()), bytes.size());
            return values;
        } else {
            const auto add = [&values](const Value &value) {
                return values.push_back(value), true;
            };
            const bool whole = detail::ManyCodec<std::vector<Value>>::decode(bytes, add);
            return whole ? std::optional{std::move(values)} : std::nullopt;
        }
    }
};
template <class Value, std::size_t Size>
struct Codec<std::array<Value, Size>, std::enable_if_t<detail::IsBuiltIn<Value>::value>>
    : detail::ManyCodec<std::array<Value, Size>> {
    static std::optional<std::array<Value, Size>> decode(std::string_view bytes) {
        using Values = std::array<Value, Size>;
        if constexpr (Size == 0) {
            return bytes.empty() ? std::optional{Values{}} : std::nullopt;
        } else if constexpr (detail::kLiesPlain<Value>) {
            return detail::PlainCodec<Values>::decode(bytes);
        } else {
            Values values{};
            std::size_t count = 0;
            const auto add = [&](const Value &value) {
                return count < Size && (values[count++] = value, true);
            };
            const bool whole = detail::ManyCodec<Values>::decode(bytes, add) && count == Size;
            return whole ? std::optional{std::move(values)} : std::nullopt;
        }
    }
};

// The value that a call has brought, or why there is none.
template <class Value>
class [[nodiscard]] Result {
public:
    Result(Value value) : value_{std::move(value)}, cause_{Cause::answered} {}
    Result(Outcome outcome, Cause cause) noexcept : outcome_{outcome}, cause_{cause} {}

    explicit operator bool() const noexcept { return value_.has_value(); }
    bool has_value() const noexcept { return value_.has_value(); }
    Outcome outcome() const noexcept { return outcome_; }
    Cause cause() const noexcept { return cause_; }

    // Only where there is one.
    Value &operator*() noexcept { return *value_; }
    const Value &operator*() const noexcept { return *value_; }
    Value *operator->() noexcept { return &*value_; }
    const Value *operator->() const noexcept { return &*value_; }
    // Throws Error, which says why there is none.
    Value &value() {
        require();
        return *value_;
    }
    const Value &value() const {
        require();
        return *value_;
    }
    template <class Other>
    Value value_or(Other &&other) const {
        return value_.value_or(std::forward<Other>(other));
    }

private:
    void require() const {
        if (!value_) {
            throw Error(detail::concat({"zelvo: no answer: ", reason(cause_)}), cause_);
        }
    }

    std::optional<Value> value_;
    Outcome outcome_ = Outcome::answered;
    Cause cause_;
};

namespace detail {

// A number as an argument: none with a fraction for a type without, and for bool nothing else.
template <class Other, class Value, class = void>
inline constexpr bool kFits = false;
template <class Other, class Value>
inline constexpr bool
    kFits<Other, Value, std::void_t<decltype(Value{std::declval<const Other &>()})>> = true;
template <class Other>
inline constexpr bool kHasFraction =
    std::is_class_v<Other> ? !kFits<Other, long long> && !kFits<Other, unsigned long long>
                           : std::is_floating_point_v<Other>;
template <class Other, class Value>
inline constexpr bool kLoses = (kHasFraction<Other> && !std::is_floating_point_v<Value>) ||
                               (std::is_same_v<Value, bool> && !std::is_same_v<Other, bool> &&
                                !std::is_class_v<Other>);
// Becomes what such a number would lose something as.
template <class Value>
struct Losing {
    template <class Other,
              class = std::enable_if_t<std::is_arithmetic_v<Other> && kLoses<Value, Other>>>
    operator Other() const;
};
// Whether there is one function to run, so that to ask what it takes compiles no body of it.
template <class Run, class = void>
inline constexpr bool kIsOne = std::is_pointer_v<Run>;
template <class Run>
inline constexpr bool kIsOne<Run, std::void_t<decltype(&Run::operator())>> = true;
struct Anything {};
// Whether it takes such a value, and nothing less, unless it takes anything.
template <class Run, class Value>
constexpr bool takesWhole() {
    if constexpr (std::is_arithmetic_v<Value> && kIsOne<Run>) {
        return std::is_invocable_v<Run &, Value> &&
               (!std::is_invocable_v<Run &, Losing<Value>> || std::is_invocable_v<Run &, Anything>);
    } else {
        return std::is_invocable_v<Run &, Value>;
    }
}
template <class Value>
class Number {
public:
    Number() = default;
    Number(Value given) noexcept : value_{given} {}
    template <class Other, class = std::enable_if_t<std::is_class_v<Other> &&
                                                    std::is_convertible_v<const Other &, Value> &&
                                                    !kLoses<Other, Value>>>
    Number(const Other &given) : value_(static_cast<Value>(given)) {}
    template <class Other, class = std::enable_if_t<kLoses<Other, Value>>, class = void>
    Number(Other) = delete;
    operator const Value &() const noexcept { return value_; }

private:
    Value value_{};
};

// A type that is given, not found by an argument.
template <class Value>
struct Given {
    using Type = std::conditional_t<std::is_arithmetic_v<Value>, Number<Value>, Value>;
};
template <class Value>
using Same = typename Given<Value>::Type;

template <class Value, class = void>
struct SizeOf : std::integral_constant<std::size_t, 0> {};
template <class Value>
struct SizeOf<Value, std::void_t<decltype(Codec<Value>::kSize)>>
    : std::integral_constant<std::size_t, Codec<Value>::kSize> {};

// Nothing: they are no such value.
template <class Value>
std::optional<Value> decoded(std::string_view bytes) {
    try {
        return Codec<Value>::decode(bytes);
    } catch (const std::bad_alloc &) {
        throw;
    } catch (...) {
        return std::nullopt;
    }
}

// Runs what takes the value; false: they are no such value. One that lies plain is copied once.
template <class Value, class Run>
bool runDecoded(std::string_view bytes, Run &run) {
    if constexpr (std::is_base_of_v<PlainCodec<Value>, Codec<Value>>) {
        alignas(Value) unsigned char copy[sizeof(Value)];
        if (bytes.size() != sizeof copy) {
            return false;
        }
        std::memcpy(copy, bytes.data(), sizeof copy);
        static_cast<void>(run(std::move(*std::launder(reinterpret_cast<Value *>(copy)))));
        return true;
    } else {
        auto value = decoded<Value>(bytes);
        return value && (static_cast<void>(run(std::move(*value))), true);
    }
}

// ---- answers without a NUL ----

constexpr char kEscape = 1;

inline std::string withoutNul(std::string_view bytes, bool looksLikeRefusal) {
    std::string text;
    text.reserve(bytes.size());
    if (looksLikeRefusal) {
        text += "\1\3";
    }
    for (const char c : bytes) {
        if (c == 0 || c == kEscape) {
            text += kEscape;
        }
        text += c == 0 ? kEscape : c == kEscape ? static_cast<char>(2) : c;
    }
    return text;
}
// Nothing: it has not been made so.
inline std::optional<std::string> withNul(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != kEscape) {
            bytes += text[i];
            continue;
        }
        const char meant = ++i < text.size() ? text[i] : '\0';
        if (meant < 1 || meant > 3) {
            return std::nullopt;
        }
        if (meant != 3) {
            bytes += static_cast<char>(meant - 1);
        }
    }
    return bytes;
}

template <class Value>
struct IsView : std::is_same<Value, std::string_view> {};
template <class Value>
struct IsView<std::vector<Value>> : IsView<Value> {};
template <class Value, std::size_t Size>
struct IsView<std::array<Value, Size>> : IsView<Value> {};

template <class Reply>
Result<Reply> resultFrom(const Answer &answer) {
    static_assert(!IsView<Reply>::value, "zelvo: a reply outlives the bytes that a view looks at");
    if (!answer) {
        return {answer.outcome, answer.cause};
    }
    const auto bytes = withNul(answer.text);
    auto reply = bytes ? decoded<Reply>(*bytes) : std::nullopt;
    return reply ? Result<Reply>{std::move(*reply)}
                 : Result<Reply>{Outcome::none, Cause::unreadable};
}

} // namespace detail
} // namespace zelvo

#endif // C++17

#endif
