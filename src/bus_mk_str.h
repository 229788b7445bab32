// Texts on the heap.
#ifndef ZELVO_BUS_MK_STR_H
#define ZELVO_BUS_MK_STR_H

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

#endif
