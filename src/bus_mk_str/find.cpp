#include "bus_mk_str.h"
#include "bus_mk_str/internal.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

namespace {

using namespace pattern;

constexpr std::string_view kSpecials = "^$*+?.([%-";

// Lengths of captures that hold no text.
constexpr std::ptrdiff_t kStillOpen = -1;
constexpr std::ptrdiff_t kPosition = -2;

struct Capture {
    const char *init;
    std::ptrdiff_t len;
};

// A repeat that has been gone through, to be taken up again where the rest of the pattern does not
// match.
struct Choice {
    Item item;
    std::int32_t at;     // where in the text the rest is tried
    std::int32_t least;  // the first place where it may be
    std::int32_t level;  // how many captures had begun before,
    std::int32_t closed; // and how many had ended
};

template <typename Entry>
using Table = std::unique_ptr<Entry[], bus_mk_free>;
constexpr std::int32_t kOwnChoices = 64;
constexpr std::int32_t kNowhere = -1;

// All that a search works with. What has no value here is set before it is read.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
struct MatchState {
    const char *src_init;
    const char *src_end;
    std::int32_t level = 0;
    Capture capture[bus_mk_str_max_captures];
    std::int32_t closed = 0;
    std::int32_t closing[bus_mk_str_max_captures]; // the captures that have ended, in that order

    const char *pattern_end;
    const char *item; // the rest of the pattern
    const char *at;   // the rest of the text

    // Those of the pattern's first repeats, in their order, since its items follow each other
    // without alternatives. On the heap where there are more repeats than own ones.
    std::int32_t choices;
    std::int32_t repeats = 0;
    Choice *choice = &own_choices[0];
    Choice own_choices[kOwnChoices];
    Table<Choice> more_choices;

    // A bit for each repeat and each place where the rest behind it has been tried in vain. That
    // does not depend on how the place was reached, unless a back-reference behind the repeat names
    // a capture before it: only between the two of context. Made when patience is at an end; a
    // search that gets no memory for it only takes longer.
    std::int64_t patience;
    Table<unsigned char> tried;
    const char *context_init;
    const char *context_end = nullptr;

