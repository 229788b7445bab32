// The items of a pattern: items.cpp reads them, find.cpp searches with them.
#ifndef ZELVO_BUS_MK_STR_INTERNAL_H
#define ZELVO_BUS_MK_STR_INTERNAL_H

namespace pattern {

enum class Kind { kSingle, kOpen, kClose, kReference, kBalance, kFrontier, kTextEnd, kEnd, kBad };

// One item of a pattern. What it matches is told by the bytes from body to last: a class, the two
// characters of a balance, the set of a frontier, the digit of a back-reference, "(" or "()".
struct Item {
    Kind kind;
    char repeat; // one of kRepeats, or zero
    const char *body;
    const char *last;
    const char *next;
};

// The item that begins at at. A zero byte stands at end, where the pattern ends.
Item readItem(const char *at, const char *end) noexcept;

// Whether the class that is the item, or the set of a frontier, holds the character c.
bool classHolds(const Item &item, unsigned char c) noexcept;

constexpr unsigned char byteOf(char c) noexcept {
    return static_cast<unsigned char>(c);
}

} // namespace pattern

#endif
