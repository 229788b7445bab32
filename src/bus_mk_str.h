// Texts on the heap, and a search for patterns in texts.
#ifndef ZELVO_BUS_MK_STR_H
#define ZELVO_BUS_MK_STR_H

#include <cstdint>
#include <cstdlib>
#include <memory>

// Owns memory of the C runtime's heap.
struct bus_mk_free {
    void operator()(void *block) const noexcept { std::free(block); }
};
using bus_mk_text = std::unique_ptr<char, bus_mk_free>;

// A copy of data on the C runtime's heap, for the caller to free. Null: data is null, or memory
// is short.
char *bus_mk_strdup(const char *data) noexcept;

// The most captures that a pattern may have.
inline constexpr int bus_mk_str_max_captures = 32;

// Where a match lies, as offsets into the text, and what its captures hold.
struct bus_mk_str_result {
    std::int32_t pos_start;
    std::int32_t pos_end;                   // the last character; pos_start - 1: an empty match
    std::int32_t captures;                  // how many entries of p and len are used
    const char *p[bus_mk_str_max_captures]; // into the text, which is not copied
    std::int32_t len[bus_mk_str_max_captures];
};

// Finds the leftmost match of pattern in src. 0: *result tells where. -1: there is none, and
// *result is all zeros.
//
// A pattern is a sequence of
//   x          the character itself, unless it is special: ^ $ * + ? . ( [ % -
//   .          any character
//   %a %c %d %l %p %s %u %w %x    a letter, control character, digit, lower-case letter,
//              punctuation, white space, upper-case letter, letter or digit, hexadecimal digit, as
//              the C library sees single bytes; the capital letter (%A) takes what is not of the
//              class; %z is the zero character that a frontier sees at either end of the text
//   %%         the character behind the first %, which may be any other than those letters
//   [set]      one of the set: characters, % as above, ranges like a-z; [^set] none of it. A "]"
//              that comes first belongs to the set
// each of which may be followed by * (any number, as many as possible), + (the same, at least
// one), - (any number, as few as possible) or ? (one or none, rather one); and of
//   %bxy       from an x to the y that balances it
//   %f[set]    the place where a character of the set follows one that is not
//   %1 to %9   the text of that capture again; one of a position never matches
//   (...)      a capture; () takes a position, which is not reported, like one never closed
// "^" in front ties the match to the start of the text, "$" at the end to its end; elsewhere they
// are characters like others, and so is a repeat sign that has nothing to repeat. A pattern without
// special characters is plain text, ")" and "]" included.
//
// Finds nothing: a pattern that ends in a single %, leaves a set open, closes more captures than
// it opened, has %b without two characters, %f without a set, or %0 to %9 for a capture that is
// not complete there; one with more than 32 captures; one with more than 64 repeat signs while
// memory is short; a text or a pattern of more than 2,147,483,647 bytes; a null argument.
//
// Cost:    Plain text costs one strstr. Any other pattern costs at most about one step, of 1 to 10
//          ns, for each of its bytes with each of the text's, also where its repeats overlap and
//          where there is no match. Only what stands between a capture and a back-reference to it
//          is tried anew from each place: n bytes of text with k repeats there may take n^(k+1).
// Memory:  At most 8 KiB of stack: nothing recurses. Heap: 48 bytes for each repeat sign where they
//          are more than 64; in a search that takes long, a bit for each byte of text and repeat
//          sign, and 4 bytes for each of the text where balances are searched. What takes long
//          finds the same without, but not within those steps.
// Threads: any; nothing is shared.
int bus_mk_str_find(const char *src, const char *pattern, bus_mk_str_result *result) noexcept;

#endif
