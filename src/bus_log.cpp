#include "bus_log.h"

#include "bus_mk_str.h"
#include "bus_mk_thread.h"
#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace bus {

constinit std::atomic<int> _level{INT_MAX};

namespace {

constexpr char BUS_LOG_LEVEL[] = "-VDIWE-";
constexpr std::size_t kBudget = 4094; // of the 4096 bytes, without the line feed and the NUL

// Nothing here is destroyed: a thread may write a line while another closes the log, and after main
// has returned.
constinit bus_mk_thread_mutex_t _lock{.hMutex = {bus_mk_thread_mutex_ready}};
std::FILE *_file BUS_MK_GUARDED_BY(_lock);
std::array<char, kBudget + 2> _buf BUS_MK_GUARDED_BY(_lock);
std::size_t _length BUS_MK_GUARDED_BY(_lock); // of the line in it
char *_log_path BUS_MK_GUARDED_BY(_lock);     // owned
float max_size BUS_MK_GUARDED_BY(_lock) = 20971520.0F;
std::int64_t _unasked BUS_MK_GUARDED_BY(_lock); // bytes until the file's size is looked at

// What the destination did not take, and what standard error has been told of that.
struct Loss {
    long lines; // since it last took one
    int reason;
    const char *file; // where the last error came from
    int line;
};
constinit Loss _loss BUS_MK_GUARDED_BY(_lock){};

void tellReason(const char *destination, int reason) noexcept BUS_MK_REQUIRES(_lock) {
    if (reason == _loss.reason) {
        return;
    }
    _loss.reason = reason;
    std::array<char, 512> text{};
    std::snprintf(text.data(), text.size(), "zelvo: log %s", destination);
    errno = reason;
    std::perror(text.data());
}

std::FILE *openOrStdout(const char *path, const char *mode) noexcept BUS_MK_REQUIRES(_lock) {
    std::FILE *const file = platform::openFile(path, mode);
    if (!file) {
        tellReason(path, errno);
        return stdout;
    }
    platform::seekEnd(file); // the position of an appending stream is unspecified before
    return file;
}

void closeFile() noexcept BUS_MK_REQUIRES(_lock) {
    if (_file && _file != stdout) {
        std::fclose(_file);
    }
    _file = nullptr;
}

void setPath(const char *path) noexcept BUS_MK_REQUIRES(_lock) {
    std::free(_log_path);
    _log_path = bus_mk_strdup(path);
}

void openFile(const char *path, int mode, float size) noexcept BUS_MK_REQUIRES(_lock) {
    _file = stdout;
    _loss = {};
    _unasked = 0;
    if (!path || *path == '\0') {
        return;
    }
    setPath(path);
    max_size = size * 1024 * 1024;
    if (_log_path) {
        _file = openOrStdout(path, mode == 0 ? "wb" : "ab");
    }
}

// Others may write to the file, or cut it: its size is looked at after an eighth of what is left.
void rotateIfFull() noexcept BUS_MK_REQUIRES(_lock) {
    if (max_size <= 0 || _unasked > 0) {
        return;
    }
    const std::int64_t length = platform::filePosition(_file);
    const float left = max_size - static_cast<float>(length);
    _unasked = static_cast<std::int64_t>(std::min(left / 8, 1e9F));
    if (left > 0) {
        return;
    }
    closeFile();
    platform::removeFile(_log_path);
    _file = openOrStdout(_log_path, "wb");
    if (_file != stdout) {
        std::fprintf(_file, "\nlog file size: %lld, remove file:  %s\n\n",
                     static_cast<long long>(length), _log_path);
    }
}

// Adds to the line what fits of a text.
void put(std::string_view text) noexcept BUS_MK_REQUIRES(_lock) {
    const std::size_t size = std::min(text.size(), kBudget - _length);
    std::memcpy(_buf.data() + _length, text.data(), size);
    _length += size;
}

// Adds a text and a number, which is filled up at its left to at least width characters.
void put(std::string_view before, std::uint32_t number, int width, char fill) noexcept
    BUS_MK_REQUIRES(_lock) {
    std::array<char, 10> digits{};
    digits.fill(fill);
    char *const end = digits.data() + digits.size();
    char *first = end;
    do {
        *--first = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    first = std::min(first, end - width);
    put(before);
    put({first, static_cast<std::size_t>(end - first)});
}

// Adds the text of a format with no other conversions than %s and %d, the latter with a width of
// one digit or none, as nearly all have. False: it has others, or must go the long way; a part is
// added.
bool putPlain(const char *fmt, std::va_list args) noexcept BUS_MK_REQUIRES(_lock) {
    for (;; ++fmt) {
        const std::size_t literal = std::strcspn(fmt, "%");
        put({fmt, literal});
        fmt += literal;
        if (*fmt == '\0') {
            return true;
        }
        const int width = *++fmt >= '1' && *fmt <= '9' ? *fmt++ - '0' : 0;
        const char *const text = *fmt == 's' && width == 0 ? va_arg(args, const char *) : nullptr;
        const int number = *fmt == 'd' ? va_arg(args, int) : -1;
        if (text) {
            put({text, strnlen(text, kBudget)}); // looked at no farther than it can be shown
        } else if (number >= 0) {
            put("", static_cast<std::uint32_t>(number), width, ' ');
        } else {
            return false;
        }
    }
}

// What stands between the numbers of a thread and the milliseconds, composed once for each second.
std::string_view stampOf(std::int64_t second) noexcept BUS_MK_REQUIRES(_lock) {
    using namespace std::chrono;
    static std::int64_t composed = -1;
    static std::array<char, 64> text{};
    if (second != composed) {
        composed = second;
        const sys_seconds local{seconds{second} + hours{8}};
        const auto midnight = floor<days>(local);
        const year_month_day date{midnight};
        const auto clock = static_cast<int>((local - midnight).count());
        std::snprintf(text.data(), text.size(), "]%02d-%02u-%02u %02d:%02d:%02d.",
                      static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                      static_cast<unsigned>(date.day()), clock / 3600, clock / 60 % 60, clock % 60);
    }
    return text.data();
}

// "[pid:tid]date time [L] file#line#"
void putHead(int level, const char *file, int line) noexcept BUS_MK_REQUIRES(_lock) {
    timeval now{};
    gettimeofday(&now, nullptr);
    put("[", platform::processId(), 5, '0');
    put(":", platform::threadId(), 5, '0');
    put(stampOf(now.tv_sec), static_cast<std::uint32_t>(now.tv_usec / 1000), 3, '0');
    put(" [");
    put({&BUS_LOG_LEVEL[level], 1});
    put("] ");
    put(file);
    put("#", static_cast<std::uint32_t>(line), 4, ' ');
    put("#");
}

// A line that was cut by a failure ends where the notice begins.
bool writeLine() noexcept BUS_MK_REQUIRES(_lock) {
    if (_loss.lines > 0) {
        std::fprintf(_file, "\nlog lines lost: %ld\n\n", _loss.lines);
    }
    _unasked -= static_cast<std::int64_t>(_length);
    const bool taken = std::fwrite(_buf.data(), 1, _length, _file) == _length;
    return std::fflush(_file) == 0 && taken; // in any case: nothing is to stay in the stream
}

// An error is not to vanish with the log: standard error gets it, from one place once in a row.
void lose(int level, const char *file, int line) noexcept BUS_MK_REQUIRES(_lock) {
    constexpr int kError = 5;
    ++_loss.lines;
    tellReason(_file == stdout ? "standard output" : _log_path, errno);
    if (level >= kError && (file != _loss.file || line != _loss.line)) {
        _loss.file = file;
        _loss.line = line;
        std::fputs(_buf.data(), stderr);
    }
}

} // namespace

void bus_log_init(int level, const char *output_path, int mode, float size) noexcept {
    const bus_mk_guard lock{_lock};
    if (!_file) {
        openFile(output_path, mode, size);
    }
    _level.store(level, std::memory_order_relaxed);
}

void bus_log_exit() noexcept {
    const bus_mk_guard lock{_lock};
    _level.store(INT_MAX, std::memory_order_relaxed);
    closeFile();
    setPath(nullptr);
}

void _bus_log(int level, const char *file, int line, const char * /*func*/, const char *fmt,
              ...) noexcept {
    const bus_mk_guard lock{_lock};
    if (!_file || !logEnabled(level)) {
        return;
    }
    _length = 0;
    putHead(level, file, line);
    const std::size_t head = _length;
    std::va_list args;
    va_start(args, fmt);
    const bool complete = putPlain(fmt, args);
    va_end(args);
    if (!complete) {
        va_start(args, fmt);
        std::vsnprintf(_buf.data() + head, kBudget + 1 - head, fmt, args);
        va_end(args);
        _length = head + std::strlen(_buf.data() + head);
    }
    if (_buf[_length - 1] != '\n') {
        _buf[_length++] = '\n';
    }
    _buf[_length] = '\0';
    if (_file != stdout) {
        rotateIfFull();
    }
    if (writeLine()) {
        _loss.lines = 0;
    } else {
        lose(level, file, line);
    }
}

timeval toTimeval(std::chrono::system_clock::time_point time) noexcept {
    using namespace std::chrono;
    const auto now = floor<milliseconds>(time.time_since_epoch());
    const auto whole = floor<seconds>(now);
    return {whole.count(), microseconds{now - whole}.count()};
}

int gettimeofday(timeval *tp, void * /*tzp*/) noexcept {
    *tp = toTimeval(std::chrono::system_clock::now());
    return 0;
}

} // namespace bus
