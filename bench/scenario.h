// The cells that many systems share: what is done, and how it is timed.
#ifndef BENCH_SCENARIO_H
#define BENCH_SCENARIO_H

#include "harness.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace bench {

enum class Kind { kCall, kIdle, kPublish, kPaced };

struct Cell {
    std::string_view name;
    Kind kind;
    Shape shape;
    std::size_t payload = 64;
    bool oneCore = false;
};

const Cell *findCell(std::string_view name) noexcept; // null: there is none
Result runCell(const System &system, const Cell &cell, int milliseconds);

// Repeats operation for the given time, after a tenth of it for warming up.
Result repeat(int milliseconds, const std::function<void()> &operation);

// Throws when an answer is not what it must be.
void requireAnswer(std::size_t length);

// Where subscribers hand in what they receive. It counts, takes times, and gives the publisher the
// credit that keeps the number of publications under way within a window.
class Sink {
public:
    // Publications are counted by chunks; the window is kChunks of them.
    static constexpr std::uint64_t kChunks = 8;

    Sink(int subscribers, std::uint64_t chunk);

    // One publication as it reached one subscriber; in that subscriber's thread.
    void receive(int subscriber, const void *data, std::size_t length) noexcept;

    // The rest is the publisher's.
    // Publishes probes until every subscriber has heard one; false when some never do.
    bool awaitReady(Publisher &publisher, std::vector<char> &payload);
    // Whether the publication of this chunk stays within the window.
    bool hasCredit(std::uint64_t chunk);
    // Waits until every subscriber has had so many chunks; false after kPatience seconds in vain.
    bool await(std::uint64_t chunks);

    std::uint64_t chunk() const noexcept { return chunk_; }
    std::uint64_t received() const noexcept;
    // Times from stamp to receipt, of the last subscriber; to be taken when all is received.
    const Histogram &times() const noexcept { return times_; }
    void forgetTimes() noexcept { times_ = {}; }

private:
    struct alignas(64) Subscriber {
        std::atomic<std::uint64_t> received{0};
        std::uint64_t chunks = 0;
        bool ready = false;
    };
    void finish(Subscriber &subscriber, std::uint64_t chunks) noexcept;

    const std::uint64_t chunk_;
    std::vector<Subscriber> subscribers_;
    Histogram times_;

    std::mutex mutex_; // of everything below
    std::condition_variable changed_;
    std::size_t ready_ = 0;
    std::array<std::size_t, 2 * kChunks> finished_{}; // subscribers that have had a chunk
    std::uint64_t completed_ = 0;                     // chunks that all of them have had
    std::uint64_t awaited_ = 0;                       // what the publisher waits for
};

} // namespace bench

#endif
