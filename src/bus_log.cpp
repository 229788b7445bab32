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

namespace bus {

constinit std::atomic<int> _level{INT_MAX};

namespace {

constexpr char BUS_LOG_LEVEL[] = "-VDIWE-";
constexpr std::size_t kBudget = 4094; // of the 4096 bytes, without the line feed and the NUL

// Never destroyed: a thread may write a line while another closes the log.
constinit bus_mk_thread_mutex_t _lock{.hMutex = {bus_mk_thread_mutex_ready}};
std::FILE *_file BUS_MK_GUARDED_BY(_lock);
std::array<char, kBudget + 2> _buf BUS_MK_GUARDED_BY(_lock);
bus_mk_text _log_path BUS_MK_GUARDED_BY(_lock);
float max_size BUS_MK_GUARDED_BY(_lock) = 20.0F * 1024 * 1024;

// What the destination did not take, and what standard error has been told of that.
struct Loss {
    long lines = 0; // since it last took one
    int reason = 0;
    const char *file = nullptr; // where the last error came from
    int line = 0;
};
constinit Loss _loss BUS_MK_GUARDED_BY(_lock);

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
    std::fseek(file, 0, SEEK_END); // the position of an appending stream is unspecified before
    return file;
}

void closeFile() noexcept BUS_MK_REQUIRES(_lock) {
    if (_file && _file != stdout) {
        std::fclose(_file);
    }
    _file = nullptr;
}

void openFile(const char *path, int mode, float size) noexcept BUS_MK_REQUIRES(_lock) {
    _file = stdout;
    _loss = {};
    if (!path || *path == '\0') {
        return;
    }
    _log_path.reset(bus_mk_strdup(path));
    max_size = size * 1024 * 1024;
    if (_log_path) {
        _file = openOrStdout(path, mode == 0 ? "wb" : "ab");
    }
}

void rotateIfFull() noexcept BUS_MK_REQUIRES(_lock) {
    const long length = std::ftell(_file);
    if (max_size <= 0 || static_cast<float>(length) < max_size) {
        return;
    }
    closeFile();
    platform::removeFile(_log_path.get());
    _file = openOrStdout(_log_path.get(), "wb");
    if (_file != stdout) {
        std::fprintf(_file, "\nlog file size: %d, remove file:  %s\n\n", static_cast<int>(length),
                     _log_path.get());
    }
}

// "[pid:tid]date time [L] file#line#"; the result is its length.
std::size_t formatHead(int level, const char *file, int line) noexcept BUS_MK_REQUIRES(_lock) {
    using namespace std::chrono;
    timeval now{};
    gettimeofday(&now, nullptr);
    const sys_seconds local{seconds{now.tv_sec} + hours{8}};
    const auto midnight = floor<days>(local);
    const year_month_day date{midnight};
    const hh_mm_ss time{local - midnight};
    const int length = std::snprintf(
        _buf.data(), kBudget + 1, "[%05u:%05u]%02d-%02u-%02u %02d:%02d:%02d.%03d [%c] %s#%4d#",
        platform::processId(), platform::threadId(), static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()), now.tv_usec / 1000, BUS_LOG_LEVEL[level], file,
        line);
    return std::min(static_cast<std::size_t>(std::max(length, 0)), kBudget);
}

// A line that was cut by a failure ends where the notice begins.
bool writeLine(std::size_t length) noexcept BUS_MK_REQUIRES(_lock) {
    if (_loss.lines > 0) {
        std::fprintf(_file, "\nlog lines lost: %ld\n\n", _loss.lines);
    }
    const bool taken = std::fwrite(_buf.data(), 1, length, _file) == length;
    return std::fflush(_file) == 0 && taken; // in any case: nothing is to stay in the stream
}

// An error is not to vanish with the log: standard error gets it, from one place once in a row.
void lose(int level, const char *file, int line) noexcept BUS_MK_REQUIRES(_lock) {
    constexpr int kError = 5;
    ++_loss.lines;
    tellReason(_file == stdout ? "standard output" : _log_path.get(), errno);
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
    _log_path.reset();
}

void _bus_log(int level, const char *file, int line, const char * /*func*/, const char *fmt,
              ...) noexcept {
    const bus_mk_guard lock{_lock};
    if (!_file || !logEnabled(level)) {
        return;
    }
    std::size_t length = formatHead(level, file, line);
    std::va_list args;
    va_start(args, fmt);
    std::vsnprintf(_buf.data() + length, kBudget + 1 - length, fmt, args);
    va_end(args);
    length += std::strlen(_buf.data() + length);
    if (_buf[length - 1] != '\n') {
        _buf[length++] = '\n';
        _buf[length] = '\0';
    }
    if (_file != stdout) {
        rotateIfFull();
    }
    if (writeLine(length)) {
        _loss.lines = 0;
    } else {
        lose(level, file, line);
    }
}

int gettimeofday(timeval *tp, void * /*tzp*/) noexcept {
    using namespace std::chrono;
    const auto now = floor<milliseconds>(system_clock::now().time_since_epoch());
    const auto whole = floor<seconds>(now);
    tp->tv_sec = static_cast<std::int32_t>(whole.count());
    tp->tv_usec = static_cast<std::int32_t>(microseconds{now - whole}.count());
    return 0;
}

} // namespace bus
