// The one way any module writes a diagnostic line. Process-wide: one destination (standard output
// or one file), one threshold, one lock.
// Line:    [pid:tid]YYYY-MM-DD hh:mm:ss.mmm [L] file#line#text, the time in UTC+8 whatever the
//          machine's zone, L one of "-VDIWE-" for the levels 0 to 6.
// Threads: any thread may write at any time; lines never interleave. The lock is the innermost of
//          all: nothing else is taken under it.
// Failure: nothing is reported to the caller; before bus_log_init and after bus_log_exit lines are
//          ignored. A line that the destination does not take (a full disk) is lost. Standard error
//          is told why, once for a reason that stays the same until the log is closed, and gets the
//          lost lines of level 5, one of those that come from one place in a row. Before the next
//          line that is taken stands "\nlog lines lost: N\n\n".
#ifndef ZELVO_BUS_LOG_H
#define ZELVO_BUS_LOG_H

#include <atomic>
#include <chrono>
#include <cstdint>

#if defined(__GNUC__)
#define BUS_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define BUS_PRINTF(fmt, first)
#endif

namespace bus {

// Seconds and microseconds since 1970-01-01 00:00:00 UTC.
struct timeval {
    std::int64_t tv_sec;
    std::int64_t tv_usec;
};

// The least level that is written; above every level while the log is closed.
extern std::atomic<int> _level;

// Opens the log. output_path: the file (null or empty, or one that cannot be opened: standard
// output); mode 0 empties it, any other value appends; size: megabytes at which the file is
// deleted and begun anew (0 or less: never); what others write to it and cut of it counts at the
// latest when an eighth of what was left is written. A log that is open keeps all of these: only
// the threshold changes. A file that cannot be begun anew: lines go to standard output from then
// on. Standard error is told why a file is not opened.
void bus_log_init(int level, const char *output_path, int mode, float size) noexcept;
// Closes the log; a later bus_log_init opens it afresh.
void bus_log_exit() noexcept;

// Writes one line; use BUS_LOG. At most 4094 characters; what does not fit is cut. A line feed is
// added where the text ends without one.
void _bus_log(int level, const char *file, int line, const char *func, const char *fmt,
              ...) noexcept BUS_PRINTF(5, 6);

// A time in steps of a millisecond, as the stamp of a line has it.
timeval toTimeval(std::chrono::system_clock::time_point time) noexcept;

// The wall clock, in the same steps. tzp is ignored. Always 0.
int gettimeofday(timeval *tp, void *tzp) noexcept;

// One relaxed load: all that a line below the threshold costs.
inline bool logEnabled(int level) noexcept {
    return level >= _level.load(std::memory_order_relaxed);
}

// What a %s prints for a text that may be absent.
inline const char *orNull(const char *text) noexcept {
    return text ? text : "NULL";
}

} // namespace bus

// The arguments are evaluated only when the line is written.
#define BUS_LOG(level, ...)                                                                        \
    do {                                                                                           \
        if (::bus::logEnabled(level)) {                                                            \
            ::bus::_bus_log((level), __FILE__, __LINE__, __func__, __VA_ARGS__);                   \
        }                                                                                          \
    } while (false)

#endif
