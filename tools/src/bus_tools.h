// Time.
#ifndef ZELVO_BUS_TOOLS_H
#define ZELVO_BUS_TOOLS_H

namespace bus {

// Seconds of a clock that never goes backwards, in steps of a millisecond; it does not follow the
// wall clock, and counts on 64 bits.
double clock_gettimestamp() noexcept;

} // namespace bus

#endif
