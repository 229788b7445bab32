// A line of the log into a file, flushed: the trace of a publication, in one thread. Its processor
// time is what counts; what the disk does later is not the thread's.
#include "bus_log.h"
#include "scenario.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

namespace {

using namespace bench;

constexpr char kFile[] = "log-line.log"; // in the working directory
constexpr char kSource[] = "src/bus_client/message.cpp";
constexpr float kNeverFull = 4000; // megabytes

// Removes the file when a run ends.
class File {
public:
    File() = default;
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() { unlink(kFile); }
};

// What the line says; each of the three writes it in its own way.
struct Trace {
    const char *module = "Vek-client";
    const char *node = "publisher-0";
    const char *way = "==>";
    const char *target = "busServer";
    const char *action = "publish";
    const char *topic = "measured0";
    const char *url = "NULL";
    const char *payload = R"({"volume":7,"balance":-2,"source":"tuner"})";
    int length = 42;
};

// Lines for the given time, of which a batch is one look at the clock.
template <typename Line>
Result lines(int milliseconds, Line line) {
    constexpr int kBatch = 64;
    Result result = repeat(milliseconds, [&] {
        for (int i = 0; i < kBatch; ++i) {
            line();
        }
    });
    result.operations *= kBatch;
    result.times = {}; // they are of batches
    return result;
}

void writeOwn(const Trace &of) {
    bus::_bus_log(2, kSource, 240, "trace",
                  "  %s #%4d# %s %s %s,  action: %s, topic: %s,  url: %s, payload: %s, "
                  "payload len: %d\n",
                  of.module, 276, of.node, of.way, of.target, of.action, of.topic, of.url,
                  of.payload, of.length);
}

Result own(int milliseconds) {
    const File file;
    const Trace trace;
    bus::bus_log_init(2, kFile, 0, kNeverFull);
    Result result = lines(milliseconds, [&] { writeOwn(trace); });
    bus::bus_log_exit();
    return result;
}

// Its quickest clock: without the machine's zone.
Result spdlogFile(int milliseconds) {
    const File file;
    const Trace of;
    const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(kFile, true);
    spdlog::logger logger{"bus", sink};
    logger.set_level(spdlog::level::debug);
    logger.flush_on(spdlog::level::debug);
    logger.set_formatter(std::make_unique<spdlog::pattern_formatter>(
        "[%P:%t]%Y-%m-%d %H:%M:%S.%e [%L] %g#%4##%v", spdlog::pattern_time_type::utc));
    return lines(milliseconds, [&] {
        logger.log(spdlog::source_loc{kSource, 240, "trace"}, spdlog::level::debug,
                   "  {} #{:4}# {} {} {},  action: {}, topic: {},  url: {}, payload: {}, "
                   "payload len: {}",
                   of.module, 276, of.node, of.way, of.target, of.action, of.topic, of.url,
                   of.payload, of.length);
    });
}

// The bytes of one line, by the system's call alone.
Result bare(int milliseconds) {
    const File name;
    bus::bus_log_init(2, kFile, 0, kNeverFull);
    writeOwn(Trace{});
    bus::bus_log_exit();
    std::string line;
    std::getline(std::ifstream{kFile}, line);
    line += '\n';
    const int file = open(kFile, O_WRONLY | O_TRUNC | O_CLOEXEC);
    Result result = lines(milliseconds, [&] {
        if (write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            throw std::runtime_error("the disk is full");
        }
    });
    close(file);
    return result;
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"Zelvo", nullptr, nullptr, {}, {{"log-line", own}}},
        System{"spdlog", nullptr, nullptr, {}, {{"log-line", spdlogFile}}},
        System{"write(2)", nullptr, nullptr, {}, {{"log-line", bare}}},
    };
    return bench::run(argc, argv, systems);
}
