// Texts for the C functions: what has to end with a NUL, the JSON that they read and print, and the
// answers that they free.
#ifndef ZELVO_DETAIL_TEXT_HPP
#define ZELVO_DETAIL_TEXT_HPP

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(_WIN32)
// As <windows.h> declares them, which a header must not drag into a user's program.
extern "C" {
struct HINSTANCE__;
__declspec(dllimport) HINSTANCE__ *__stdcall GetModuleHandleA(const char *name);
__declspec(dllimport) long long(__stdcall *__stdcall GetProcAddress(HINSTANCE__ *module,
                                                                    const char *name))();
}
#endif

namespace zelvo {

// A topic, an address or a name as an argument: a text that ends with a NUL and holds no other.
// Made from a literal or a std::string, and only looked at, never copied. Throws
// std::invalid_argument for a null pointer and for a std::string with a NUL inside, which the bus
// would cut there.
class CText {
public:
    CText(const char *text) : text_{text} {
        if (!text) {
            throw std::invalid_argument("zelvo: a text is missing");
        }
    }
    CText(const std::string &text) : text_{text.c_str()} {
        if (std::strlen(text_) != text.size()) {
            throw std::invalid_argument("zelvo: a NUL within a topic, an address or a name");
        }
    }
    const char *c_str() const noexcept { return text_; }

private:
    const char *text_;
};

namespace detail {

// The length as the C functions take it.
inline int lengthOf(std::string_view data) {
    if (data.size() > static_cast<std::size_t>(INT_MAX)) {
        throw std::length_error("zelvo: more data than a message can hold");
    }
    return static_cast<int>(data.size());
}

// Contiguous bytes of whatever type; what is a text already goes its own way.
template <class Bytes>
using IfBytes =
    std::enable_if_t<!std::is_convertible_v<const Bytes &, std::string_view> &&
                     sizeof(*std::data(std::declval<const Bytes &>())) == 1 &&
                     std::is_trivially_copyable_v<std::remove_reference_t<decltype(*std::data(
                         std::declval<const Bytes &>()))>>>;
template <class Bytes>
std::string_view viewOf(const Bytes &bytes) noexcept {
    return {reinterpret_cast<const char *>(std::data(bytes)), std::size(bytes)};
}

// The malloc whose memory the library can free: on Windows that of msvcrt.dll, which the DLL has
// loaded, whatever this program is linked to.
inline void *libraryMalloc(std::size_t size) noexcept {
#if defined(_WIN32)
    using Malloc = void *(*)(std::size_t);
    static const auto its = reinterpret_cast<Malloc>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("msvcrt.dll"), "malloc")));
    return its ? its(size) : nullptr;
#else
    return std::malloc(size);
#endif
}

// A call handler's answer; null for none, and where memory is short.
inline char *answerText(const std::optional<std::string> &text) {
    if (!text) {
        return nullptr;
    }
    if (text->find('\0') != text->npos) {
        throw std::invalid_argument("zelvo: a NUL within an answer");
    }
    auto *const copy = static_cast<char *>(libraryMalloc(text->size() + 1));
    return copy ? static_cast<char *>(std::memcpy(copy, text->c_str(), text->size() + 1)) : nullptr;
}

// What answers a call with these arguments.
template <class Handler, class... Arguments>
using IfAnswers =
    std::enable_if_t<std::is_invocable_r_v<std::optional<std::string>, Handler &, Arguments...>>;

// ---- JSON, written ----

// Bytes from 0x80 on stay as they are.
inline void appendJson(std::string &json, std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    json += '"';
    for (const char c : text) {
        const auto code = static_cast<unsigned char>(c);
        if (code < 0x20) {
            json += "\\u00";
            json += digits[code >> 4U];
            json += digits[code & 15U];
        } else {
            if (c == '"' || c == '\\') {
                json += '\\';
            }
            json += c;
        }
    }
    json += '"';
}

inline std::string jsonArray(const std::vector<std::string> &texts) {
    std::string json = "[";
    for (const std::string &text : texts) {
        json += json.size() > 1 ? "," : "";
        appendJson(json, CText{text}.c_str());
    }
    return json + ']';
}

// ---- JSON, read ----

// Reads one JSON value without keeping it, strictly. What stands in text strings can be taken out.
class JsonReader {
public:
    explicit JsonReader(std::string_view json) noexcept : rest_{json} {}

