// Reads the JSON that the bus prints, and tells what is JSON at all.
#ifndef ZELVO_DETAIL_JSON_READER_HPP
#define ZELVO_DETAIL_JSON_READER_HPP

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace zelvo::detail {

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
        }
    }

private:
    static constexpr int kDeepest = 500; // the bus's own limit is 1,000

    void skipBlanks() noexcept {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
    }
    bool take(char c) noexcept {
        const bool found = !rest_.empty() && rest_.front() == c;
        rest_.remove_prefix(found ? 1 : 0);
        return found;
    }
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

} // namespace zelvo::detail

#endif
