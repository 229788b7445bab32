#include "bus_mk_str/internal.h"

#include <cctype>
#include <cstddef>
#include <string_view>

namespace pattern {
namespace {

constexpr std::string_view kRepeats = "*+-?";

// One past the "]" that closes the set at at; null where none does.
const char *setEnd(const char *at, const char *end) noexcept {
    at += at[1] == '^' ? 2 : 1;
    do { // the first belongs to the set whatever it is
        at += *at == '%' ? 2 : 1;
    } while (at < end && *at != ']');
    return at < end ? at + 1 : nullptr;
}

const char *classEnd(const char *at, const char *end) noexcept {
    const char *const last = *at == '[' ? setEnd(at, end) : at + (*at == '%' ? 2 : 1);
    return last && last <= end ? last : nullptr;
}

Item makeItem(Kind kind, const char *body, const char *last) noexcept {
    return {last ? kind : Kind::kBad, '\0', body, last, last};
}

Item readSingle(const char *at, const char *end) noexcept {
    Item item = makeItem(Kind::kSingle, at, classEnd(at, end));
    if (item.last && kRepeats.find(*item.last) != std::string_view::npos) {
        item.repeat = *item.last;
        item.next = item.last + 1;
    }
    return item;
}

} // namespace

// One byte behind any other can be looked at, since there is the zero byte.
Item readItem(const char *at, const char *end) noexcept {
    if (at == end) {
        return makeItem(Kind::kEnd, at, at);
    }
    const bool escape = *at == '%';
    const char *const body = at + (escape ? 2 : 1);
    if (escape && at[1] == 'b') {
        return makeItem(Kind::kBalance, body, end - body >= 2 ? body + 2 : nullptr);
    }
    if (escape && at[1] == 'f') {
        return makeItem(Kind::kFrontier, body, *body == '[' ? setEnd(body, end) : nullptr);
    }
    if (escape && std::isdigit(byteOf(at[1]))) {
        return makeItem(Kind::kReference, at + 1, body);
    }
    switch (*at) {
    case '(':
        return makeItem(Kind::kOpen, at, *body == ')' ? body + 1 : body);
    case ')':
        return makeItem(Kind::kClose, at, body);
    default:
        return *at == '$' && body == end ? makeItem(Kind::kTextEnd, at, end) : readSingle(at, end);
    }
}

namespace {

constexpr struct {
    char letter;
    bool (*holds)(unsigned char c);
} kClasses[] = {
    {'a', [](unsigned char c) { return std::isalpha(c) != 0; }},
    {'c', [](unsigned char c) { return std::iscntrl(c) != 0; }},
    {'d', [](unsigned char c) { return std::isdigit(c) != 0; }},
    {'l', [](unsigned char c) { return std::islower(c) != 0; }},
    {'p', [](unsigned char c) { return std::ispunct(c) != 0; }},
    {'s', [](unsigned char c) { return std::isspace(c) != 0; }},
    {'u', [](unsigned char c) { return std::isupper(c) != 0; }},
    {'w', [](unsigned char c) { return std::isalnum(c) != 0; }},
    {'x', [](unsigned char c) { return std::isxdigit(c) != 0; }},
    {'z', [](unsigned char c) { return c == 0; }},
};

// What "%" with this letter stands for.
bool escapeHolds(char letter, unsigned char c) noexcept {
    const bool inverted = letter >= 'A' && letter <= 'Z';
    const char lower = inverted ? static_cast<char>(letter - 'A' + 'a') : letter;
    for (const auto &each : kClasses) {
        if (each.letter == lower) {
            return each.holds(c) != inverted;
        }
    }
    return byteOf(letter) == c;
}

// The set runs from its "[" to one past its "]".
bool setHolds(const char *at, const char *end, unsigned char c) noexcept {
    const char *const last = end - 1;
    const bool inverted = at[1] == '^';
    at += inverted ? 2 : 1;
    while (at < last) {
        bool holds = byteOf(*at) == c;
        std::ptrdiff_t size = 1;
        if (*at == '%' && last - at > 1) {
            holds = escapeHolds(at[1], c);
            size = 2;
        } else if (last - at > 2 && at[1] == '-') {
            holds = byteOf(at[0]) <= c && c <= byteOf(at[2]);
            size = 3;
        }
        if (holds) {
            return !inverted;
        }
        at += size;
    }
    return inverted;
}

} // namespace

bool classHolds(const Item &item, unsigned char c) noexcept {
    switch (*item.body) {
    case '.':
        return true;
    case '%':
        return escapeHolds(item.body[1], c);
    case '[':
        return setHolds(item.body, item.last, c);
    default:
        return byteOf(*item.body) == c;
    }
}

} // namespace pattern
