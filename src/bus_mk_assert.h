// Checks of broken invariants and of the foundation's preconditions. They stay on in release
// builds: going on after one has failed would corrupt what other threads hold.
#ifndef ZELVO_BUS_MK_ASSERT_H
#define ZELVO_BUS_MK_ASSERT_H

#include <cstdio>
#include <cstdlib>

[[noreturn]] inline void bus_mk_assert_fail(const char *file, int line, const char *text) noexcept {
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, text);
    std::abort();
}

// Ends the process with text on standard error unless condition holds.
#define BUS_MK_ASSERT(condition, text)                                                             \
    ((condition) ? static_cast<void>(0) : bus_mk_assert_fail(__FILE__, __LINE__, (text)))

#endif
