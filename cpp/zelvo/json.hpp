// Topics and services whose values travel as JSON: a codec for every type that nlohmann-json
// converts to and from JSON and that has none of zelvo/codec.hpp. To be included wherever such a
// value is published, heard, asked or answered; it needs nlohmann-json's headers. A trivially
// copyable type travels as JSON where that is said:
//     template <> struct zelvo::Codec<Reading> : zelvo::JsonCodec<Reading> {};
#ifndef ZELVO_JSON_HPP
#define ZELVO_JSON_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Zelvo for C++ needs C++17 (-std=c++17); before that there is zelvo/bus_client.h"
#else

#include "codec.hpp"

#include <nlohmann/json.hpp>

namespace zelvo {

// What does not parse, is JSON of another shape, or is nested more than 500 deep does not decode.
// Encoding throws nlohmann's type_error for a text that is not UTF-8.
template <class Value>
struct JsonCodec {
    static std::string_view encode(const Value &value, std::string &space) {
        space = nlohmann::json(value).dump();
        return space;
    }
    static std::optional<Value> decode(std::string_view bytes) {
        bool deep = false;
        const auto look = [&deep](int depth, auto, auto &) {
            deep = deep || depth > kDeepest;
            return true;
        };
        const auto json = nlohmann::json::parse(bytes, look, false);
        return json.is_discarded() || deep ? std::nullopt
                                           : std::optional{json.template get<Value>()};
    }

private:
    static constexpr int kDeepest = 500; // nlohmann's copies take stack for each level
};

namespace detail {

template <class Value, class = void>
struct IsJson : std::false_type {};
template <class Value>
struct IsJson<Value,
              std::void_t<decltype(nlohmann::json(std::declval<const Value &>())),
                          decltype(std::declval<const nlohmann::json &>().template get<Value>())>>
    : std::bool_constant<!IsBuiltIn<Value>::value> {};

} // namespace detail

template <class Value>
struct Codec<Value, std::enable_if_t<detail::IsJson<Value>::value>> : JsonCodec<Value> {};

} // namespace zelvo

#endif // C++17

#endif