    // Where the balances end that begin at a place, for the pairs of filled: the second character
    // by the first. Made when as much text has been scanned as that takes, and as dispensable.
    std::int64_t scanned = 0;
    Table<std::int32_t> ends;
    char filled[UCHAR_MAX + 1] = {};
};

// All zeros; null: no memory.
template <typename Entry>
Table<Entry> makeTable(std::int64_t rows, std::size_t rowSize = sizeof(Entry)) noexcept {
    return Table<Entry>{static_cast<Entry *>(std::calloc(static_cast<std::size_t>(rows), rowSize))};
}

// ---- captures ----

bool beginCapture(MatchState &state, const Item &item) noexcept {
    if (state.level == bus_mk_str_max_captures) {
        return false;
    }
    const bool position = item.last - item.body == 2;
    state.capture[state.level++] = {state.at, position ? kPosition : kStillOpen};
    return true;
}

// Ends the capture begun last of those that are still open; false: none is.
bool endCapture(MatchState &state, const Item & /*item*/) noexcept {
    for (std::int32_t i = state.level; i-- > 0;) {
        Capture &capture = state.capture[i];
        if (capture.len == kStillOpen) {
            capture.len = state.at - capture.init;
            state.closing[state.closed++] = i;
            return true;
        }
    }
    return false;
}

// The capture that a back-reference names; null: it has not begun, or is still open.
const Capture *referredCapture(const MatchState &state, const Item &item) noexcept {
    const int index = *item.body - '1';
    const bool complete =
        index >= 0 && index < state.level && state.capture[index].len != kStillOpen;
    return complete ? &state.capture[index] : nullptr;
}

// ---- the items ----

std::int32_t offsetOf(const MatchState &state, const char *at) noexcept {
    return static_cast<std::int32_t>(at - state.src_init);
}

bool holdsAt(const MatchState &state, const Item &item, const char *at) noexcept {
    return at < state.src_end && classHolds(item, byteOf(*at));
}

// The bytes that a bit for each place in the text needs.
std::size_t rowSize(const MatchState &state) noexcept {
    return static_cast<std::size_t>(state.src_end - state.src_init) / CHAR_BIT + 1;
}

// The bits of the places where the rest behind the choice's repeat has been tried; null: they are
// not kept.
unsigned char *triedBehind(const MatchState &state, const Choice &choice) noexcept {
    const char *const item = choice.item.body;
    if (!state.tried || (state.context_init < item && item < state.context_end)) {
        return nullptr;
    }
    return &state.tried[static_cast<std::size_t>(&choice - state.choice) * rowSize(state)];
}

bool isSet(const unsigned char *bits, std::int32_t at) noexcept {
    return bits && (bits[at / CHAR_BIT] >> at % CHAR_BIT & 1) != 0;
}

// Where the run of the class ends that begins at the choice's least place. Where the rest has been
// tried at a place of a run, it has been at all places behind.
std::int32_t runEnd(const MatchState &state, const Choice &choice) noexcept {
    const unsigned char *const tried = triedBehind(state, choice);
    const char *at = state.src_init + choice.least;
    while (!isSet(tried, offsetOf(state, at)) && holdsAt(state, choice.item, at)) {
        ++at;
    }
    return offsetOf(state, at);
}

// Goes on behind the repeat; false: that has been tried here before.
bool takeUp(MatchState &state, const Choice &choice) noexcept {
    unsigned char *const tried = triedBehind(state, choice);
    if (isSet(tried, choice.at)) {
        return false;
    }
    if (tried) {
        tried[choice.at / CHAR_BIT] |= static_cast<unsigned char>(1U << choice.at % CHAR_BIT);
    }
    state.at = state.src_init + choice.at;
    state.item = choice.item.next;
    return true;
}

bool matchRepeat(MatchState &state, const Item &item) noexcept {
    const bool one = holdsAt(state, item, state.at);
    if (item.repeat == '+' && !one) {
        return false;
    }
    const std::int32_t at = offsetOf(state, state.at);
    const std::int32_t least = item.repeat == '+' ? at + 1 : at;
    Choice &choice = state.choice[state.choices++];
    choice = {item, least, least, state.level, state.closed};
    if (item.repeat == '?') {
        choice.at += one ? 1 : 0;
    } else if (item.repeat != '-') {
        choice.at = runEnd(state, choice);
    }
    return takeUp(state, choice);
}

// Takes the choice up at its next place; false: it has none, or not one that has not been tried.
bool retry(MatchState &state, Choice &choice) noexcept {
    if (choice.item.repeat == '-') {
        if (!holdsAt(state, choice.item, state.src_init + choice.at)) {
            return false;
        }
        ++choice.at;
    } else if (choice.at-- == choice.least) {
        return false;
    }
    while (state.closed > choice.closed) {
        state.capture[state.closing[--state.closed]].len = kStillOpen;
    }
    state.level = choice.level;
    return takeUp(state, choice);
}

// Takes up the latest choice that has something left; false: none has.
bool goBack(MatchState &state) noexcept {
    if (--state.patience == 0) {
        state.tried = makeTable<unsigned char>(state.repeats, rowSize(state));
    }
    while (state.choices > 0) {
        if (retry(state, state.choice[state.choices - 1])) {
            return true;
        }
        --state.choices;
    }
    return false;
}

// Notes in one pass where each run from open to close ends. The entries of those that have begun
// lead from the latest to the first.
void fillEnds(MatchState &state, char open, char close) noexcept {
    const std::int32_t places = offsetOf(state, state.src_end);
    if (!state.ends) {
        state.ends = makeTable<std::int32_t>(places);
    }
    std::int32_t *const ends = state.ends.get();
    if (!ends) {
        return;
    }
    std::int32_t latest = kNowhere;
    for (std::int32_t at = 0; at < places; ++at) {
        const char c = state.src_init[at];
        if (c == close && latest != kNowhere) {
            latest = std::exchange(ends[latest], at + 1);
        }
        if (c == open) {
            ends[at] = std::exchange(latest, at);
        }
    }
    while (latest != kNowhere) {
        latest = std::exchange(ends[latest], kNowhere);
    }
    state.filled[byteOf(open)] = close;
}

std::int32_t scanBalance(MatchState &state, char open, char close) noexcept {
    std::ptrdiff_t depth = 1;
    const char *at = state.at + 1;
    for (; at < state.src_end && depth > 0; ++at) {
        if (*at == close) {
            --depth;
        } else if (*at == open) {
            ++depth;
        }
    }
    state.scanned += at - state.at;
    if (state.scanned > state.src_end - state.src_init) {
        state.scanned = 0;
        fillEnds(state, open, close);
    }
    return depth == 0 ? offsetOf(state, at) : kNowhere;
}

bool matchBalance(MatchState &state, const Item &item) noexcept {
    const char open = item.body[0];
    const char close = item.body[1];
    if (state.at == state.src_end || *state.at != open) {
        return false;
    }
    const std::int32_t end = state.filled[byteOf(open)] == close
                                 ? state.ends.get()[offsetOf(state, state.at)]
                                 : scanBalance(state, open, close);
    if (end == kNowhere) {
        return false;
    }
    state.at = state.src_init + end;
    return true;
}

bool matchSingle(MatchState &state, const Item &item) noexcept {
    if (item.repeat) {
        return matchRepeat(state, item);
    }
    const bool holds = holdsAt(state, item, state.at);
    state.at += holds ? 1 : 0;
    return holds;
}

bool matchBackReference(MatchState &state, const Item &item) noexcept {
    const auto [init, len] = *referredCapture(state, item);
    if (len == kPosition || len > state.src_end - state.at ||
        !std::equal(init, init + len, state.at)) {
        return false;
    }
    state.at += len;
    return true;
}

bool matchFrontier(MatchState &state, const Item &item) noexcept {
    const char before = state.at == state.src_init ? '\0' : state.at[-1];
    const char after = state.at == state.src_end ? '\0' : *state.at;
    return !classHolds(item, byteOf(before)) && classHolds(item, byteOf(after));
}

bool matchTextEnd(MatchState &state, const Item & /*item*/) noexcept {
    return state.at == state.src_end;
}

// In the order of Kind, up to the end of a pattern.
constexpr bool (*kMatchers[])(MatchState &, const Item &) = {
    matchSingle,  beginCapture,  endCapture,   matchBackReference,
    matchBalance, matchFrontier, matchTextEnd,
};
static_assert(std::size(kMatchers) == static_cast<std::size_t>(Kind::kEnd));

// ---- the search ----

// Matches the pattern from item on against the text from at on. On success the text's rest begins
// at state.at.
bool matchAt(MatchState &state, const char *item, const char *at) noexcept {
    state.item = item;
    state.at = at;
    state.level = 0;
    state.closed = 0;
    state.choices = 0;
    for (;;) {
        const Item next = readItem(state.item, state.pattern_end);
        if (next.kind == Kind::kEnd) {
            return true;
        }
        state.item = next.next;
        if (!kMatchers[static_cast<std::size_t>(next.kind)](state, next) && !goBack(state)) {
            return false;
        }
    }
}

// Items follow each other without alternatives, so whether the captures that an item needs are
// there depends on the pattern alone.
bool isItemSound(MatchState &state, const Item &item) noexcept {
    switch (item.kind) {
    case Kind::kBad:
        return false;
    case Kind::kOpen:
        return beginCapture(state, item);
    case Kind::kClose:
        return endCapture(state, item);
    case Kind::kReference: {
        const Capture *const capture = referredCapture(state, item);
        state.context_init = std::min(state.context_init, capture ? capture->init : item.body);
        state.context_end = item.next;
        return capture != nullptr;
    }
    default:
        state.repeats += item.repeat ? 1 : 0;
        return true;
    }
}

// Counts the repeats and finds the context on its way. Captures begin in the pattern here.
bool isSound(MatchState &state, const char *pattern) noexcept {
    state.context_init = state.pattern_end;
    Item item = readItem(pattern, state.pattern_end);
    for (; item.kind != Kind::kEnd; item = readItem(item.next, state.pattern_end)) {
        state.at = item.body;
        if (!isItemSound(state, item)) {
            return false;
        }
    }
    return true;
}

bool makeRoom(MatchState &state) noexcept {
    constexpr std::int64_t kCleared = 64; // bytes, in the time of a retry
    state.patience = 32 + static_cast<std::int64_t>(rowSize(state)) * state.repeats / kCleared;
    if (state.repeats > kOwnChoices) {
        state.more_choices = makeTable<Choice>(state.repeats);
        state.choice = state.more_choices.get();
    }
    return state.choice != nullptr;
}

void report(const MatchState &state, const char *start, bus_mk_str_result &result) noexcept {
    result.pos_start = static_cast<std::int32_t>(start - state.src_init);
    result.pos_end = static_cast<std::int32_t>(state.at - state.src_init - 1);
    for (int i = 0; i < state.level; ++i) {
        const auto [init, len] = state.capture[i];
        if (len >= 0) {
            result.p[result.captures] = init;
            result.len[result.captures++] = static_cast<std::int32_t>(len);
        }
    }
}

int findPattern(std::string_view src, std::string_view pattern,
                bus_mk_str_result &result) noexcept {
    MatchState state;
    state.src_init = src.data();
    state.src_end = src.data() + src.size();
    state.pattern_end = pattern.data() + pattern.size();
    const bool anchored = pattern.front() == '^';
    const char *const item = pattern.data() + (anchored ? 1 : 0);
    if (!isSound(state, item) || !makeRoom(state)) {
        return -1;
    }
    const char *const last = anchored ? state.src_init : state.src_end;
    for (const char *start = state.src_init; start <= last; ++start) {
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
    const std::size_t size = data ? std::strlen(data) + 1 : 0;
    void *const copy = data ? std::malloc(size) : nullptr;
    return copy ? static_cast<char *>(std::memcpy(copy, data, size)) : nullptr;
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
