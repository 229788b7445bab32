#include "bus_mk_str.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

namespace {

constexpr std::string_view kSpecials = "^$*+?.([%-";
constexpr int kMaxRepeats = 256;

// What a search of a text of this length may cost. Quadratic time is what a pattern that ends on
// something far away or absent needs; that must work for texts of some pages.
constexpr std::int64_t stepsFor(std::int64_t length) noexcept {
    constexpr std::int64_t kAlways = std::int64_t{1} << 20;
    constexpr std::int64_t kForEachByte = 256;
    constexpr std::int64_t kMostForPairs = std::int64_t{1} << 26;
    return kAlways + kForEachByte * length + std::min(length * length, kMostForPairs);
}

// Places where the match can be taken up again: one for each repeat, one for each capture's begin
// and end. So the limits on a pattern bound them, and no push needs a check.
constexpr int kMaxChoices = kMaxRepeats + 2 * bus_mk_str_max_captures;

// Lengths of captures that hold no text.
constexpr std::ptrdiff_t kStillOpen = -1;
constexpr std::ptrdiff_t kPosition = -2;

enum class Kind : unsigned char {
    kSingle,
    kOpen,
    kClose,
    kBackReference,
    kBalance,
    kFrontier,
    kTextEnd,
    kEnd,
    kMalformed,
};

struct Repeat {
    char sign;
    std::ptrdiff_t least;
    std::ptrdiff_t first; // how many are tried first
};
constexpr std::ptrdiff_t kMany = PTRDIFF_MAX;
constexpr Repeat kOnce{'\0', 1, 1};
constexpr Repeat kRepeats[] = {{'*', 0, kMany}, {'+', 1, kMany}, {'-', 0, 0}, {'?', 0, 1}};

// One item of a pattern. What it matches is told by the bytes from body to last: a class, the two
// characters of a balance, the set of a frontier, the digit of a back-reference, "(" or "()".
struct Item {
    Kind kind;
    const char *body;
    const char *last;
    const char *next;
    const Repeat *repeat;
};

struct Capture {
    const char *init;
    std::ptrdiff_t len;
};

struct MatchState;

// How to go on where the rest of the pattern did not match.
struct Choice {
    bool (*retry)(MatchState &state, Choice &choice); // false: nothing is left to try
    const char *item;
    const char *at;
    const char *least;
    Capture *capture;
};

// All that a search works with. Entries of the arrays are set before they are read.
struct MatchState {
    const char *src_init;
    const char *src_end;
    std::int32_t level;
    Capture capture[bus_mk_str_max_captures];
    const char *pattern_end;
    const char *item; // the rest of the pattern
    const char *at;   // the rest of the text
    std::int64_t steps;
    std::int32_t choices;
    Choice choice[kMaxChoices];
};

constexpr unsigned char byteOf(char c) noexcept {
    return static_cast<unsigned char>(c);
}

// ---- the items of a pattern ----

// One past the "]" that closes the set at at; null where none does.
const char *setEnd(const char *at, const char *end) noexcept {
    at += at[1] == '^' ? 2 : 1;
    bool first = true;
    while (at < end && (first || *at != ']')) {
        at += *at == '%' ? 2 : 1;
        first = false;
    }
    return at < end ? at + 1 : nullptr;
}

const char *classEnd(const char *at, const char *end) noexcept {
    if (*at == '[') {
        return setEnd(at, end);
    }
    const std::ptrdiff_t size = *at == '%' ? 2 : 1;
    return end - at >= size ? at + size : nullptr;
}

Item makeItem(Kind kind, const char *body, const char *last) noexcept {
    return {last ? kind : Kind::kMalformed, body, last, last, &kOnce};
}

Item readSingle(const char *at, const char *end) noexcept {
    Item item = makeItem(Kind::kSingle, at, classEnd(at, end));
    if (item.last) {
        const auto *const repeat =
            std::find_if(std::begin(kRepeats), std::end(kRepeats),
                         [&](const Repeat &r) { return r.sign == *item.last; });
        if (repeat != std::end(kRepeats)) {
            item.repeat = repeat;
            item.next = item.last + 1;
        }
    }
    return item;
}

Item readEscape(const char *at, const char *end) noexcept {
    const char *const body = at + 2;
    switch (at[1]) {
    case 'b':
        return makeItem(Kind::kBalance, body, end - body >= 2 ? body + 2 : nullptr);
    case 'f':
        return makeItem(Kind::kFrontier, body, *body == '[' ? setEnd(body, end) : nullptr);
    default:
        return std::isdigit(byteOf(at[1])) ? makeItem(Kind::kBackReference, at + 1, body)
                                           : readSingle(at, end);
    }
}

// The pattern's zero byte stands at end, so one byte behind any other can be looked at.
Item readItem(const char *at, const char *end) noexcept {
    if (at == end) {
        return makeItem(Kind::kEnd, at, at);
    }
    switch (*at) {
    case '(':
        return makeItem(Kind::kOpen, at, at[1] == ')' ? at + 2 : at + 1);
    case ')':
        return makeItem(Kind::kClose, at, at + 1);
    case '$':
        return at + 1 == end ? makeItem(Kind::kTextEnd, at, end) : readSingle(at, end);
    case '%':
        return readEscape(at, end);
    default:
        return readSingle(at, end);
    }
}

// ---- classes of characters ----

struct CharClass {
    char letter;
    bool (*holds)(unsigned char c);
};
constexpr CharClass kClasses[] = {
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
    for (const CharClass &each : kClasses) {
        if (each.letter == lower) {
            return each.holds(c) != inverted;
        }
    }
    return byteOf(letter) == c;
}

// What stands at at in a set that closes at last: whether it holds c, and its size in bytes.
struct Element {
    bool holds;
    std::ptrdiff_t size;
};

Element readElement(const char *at, const char *last, unsigned char c) noexcept {
    if (*at == '%' && last - at > 1) {
        return {escapeHolds(at[1], c), 2};
    }
    if (last - at > 2 && at[1] == '-') {
        return {byteOf(at[0]) <= c && c <= byteOf(at[2]), 3};
    }
    return {byteOf(*at) == c, 1};
}

// The set runs from its "[" to one past its "]".
bool setHolds(const char *at, const char *end, unsigned char c) noexcept {
    const char *const last = end - 1;
    const bool inverted = at[1] == '^';
    at += inverted ? 2 : 1;
    while (at < last) {
        const Element element = readElement(at, last, c);
        if (element.holds) {
            return !inverted;
        }
        at += element.size;
    }
    return inverted;
}

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

// ---- the search ----

// False once the search has cost all that it may; from then on nothing matches.
bool spend(MatchState &state, std::ptrdiff_t steps) noexcept {
    state.steps -= steps;
    return state.steps >= 0;
}

Item takeItem(MatchState &state, const char *at) noexcept {
    const Item item = readItem(at, state.pattern_end);
    spend(state, item.next - at + 1);
    return item;
}

void push(MatchState &state, const Choice &choice) noexcept {
    state.choice[state.choices++] = choice;
}

// Where the characters of a class that stand at from end, most of them at the most.
const char *runEnd(MatchState &state, const Item &item, const char *from,
                   std::ptrdiff_t most) noexcept {
    const char *const stop = from + std::min(most, state.src_end - from);
    const std::ptrdiff_t cost = item.last - item.body;
    while (from < stop && spend(state, cost) && classHolds(item, byteOf(*from))) {
        ++from;
    }
    return from;
}

bool retryShorter(MatchState &state, Choice &choice) noexcept {
    if (choice.at == choice.least) {
        return false;
    }
    state.at = --choice.at;
    state.item = choice.item;
    return true;
}

bool retryLonger(MatchState &state, Choice &choice) noexcept {
    const Item item = takeItem(state, choice.item);
    if (runEnd(state, item, choice.at, 1) == choice.at) {
        return false;
    }
    state.at = ++choice.at;
    state.item = item.next;
    return true;
}

bool matchSingle(MatchState &state, const Item &item) noexcept {
    const auto [sign, least, first] = *item.repeat;
    const char *const stop = runEnd(state, item, state.at, first);
    if (stop - state.at < least) {
        return false;
    }
    if (sign == '-') {
        push(state, {retryLonger, item.body, stop, stop, nullptr});
    } else if (stop - state.at > least) {
        push(state, {retryShorter, item.next, stop, state.at + least, nullptr});
    }
    state.at = stop;
    return true;
}

void beginCapture(MatchState &state, const Item &item) noexcept {
    const bool position = item.last - item.body == 2;
    state.capture[state.level++] = {state.at, position ? kPosition : kStillOpen};
}

bool dropCapture(MatchState &state, Choice & /*choice*/) noexcept {
    --state.level;
    return false;
}

bool matchOpen(MatchState &state, const Item &item) noexcept {
    beginCapture(state, item);
    push(state, {dropCapture, nullptr, nullptr, nullptr, nullptr});
    return true;
}

// Ends the capture begun last of those that are still open, and returns it; null: none is.
Capture *endCapture(MatchState &state) noexcept {
    for (int i = state.level; i-- > 0;) {
        Capture &capture = state.capture[i];
        if (capture.len == kStillOpen) {
            capture.len = state.at - capture.init;
            return &capture;
        }
    }
    return nullptr;
}

bool reopenCapture(MatchState & /*state*/, Choice &choice) noexcept {
    choice.capture->len = kStillOpen;
    return false;
}

bool matchClose(MatchState &state, const Item & /*item*/) noexcept {
    push(state, {reopenCapture, nullptr, nullptr, nullptr, endCapture(state)});
    return true;
}

// The capture that a back-reference names; null: it has not begun, or is still open.
const Capture *referredCapture(const MatchState &state, const Item &item) noexcept {
    const int index = *item.body - '1';
    const bool complete =
        index >= 0 && index < state.level && state.capture[index].len != kStillOpen;
    return complete ? &state.capture[index] : nullptr;
}

bool matchBackReference(MatchState &state, const Item &item) noexcept {
    const auto [init, len] = *referredCapture(state, item);
    if (len == kPosition || len > state.src_end - state.at || !spend(state, len) ||
        !std::equal(init, init + len, state.at)) {
        return false;
    }
    state.at += len;
    return true;
}

bool matchBalance(MatchState &state, const Item &item) noexcept {
    const char open = item.body[0];
    const char close = item.body[1];
    if (state.at == state.src_end || *state.at != open) {
        return false;
    }
    std::ptrdiff_t depth = 1;
    for (const char *at = state.at + 1; at < state.src_end && spend(state, 1); ++at) {
        if (*at == close) {
            if (--depth == 0) {
                state.at = at + 1;
                return true;
            }
        } else if (*at == open) {
            ++depth;
        }
    }
    return false;
}

bool matchFrontier(MatchState &state, const Item &item) noexcept {
    const char before = state.at == state.src_init ? '\0' : state.at[-1];
    const char after = state.at == state.src_end ? '\0' : *state.at;
    return spend(state, 2 * (item.last - item.body)) &&
           !setHolds(item.body, item.last, byteOf(before)) &&
           setHolds(item.body, item.last, byteOf(after));
}

bool matchTextEnd(MatchState &state, const Item & /*item*/) noexcept {
    return state.at == state.src_end;
}

// In the order of Kind, up to the end of a pattern.
constexpr bool (*kMatchers[])(MatchState &, const Item &) = {
    matchSingle,  matchOpen,     matchClose,   matchBackReference,
    matchBalance, matchFrontier, matchTextEnd,
};
static_assert(std::size(kMatchers) == static_cast<std::size_t>(Kind::kEnd));

// Takes up the latest choice that has something left; false: none has.
bool goBack(MatchState &state) noexcept {
    while (state.choices > 0) {
        Choice &choice = state.choice[state.choices - 1];
        if (choice.retry(state, choice)) {
            return true;
        }
        --state.choices;
    }
    return false;
}

// Matches the pattern from item on against the text from at on. On success the text's rest begins
// at state.at.
bool matchAt(MatchState &state, const char *item, const char *at) noexcept {
    state.item = item;
    state.at = at;
    state.level = 0;
    state.choices = 0;
    while (state.steps >= 0) {
        const Item next = takeItem(state, state.item);
        if (next.kind >= Kind::kEnd) {
            return next.kind == Kind::kEnd && state.steps >= 0;
        }
        state.item = next.next;
        if (!kMatchers[static_cast<std::size_t>(next.kind)](state, next) && !goBack(state)) {
            return false;
        }
    }
    return false;
}

// Items follow each other without alternatives, so whether the captures that an item needs are
// there depends on the pattern alone. What passes here keeps every limit of the matching.
bool isItemSound(MatchState &state, const Item &item, int &repeats) noexcept {
    switch (item.kind) {
    case Kind::kMalformed:
        return false;
    case Kind::kOpen:
        if (state.level == bus_mk_str_max_captures) {
            return false;
        }
        beginCapture(state, item);
        return true;
    case Kind::kClose:
        return endCapture(state) != nullptr;
    case Kind::kBackReference:
        return referredCapture(state, item) != nullptr;
    default:
        repeats += item.repeat == &kOnce ? 0 : 1;
        return repeats <= kMaxRepeats;
    }
}

bool isSound(MatchState &state, const char *pattern) noexcept {
    int repeats = 0;
    state.level = 0;
    state.at = state.src_init;
    Item item = readItem(pattern, state.pattern_end);
    while (item.kind != Kind::kEnd && isItemSound(state, item, repeats)) {
        item = readItem(item.next, state.pattern_end);
    }
    return item.kind == Kind::kEnd;
}

void report(const MatchState &state, const char *start, bus_mk_str_result &result) noexcept {
    result.pos_start = static_cast<std::int32_t>(start - state.src_init);
    result.pos_end = static_cast<std::int32_t>(state.at - state.src_init - 1);
    for (int i = 0; i < state.level; ++i) {
        const auto [init, len] = state.capture[i];
        if (len >= 0) {
            result.p[result.captures] = init;
            result.len[result.captures] = static_cast<std::int32_t>(len);
            ++result.captures;
        }
    }
}

int findPattern(std::string_view src, std::string_view pattern,
                bus_mk_str_result &result) noexcept {
    MatchState state; // NOLINT(cppcoreguidelines-pro-type-member-init): 13 KiB, mostly unused
    state.src_init = src.data();
    state.src_end = src.data() + src.size();
    state.pattern_end = pattern.data() + pattern.size();
    state.steps = stepsFor(static_cast<std::int64_t>(src.size()));
    const bool anchored = pattern.front() == '^';
    const char *const item = pattern.data() + (anchored ? 1 : 0);
    if (!isSound(state, item)) {
        return -1;
    }
    const char *const last = anchored ? state.src_init : state.src_end;
    for (const char *start = state.src_init; start <= last && state.steps >= 0; ++start) {
        if (matchAt(state, item, start)) {
            report(state, start, result);
            return 0;
        }
    }
    return -1;
}

// Trying each place where the text's first byte stands would take quadratic time for a long text
// that repeats itself; the C library knows better. The views end where their zero bytes stand.
int findPlain(std::string_view src, std::string_view text, bus_mk_str_result &result) noexcept {
    const char *const found = std::strstr(src.data(), text.data());
    if (!found) {
        return -1;
    }
    result.pos_start = static_cast<std::int32_t>(found - src.data());
    result.pos_end = result.pos_start + static_cast<std::int32_t>(text.size()) - 1;
    return 0;
}

} // namespace

char *bus_mk_strdup(const char *data) noexcept {
    if (!data) {
        return nullptr;
    }
    const std::size_t size = std::strlen(data) + 1;
    auto *const copy = static_cast<char *>(std::malloc(size));
    if (copy) {
        std::memcpy(copy, data, size);
    }
    return copy;
}

int bus_mk_str_find(const char *src, const char *pattern, bus_mk_str_result *result) noexcept {
    if (!result) {
        return -1;
    }
    *result = {};
    if (!src || !pattern) {
        return -1;
    }
    const std::string_view text{src};
    const std::string_view items{pattern};
    if (text.size() > INT32_MAX || items.size() > INT32_MAX) {
        return -1;
    }
    const bool plain = items.find_first_of(kSpecials) == std::string_view::npos;
    return plain ? findPlain(text, items, *result) : findPattern(text, items, *result);
}
