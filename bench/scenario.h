// The cells that many systems share: what is done, and how it is timed.
#ifndef BENCH_SCENARIO_H
#define BENCH_SCENARIO_H

#include "harness.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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

// The name of a topic that is measured, by its number, which has one digit.
class Topic {
public:
    explicit Topic(int number) noexcept { text_[kSize - 1] = static_cast<char>('0' + number); }
    const char *text() const noexcept { return text_; }
    std::string_view name() const noexcept { return {text_, kSize}; }
    // With the NUL that ends it, so that no topic is the beginning of another.
    std::string_view prefix() const noexcept { return {text_, kSize + 1}; }

    static constexpr std::size_t kSize = 8;

private:
    char text_[kSize + 1] = "measured";
};

// What one publisher sends, as its subscribers receive it. It counts, takes times, and gives the
// publisher the credit that keeps the number of publications under way within a window.
class Stream {
public:
    // Publications are counted by chunks; the window is kChunks of them.
    static constexpr std::uint64_t kChunks = 8;

    Stream(int publisher, int subscribers, std::uint64_t chunk);

    // A probe or a publication, as it reached one subscriber; in that subscriber's thread.
    void hearProbe(int subscriber) noexcept;
    void receive(int subscriber, std::uint64_t number, std::int64_t stamp) noexcept;

    // The rest is the publisher's.
    // Publishes probes until every subscriber has heard one; false when some never do. The payload
    // is then marked as this publisher's.
    bool awaitReady(Publisher &publishers, std::vector<char> &payload);
    // Whether the publication of this chunk stays within the window.
    bool hasCredit(std::uint64_t chunk);
    // Waits until every subscriber has had so many chunks; false after kPatience seconds in vain.
    bool await(std::uint64_t chunks);

    int publisher() const noexcept { return publisher_; }
    std::uint64_t chunk() const noexcept { return chunk_; }
    std::size_t subscribers() const noexcept { return subscribers_.size(); }
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

    const int publisher_;
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

inline constexpr std::size_t kMostPublishers = 4; // of one cell

// Where subscribers hand in what they receive: a stream for each publisher.
class Sink {
public:
    // So many subscribers of each topic.
    Sink(int subscribers, std::uint64_t chunk, int publishers = 1);

    // One publication as it reached a subscriber, which is counted among those of its topic; in
    // that subscriber's thread.
    void receive(int subscriber, const void *data, std::size_t length) noexcept;

    Stream &stream(int publisher) noexcept {
        return *streams_[static_cast<std::size_t>(publisher)];
    }

private:
    std::array<std::optional<Stream>, kMostPublishers> streams_;
};

} // namespace bench

#endif
