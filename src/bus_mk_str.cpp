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
constexpr int kMaxRepeats = 1024;

// What a search may cost. What is remembered of repeats that were in vain makes most searches cost
// some steps for each byte of the text and of the pattern; quadratic time is what is left for
// patterns with back-references and balances.
constexpr std::int64_t stepsFor(std::int64_t text, std::int64_t pattern) noexcept {
    constexpr std::int64_t kAlways = std::int64_t{1} << 20;
    constexpr std::int64_t kForEachPair = 8;
    constexpr std::int64_t kLongestPattern = std::int64_t{1} << 16;
    constexpr std::int64_t kLongestText = std::int64_t{1} << 13;
    const std::int64_t pairs = std::min(text, kLongestText);
    return kAlways + kForEachPair * text * std::min(pattern, kLongestPattern) + 4 * pairs * pairs;
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

enum class Retry : std::int16_t { kShorter, kLonger, kDropCapture, kReopenCapture };

// How to go on where the rest of the pattern did not match. Offsets into pattern and text, which
// are half as large as pointers.
struct Choice {
    Retry retry;
    std::int16_t index; // of the repeat among the pattern's, or of the capture
    std::int32_t item;
    std::int32_t at;
    std::int32_t least;
};

// Places in the text, from first to last, where the pattern behind a repeat is known not to match;
// none where last is less. Items follow each other without alternatives, so that does not depend on
// how the place was reached. Behind "*", "+" and "-" a run of the class that reaches into them ends
// in them: they grow by whole runs.
struct Vain {
    std::int32_t first;
    std::int32_t last;

    bool holds(std::ptrdiff_t at) const noexcept { return first <= at && at <= last; }
};

// All that a search works with. Entries of the arrays are set before they are read.
struct MatchState {
    const char *src_init;
    const char *src_end;
    std::int32_t level;
    Capture capture[bus_mk_str_max_captures];
    const char *pattern_init;
    const char *pattern_end;
    const char *context_end; // behind it, what matches does not depend on captures
    const char *item;        // the rest of the pattern
    const char *at;          // the rest of the text
    std::int64_t steps;
    std::int32_t choices;
    std::int32_t repeat; // the number of the next one in the rest of the pattern
    Choice choice[kMaxChoices];
    Vain vain[kMaxRepeats];
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

std::int32_t offsetOf(const MatchState &state, const char *at) noexcept {
    return static_cast<std::int32_t>(at - state.src_init);
}

// The rest behind the choice's repeat does not match where it began at at.
void noteVain(MatchState &state, const Choice &choice, std::int32_t first,
              std::int32_t last) noexcept {
    Vain &vain = state.vain[choice.index];
    if (state.pattern_init + choice.item < state.context_end) {
        return;
    }
    if (last == vain.first - 1) {
        vain.first = first;
    } else if (first - 1 == vain.last) {
        vain.last = last;
    } else {
        vain = {first, last};
    }
}

// Takes up the rest behind the repeat at at, or at the next shorter length that is not in vain.
bool takeUpTo(MatchState &state, Choice &choice, std::int32_t at) noexcept {
    const Vain &vain = state.vain[choice.index];
    choice.at = vain.holds(at) ? vain.first - 1 : at;
    if (choice.at < choice.least) {
        return false;
    }
    state.at = state.src_init + choice.at;
    state.item = state.pattern_init + choice.item;
    state.repeat = choice.index + 1;
    return true;
}

bool retryShorter(MatchState &state, Choice &choice) noexcept {
    noteVain(state, choice, choice.at, choice.at);
    return takeUpTo(state, choice, choice.at - 1);
}

bool retryLonger(MatchState &state, Choice &choice) noexcept {
    const Item item = takeItem(state, state.pattern_init + choice.item);
    const char *const at = state.src_init + choice.at;
    const bool next = runEnd(state, item, at, 1) != at;
    if (!next || state.vain[choice.index].holds(choice.at + 1)) {
        noteVain(state, choice, choice.least, choice.at);
        return false;
    }
    ++choice.at;
    state.at = at + 1;
    state.item = item.next;
    state.repeat = choice.index + 1;
    return true;
}

bool matchShortest(MatchState &state, Choice &choice, const Item &item) noexcept {
    choice.retry = Retry::kLonger;
    choice.item = static_cast<std::int32_t>(item.body - state.pattern_init);
    choice.at = choice.least;
    return !state.vain[choice.index].holds(choice.at);
}

// Where the class's run goes on into what is in vain, it is not followed there.
bool matchLongest(MatchState &state, Choice &choice, const Item &item) noexcept {
    const Vain &vain = state.vain[choice.index];
    const bool many = item.repeat->first == kMany;
    if (many && vain.holds(choice.least)) {
        return false;
    }
    const bool ahead = many && choice.least < vain.first && vain.first <= vain.last;
    const std::ptrdiff_t most = ahead ? vain.first - offsetOf(state, state.at) : item.repeat->first;
    const char *const stop = runEnd(state, item, state.at, most);
    return offsetOf(state, stop) >= choice.least && takeUpTo(state, choice, offsetOf(state, stop));
}

bool matchRepeat(MatchState &state, const Item &item) noexcept {
    const std::int32_t index = state.repeat++;
    if (item.repeat->least > state.src_end - state.at) {
        return false;
    }
    Choice choice{Retry::kShorter, static_cast<std::int16_t>(index),
                  static_cast<std::int32_t>(item.next - state.pattern_init), 0,
                  offsetOf(state, state.at + item.repeat->least)};
    const bool matched = item.repeat->sign == '-' ? matchShortest(state, choice, item)
                                                  : matchLongest(state, choice, item);
    if (matched) {
        push(state, choice);
    }
    return matched;
}

bool matchSingle(MatchState &state, const Item &item) noexcept {
    if (item.repeat != &kOnce) {
        return matchRepeat(state, item);
    }
    const char *const before = state.at;
    state.at = runEnd(state, item, before, 1);
    return state.at != before;
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
    push(state, {Retry::kDropCapture, 0, 0, 0, 0});
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

bool reopenCapture(MatchState &state, Choice &choice) noexcept {
    state.capture[choice.index].len = kStillOpen;
    return false;
}

bool matchClose(MatchState &state, const Item & /*item*/) noexcept {
    const std::ptrdiff_t index = endCapture(state) - state.capture;
    push(state, {Retry::kReopenCapture, static_cast<std::int16_t>(index), 0, 0, 0});
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

// In the order of Retry. False: nothing is left to try.
constexpr bool (*kRetries[])(MatchState &, Choice &) = {retryShorter, retryLonger, dropCapture,
                                                        reopenCapture};

// Takes up the latest choice that has something left; false: none has.
bool goBack(MatchState &state) noexcept {
    while (state.choices > 0) {
        Choice &choice = state.choice[state.choices - 1];
        if (kRetries[static_cast<std::size_t>(choice.retry)](state, choice)) {
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
    state.repeat = 0;
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
bool isItemSound(MatchState &state, const Item &item) noexcept {
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
        state.context_end = item.next;
        return referredCapture(state, item) != nullptr;
    default:
        if (item.repeat == &kOnce) {
            return true;
        }
        if (state.repeat == kMaxRepeats) {
            return false;
        }
        state.vain[state.repeat++] = {0, -1};
        return true;
    }
}

bool isSound(MatchState &state, const char *pattern) noexcept {
    state.level = 0;
    state.repeat = 0;
    state.at = state.src_init;
    state.context_end = pattern;
    Item item = readItem(pattern, state.pattern_end);
    while (item.kind != Kind::kEnd && isItemSound(state, item)) {
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
    MatchState state; // NOLINT(cppcoreguidelines-pro-type-member-init): 27 KiB, mostly unused
    state.src_init = src.data();
    state.src_end = src.data() + src.size();
    state.pattern_init = pattern.data();
    state.pattern_end = pattern.data() + pattern.size();
    state.steps =
        stepsFor(static_cast<std::int64_t>(src.size()), static_cast<std::int64_t>(pattern.size()));
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
