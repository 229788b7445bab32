#include "log.h"

#include <array>
#include <cstring>
#include <ctime>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelvo_mqtt {
namespace {

constexpr std::size_t kLongest = 600;

std::array<char, kLongest + 1> printable(Log::Parts parts) {
    std::array<char, kLongest + 1> line{};
    std::size_t length = 0;
    for (const std::string_view part : parts) {
        for (const char c : part.substr(0, kLongest - length)) {
            line[length++] = static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
        }
    }
    return line;
}

// In UTC+8, as in the bus's log, so that the two can be read side by side.
std::array<char, 40> timeStamp() {
    const auto now = std::chrono::system_clock::now();
    const auto since = now.time_since_epoch();
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(since).count() % 1000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now) + std::time_t{8} * 3600;
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 40> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03d",
                  static_cast<int>(milliseconds));
    return text;
}

} // namespace

Log::~Log() {
    const std::lock_guard lock{mutex_};
    tellLeftOut();
}

bool Log::open(const std::string &path, Level least, std::size_t most) {
    const std::lock_guard lock{mutex_};
    if (!path.empty() && !append(path)) {
        return false;
    }
    path_ = path;
    least_ = least;
    most_ = most;
    return true;
}

bool Log::append(const std::string &path) {
    std::unique_ptr<std::FILE, Close> file{std::fopen(path.c_str(), "ae")};
    if (file) {
        file_ = std::move(file);
        return true;
    }
    return false;
}

void Log::write(Level level, Parts parts, Place place) noexcept {
    if (level < least_) {
        return;
    }
    const std::lock_guard lock{mutex_};
    if (admits()) {
        print(level, parts, place);
    }
}

// A flood of refusals is counted, not written.
bool Log::admits() {
    const auto now = std::chrono::steady_clock::now();
    if (now - second_ >= std::chrono::seconds{1}) {
        second_ = now;
        lines_ = 0;
        tellLeftOut();
    }
    if (lines_ >= kLinesASecond || !takesLine()) {
        ++leftOut_;
        return false;
    }
    ++lines_;
    return true;
}

// A pipe or a terminal that nobody reads would hold up whoever writes. A line is shorter than what
// there is room for then.
bool Log::takesLine() const {
    pollfd out{fileno(file_ ? file_.get() : stderr), POLLOUT, 0};
    return poll(&out, 1, 0) != 0;
}

void Log::tellLeftOut() {
    if (leftOut_ > 0 && takesLine()) {
        print(Level::kWarning, {std::to_string(leftOut_), " further lines were left out"},
              Place::here());
        leftOut_ = 0;
    }
}

// Others may write to the file, and may have begun it anew.
bool Log::isToBeBegun() const {
    struct stat now {};
    return file_ && fstat(fileno(file_.get()), &now) == 0 &&
           (now.st_nlink == 0 || (most_ > 0 && static_cast<std::size_t>(now.st_size) >= most_ &&
                                  std::remove(path_.c_str()) == 0));
}

void Log::print(Level level, Parts parts, Place place) {
    if (isToBeBegun()) {
        append(path_); // else the lines go on in the old one
    }
    std::FILE *const out = file_ ? file_.get() : stderr;
    std::fprintf(out, "[%05d:%05d]%s [%c] %s#%4d#  zelvo-mqtt %s %s\n", static_cast<int>(getpid()),
                 static_cast<int>(gettid()), timeStamp().data(), "-VDIWE"[static_cast<int>(level)],
                 place.file, place.line, name_.c_str(), printable(parts).data());
    std::fflush(out);
}

} // namespace zelvo_mqtt