    // Whether the whole is one value that the bus can take: not nested too deeply, and without
    // half a surrogate pair or a NUL in its texts.
    bool isValue() { return value(0) && (skipBlanks(), rest_.empty()); }

    // Appends the texts of the first array that don't begin so.
    void texts(std::vector<std::string> &into, std::string_view prefix) {
        rest_.remove_prefix(std::min(rest_.find('['), rest_.size()));
        while (!rest_.empty() && !take(']')) {
            rest_.remove_prefix(1); // "[", or the "," before the next
            skipBlanks();
            std::string text;
            if (string(&text) && text.compare(0, prefix.size(), prefix) != 0) {
                into.push_back(std::move(text));
            }
            skipBlanks();
        }
    }

private:
    static constexpr int kDeepest = 500; // the bus's own limit is 1,000

    void skipBlanks() noexcept {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
    }
    bool take(char c) noexcept { return take(std::string_view{&c, 1}); }
    bool take(std::string_view text) noexcept {
        const bool found = rest_.substr(0, text.size()) == text;
        rest_.remove_prefix(found ? text.size() : 0);
        return found;
    }

    bool value(int depth) { // NOLINT(misc-no-recursion): limited by kDeepest
        skipBlanks();
        if (rest_.empty() || depth > kDeepest) {
            return false;
        }
        switch (rest_.front()) {
        case '{':
            return members('}', true, depth);
        case '[':
            return members(']', false, depth);
        case '"':
            return string(nullptr);
        default:
            return take("true") || take("false") || take("null") || number();
        }
    }
    bool members(char end, bool named, int depth) { // NOLINT(misc-no-recursion)
        rest_.remove_prefix(1);
        skipBlanks();
        if (take(end)) {
            return true;
        }
        do {
            skipBlanks();
            if (named && !(string(nullptr) && (skipBlanks(), take(':')))) {
                return false;
            }
            if (!value(depth + 1)) {
                return false;
            }
            skipBlanks();
        } while (take(','));
        return take(end);
    }

    std::size_t digits() noexcept {
        const std::size_t count = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
        rest_.remove_prefix(count);
        return count;
    }
    bool number() noexcept {
        take('-');
        if (!take('0') && digits() == 0) {
            return false;
        }
        if (take('.') && digits() == 0) {
            return false;
        }
        if (take('e') || take('E')) {
            static_cast<void>(take('+') || take('-'));
            return digits() > 0;
        }
        return true;
    }

    // The four digits of an escape; 0 where they are none.
    unsigned code() noexcept {
        unsigned code = 0;
        for (int i = 0; i < 4; ++i) {
            const std::size_t digit =
                rest_.empty() ? rest_.npos
                              : std::string_view{"0123456789abcdefABCDEF"}.find(rest_.front());
            if (digit == rest_.npos) {
                return 0;
            }
            code = code * 16 + static_cast<unsigned>(digit < 16 ? digit : digit - 6);
            rest_.remove_prefix(1);
        }
        return code;
    }
    bool escape(std::string *into) {
        constexpr std::string_view names = "\"\\/bfnrt";
        constexpr std::string_view meant = "\"\\/\b\f\n\r\t";
        if (take('u')) {
            const unsigned first = code();
            const bool high = first >= 0xD800 && first < 0xDC00;
            const unsigned second = high && take("\\u") ? code() : 0;
            if (into && first < 0x80) { // the bus writes no others
                *into += static_cast<char>(first);
            }
            return first != 0 &&
                   (first < 0xD800 || first >= 0xE000 || (second >= 0xDC00 && second < 0xE000));
        }
        const std::size_t at = rest_.empty() ? names.npos : names.find(rest_.front());
        if (at == names.npos) {
            return false;
        }
        rest_.remove_prefix(1);
        if (into) {
            *into += meant[at];
        }
        return true;
    }
    bool string(std::string *into) {
        if (!take('"')) {
            return false;
        }
        while (!take('"')) {
            if (rest_.empty()) {
                return false;
            }
            const char c = rest_.front();
            rest_.remove_prefix(1);
            if (c == '\\' ? !escape(into) : static_cast<unsigned char>(c) < 0x20) {
                return false;
            }
            if (into && c != '\\') {
                *into += c;
            }
        }
        return true;
    }

    std::string_view rest_;
};

} // namespace detail
} // namespace zelvo

#endif
