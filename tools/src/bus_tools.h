// Time, and small helpers of the system. Any thread may call anything.
#ifndef ZELVO_BUS_TOOLS_H
#define ZELVO_BUS_TOOLS_H

#include <chrono>

namespace bus {

// Seconds of a clock that never goes backwards, in steps of a millisecond; it does not follow the
// wall clock, and counts on 64 bits.
double clock_gettimestamp() noexcept;

// Milliseconds since the full hour in UTC, 0 to 3,599,999: at a given time, and now.
long millsOfHour(std::chrono::system_clock::time_point time) noexcept;
long system_gettimestampmills() noexcept;

// Microseconds since the full second, 0 to 999,999, of the clock of clock_gettimestamp.
unsigned int bus_getstimeval() noexcept;

// Writes 36 characters to uuid, without a NUL behind them: a random identifier in the layout
// xxxxxxxx-xxxx-4xxx-Vxxx-xxxxxxxxxxxx, in small letters, V one of 8, 9, a, b. Seeds the process's
// rand() by the microsecond: identifiers can be guessed, and two may be equal.
void bus_getuuid(char *uuid) noexcept;

// 0: some process runs an executable of that file name, without regard to case. -1: none does, or
// the processes cannot be listed, which standard output then says.
int check_progress(const char *pname) noexcept;

// Stores the one sample at in_buf at out_buf, which may be the same, louder or softer: times
// value from in_vol 100 on, by in_vol - 98 above 99, unchanged from 98 to 99, 1 / (98 - in_vol)
// below, silent at 0 and less and where in_vol is not a number. What is too loud is clipped.
// Always 0.
int volume_adjust(const short *in_buf, short *out_buf, float in_vol, int value) noexcept;

// Not provided on any system: -1.
long get_dir_size(const char *dir) noexcept;

} // namespace bus

#endif
