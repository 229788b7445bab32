// The bridge's lines, in the form of the bus's log, which the public functions do not open to
// others.
#ifndef ZELVO_MQTT_LOG_H
#define ZELVO_MQTT_LOG_H

#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace zelvo_mqtt {

enum class Level { kVerbose = 1, kDebug, kInfo, kWarning, kError };

// Where a line is written from.
struct Place {
    const char *file;
    int line;
    static constexpr Place here(const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {file, line};
    }
};

// Threads: any may write. Blocking: only as far as a file on a disk does; a pipe or a terminal that
// takes nothing more gets no line, which is counted. Control characters in a text become "?": much
// of it comes from outside. What writes asks for no memory and throws nothing, so that a line can
// tell of there being none.
class Log {
public:
    static constexpr int kLinesASecond = 100;
    using Parts = std::initializer_list<std::string_view>; // of one text

    Log() = default;
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;
    ~Log();

    // Begins to append to a file, which is deleted and begun anew when it has got so many bytes (0:
    // never); an empty path stays with standard error. False: it can't be opened, and nothing has
    // changed. Before other threads write.
    bool open(const std::string &path, Level least, std::size_t most = 0);
    // Stands behind the tag of every line: the site.
    void setName(std::string name) { name_ = std::move(name); }

    void write(Level level, Parts parts, Place place) noexcept;
    void info(std::string_view text, Place place = Place::here()) noexcept {
        write(Level::kInfo, {text}, place);
    }
    void warning(std::string_view text, Place place = Place::here()) noexcept {
        write(Level::kWarning, {text}, place);
    }
    void error(Parts parts, Place place = Place::here()) noexcept {
        write(Level::kError, parts, place);
    }

private:
    struct Close {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    bool admits();
    bool takesLine() const;
    void tellLeftOut();
    bool append(const std::string &path);
    bool isToBeBegun() const;
    void print(Level level, Parts parts, Place place);

    Level least_ = Level::kInfo;
    std::string name_ = "-";
    std::mutex mutex_; // of everything below
    std::unique_ptr<std::FILE, Close> file_;
    std::string path_;
    std::size_t most_ = 0;
    std::chrono::steady_clock::time_point second_;
    int lines_ = 0;
    unsigned long leftOut_ = 0;
};

} // namespace zelvo_mqtt

#endif
