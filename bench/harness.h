// What every benchmark program shares: the clock, the histogram, the use of the processor, and the
// command line. One process measures one cell of one system, so that memory and context switches
// belong to that system alone.
#ifndef BENCH_HARNESS_H
#define BENCH_HARNESS_H

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace bench {

inline constexpr std::string_view kRequest = "sixteen bytes...";       // 16
inline constexpr std::string_view kAnswer = "twenty-three bytes here"; // 23
static_assert(kRequest.size() == 16 && kAnswer.size() == 23);

// Nanoseconds of a steady clock.
std::int64_t now() noexcept;

// Times in nanoseconds, to within one per cent; its size does not grow with their number.
class Histogram {
public:
    void add(std::int64_t nanoseconds) noexcept;
    void add(const Histogram &other) noexcept;
    // The time that the given part of all times does not exceed; 0 when there is none.
    std::int64_t quantile(double part) const noexcept;

private:
    static constexpr unsigned kBits = 7; // buckets for each power of two: 1 << kBits
    std::array<std::uint32_t, (64 - kBits + 1) << kBits> counts_{};
    std::uint64_t total_ = 0;
};

// Processor seconds and context switches of the process, without those of the calling thread when
// that is wanted.
struct Usage {
    double processor = 0;
    long switches = 0;
};
Usage usage() noexcept;
Usage usageOfOthers() noexcept;
Usage operator-(const Usage &after, const Usage &before) noexcept;

struct Result {
    std::uint64_t operations = 0;
    double seconds = 0;
    Histogram times;
    std::uint64_t lost = 0;
    Usage used;
};

// What a cell asks of a system.
struct Shape {
    int subscribers = 1; // of each topic that is measured
    int others = 0;      // further nodes
    int otherTopics = 0; // topics that each of them holds
    int timers = 0;      // that wait in the called node, far in the future
    int logLevel = 3;    // of Zelvo, whose log goes into a file
    int publishers = 1;  // nodes that publish what is measured, each in a thread of its own
    int topics = 1;      // that are measured; the publishers take them in turn
};

// Two nodes, one of which calls the other.
class Caller {
public:
    Caller() = default;
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;
    virtual ~Caller() = default;
    // One round trip with kRequest; the length of the answer.
    virtual std::size_t call() = 0;
};

// Nodes that publish to subscribers, each of which hands what it receives to a sink.
class Publisher {
public:
    Publisher() = default;
    Publisher(const Publisher &) = delete;
    Publisher &operator=(const Publisher &) = delete;
    virtual ~Publisher() = default;
    // By the publisher of this number; one thread at a time for each of them.
    virtual void publish(int publisher, std::string_view payload) = 0;
};

class Sink;

// A cell that only some systems have.
struct OwnCell {
    std::string_view name;
    Result (*run)(int milliseconds);
};

// One way to do the work, and the cells that it can do.
struct System {
    std::string_view name;
    std::unique_ptr<Caller> (*caller)(const Shape &shape) = nullptr;
    std::unique_ptr<Publisher> (*publisher)(const Shape &shape, Sink &sink) = nullptr;
    std::vector<std::string_view> cells;
    std::vector<OwnCell> own;
};

// The longest time that a program waits for messages that may have been lost.
inline constexpr int kPatience = 2;

// Every program's main: --list names systems and cells; SYSTEM CELL MILLISECONDS measures one and
// writes one line, whose fields docs/benchmarks/README.md describes.
int run(int argc, char **argv, std::span<const System> systems);

} // namespace bench

#endif
