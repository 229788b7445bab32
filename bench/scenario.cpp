#include "scenario.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <future>
#include <optional>
#include <span>
#include <stdexcept>
#include <thread>

namespace bench {
namespace {

constexpr std::uint64_t kWindow = 512;
constexpr std::uint64_t kWideWindow = 128; // to many subscribers, or of each of four publishers
constexpr std::uint64_t kLargeWindow = 8;  // of payloads of a megabyte
constexpr std::uint64_t kSampling = 16;    // one publication in so many carries a time
constexpr std::size_t kMegabyte = 1 << 20;

constexpr Shape kGrowth(int others) {
    return {.others = others, .otherTopics = 8};
}

constexpr Cell kCells[] = {
    {"call-2", Kind::kCall, {}},
    {"call-2000", Kind::kCall, {.others = 1998}},
    {"call-1-core", Kind::kCall, {}, 64, true},
    {"call-level-2", Kind::kCall, {.logLevel = 2}},
    {"call-level-1", Kind::kCall, {.logLevel = 1}},
    {"call-timers-0", Kind::kCall, {.timers = 0}},
    {"call-timers-1", Kind::kCall, {.timers = 1}},
    {"call-timers-1000", Kind::kCall, {.timers = 1000}},
    {"idle-timers-0", Kind::kIdle, {.timers = 0}},
    {"idle-timers-1", Kind::kIdle, {.timers = 1}},
    {"idle-timers-1000", Kind::kIdle, {.timers = 1000}},
    {"publish-64", Kind::kPublish, {}},
    {"publish-level-2", Kind::kPublish, {.logLevel = 2}},
    {"publish-level-1", Kind::kPublish, {.logLevel = 1}},
    {"publish-1M", Kind::kPublish, {}, kMegabyte},
    {"publish-1-core", Kind::kPublish, {}, 64, true},
    {"publish-4-to-1", Kind::kPublish, {.publishers = 4}},
    {"publish-4-pairs", Kind::kPublish, {.publishers = 4, .topics = 4}},
    {"latency-1k", Kind::kPaced, {}},
    {"fanout-8", Kind::kPublish, {.subscribers = 8}},
    {"fanout-64", Kind::kPublish, {.subscribers = 64}},
    {"fanout-256", Kind::kPublish, {.subscribers = 256}},
    {"growth-10", Kind::kPublish, kGrowth(10)},
    {"growth-100", Kind::kPublish, kGrowth(100)},
    {"growth-1000", Kind::kPublish, kGrowth(1000)},
    {"growth-2000", Kind::kPublish, kGrowth(2000)},
};

// The first bytes of every payload; the publisher's number follows.
struct Head {
    static constexpr std::uint64_t kProbe = ~std::uint64_t{0};
    std::uint64_t number = kProbe;
    std::int64_t stamp = 0; // 0: not timed
};

class Stopwatch {
public:
    double seconds() const noexcept { return static_cast<double>(now() - begun_) * 1e-9; }
    Usage used() const noexcept { return usage() - before_; }

private:
    Usage before_ = usage();
    std::int64_t begun_ = now();
};

constexpr std::size_t kLine = 64; // bytes; cores take memory from each other by lines

// Sends whole chunks as one of the publishers, and counts them. No two sources share a line, and no
// two payloads.
class alignas(kLine) Source {
public:
    Source(Publisher &publishers, Stream &stream, std::size_t payload)
        : publishers_{publishers},
          stream_{stream} {
        payload_.reserve(payload + kLine);
        payload_.assign(payload, 'x');
        if (!stream_.awaitReady(publishers_, payload_)) {
            throw std::runtime_error("the subscribers hear nothing");
        }
    }

    void send(bool timed) {
        const Head head{sent_++, timed ? now() : 0};
        std::memcpy(payload_.data(), &head, sizeof head);
        publishers_.publish(stream_.publisher(), {payload_.data(), payload_.size()});
    }
    // As fast as the window allows.
    void flood(int milliseconds) {
        const std::int64_t end = now() + std::int64_t{milliseconds} * 1'000'000;
        while (now() < end) {
            const std::uint64_t chunk = sent_ / stream_.chunk();
            // With the window full, half of it is waited for, so that publisher and subscribers do
            // not take turns for every chunk.
            if (!stream_.hasCredit(chunk)) {
                await(chunk + 1 - Stream::kChunks / 2);
            }
            for (std::uint64_t i = 0; i < stream_.chunk(); ++i) {
                send(sent_ % std::min(kSampling, stream_.chunk()) == 0);
            }
        }
        await(sent_ / stream_.chunk());
    }
    // One each millisecond.
    void pace(int milliseconds) {
        timespec due{};
        clock_gettime(CLOCK_MONOTONIC, &due);
        const std::uint64_t end = sent_ + static_cast<std::uint64_t>(milliseconds);
        while (sent_ < end || sent_ % stream_.chunk() != 0) {
            due.tv_nsec += 1'000'000;
            if (due.tv_nsec >= 1'000'000'000) {
                due.tv_nsec -= 1'000'000'000;
                ++due.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
            send(true);
        }
        await(sent_ / stream_.chunk());
    }

    // Counts and times begin anew.
    void restart() {
        sentBefore_ = sent_;
        receivedBefore_ = stream_.received();
        stream_.forgetTimes();
        stalls_ = 0;
    }
    void addTo(Result &result) const {
        const std::uint64_t received = stream_.received() - receivedBefore_;
        result.operations += received;
        result.lost += (sent_ - sentBefore_) * stream_.subscribers() - received;
        result.times.add(stream_.times());
    }
    int stalls() const noexcept { return stalls_; } // waits that ended in vain

private:
    void await(std::uint64_t chunks) { stalls_ += stream_.await(chunks) ? 0 : 1; }

    Publisher &publishers_;
    Stream &stream_;
    std::vector<char> payload_;
    std::uint64_t sent_ = 0;
    std::uint64_t sentBefore_ = 0;
    std::uint64_t receivedBefore_ = 0;
    int stalls_ = 0;
};

// Each in a thread of its own, of which the caller's is the first.
void sendAll(std::span<std::optional<Source>> sources, Kind kind, int milliseconds) {
    const auto send = [&](std::optional<Source> &source) {
        kind == Kind::kPaced ? source->pace(milliseconds) : source->flood(milliseconds);
    };
    std::vector<std::future<void>> others;
    for (std::size_t i = 1; i < sources.size(); ++i) {
        others.push_back(std::async(std::launch::async, send, std::ref(sources[i])));
    }
    send(sources.front());
    for (std::future<void> &other : others) {
        other.get();
    }
}

std::uint64_t windowOf(const Cell &cell) noexcept {
    if (cell.payload == kMegabyte) {
        return kLargeWindow;
    }
    return cell.shape.subscribers > 1 || cell.shape.publishers > 1 ? kWideWindow : kWindow;
}

Result runPublish(const System &system, const Cell &cell, int milliseconds) {
    const Shape &shape = cell.shape;
    Sink sink{shape.subscribers, windowOf(cell) / Stream::kChunks, shape.publishers};
    const auto publishers = system.publisher(shape, sink);
    // Not on the heap: a block there can decide whether the allocator gives the pages of large
    // payloads back to the system each time, which costs more than to publish them.
    std::array<std::optional<Source>, kMostPublishers> room;
    for (int i = 0; i < shape.publishers; ++i) {
        room.at(static_cast<std::size_t>(i)).emplace(*publishers, sink.stream(i), cell.payload);
    }
    const std::span sources{room.data(), static_cast<std::size_t>(shape.publishers)};
    sendAll(sources, cell.kind, milliseconds / 10);
    for (auto &source : sources) {
        source->restart();
    }
    const Stopwatch watch;
    sendAll(sources, cell.kind, milliseconds);
    Result result;
    result.seconds = watch.seconds();
    result.used = watch.used();
    int stalls = 0; // of publishers that wait at the same time, once
    for (const auto &source : sources) {
        source->addTo(result);
        stalls = std::max(stalls, source->stalls());
    }
    result.seconds -= kPatience * stalls;
    return result;
}

Result runCall(const System &system, const Cell &cell, int milliseconds) {
    const auto caller = system.caller(cell.shape);
    return repeat(milliseconds, [&] { requireAnswer(caller->call()); });
}

// What the system does while nothing is asked of it; the thread that watches does not count.
Result runIdle(const System &system, const Cell &cell, int milliseconds) {
    const auto caller = system.caller(cell.shape);
    requireAnswer(caller->call());
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // what the call set off has ended
    const std::int64_t begun = now();
    const Usage before = usageOfOthers();
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    Result result;
    result.used = usageOfOthers() - before;
    result.seconds = static_cast<double>(now() - begun) * 1e-9;
    result.operations = 1;
    return result;
}

} // namespace

const Cell *findCell(std::string_view name) noexcept {
    for (const Cell &cell : kCells) {
        if (cell.name == name) {
            return &cell;
        }
    }
    return nullptr;
}

Result runCell(const System &system, const Cell &cell, int milliseconds) {
    switch (cell.kind) {
    case Kind::kCall:
        return runCall(system, cell, milliseconds);
    case Kind::kIdle:
        return runIdle(system, cell, milliseconds);
    case Kind::kPublish:
    case Kind::kPaced:
        break;
    }
    return runPublish(system, cell, milliseconds);
}

Result repeat(int milliseconds, const std::function<void()> &operation) {
    const std::int64_t warm = now() + std::int64_t{milliseconds} * 100'000;
    while (now() < warm) {
        operation();
    }
    Result result;
    const Stopwatch watch;
    const std::int64_t end = now() + std::int64_t{milliseconds} * 1'000'000;
    for (std::int64_t before = now(); before < end;) {
        operation();
        const std::int64_t after = now();
        result.times.add(after - before);
        ++result.operations;
        before = after;
    }
    result.seconds = watch.seconds();
    result.used = watch.used();
    return result;
}

void requireAnswer(std::size_t length) {
    if (length != kAnswer.size()) {
        throw std::runtime_error("a call was not answered");
    }
}

Stream::Stream(int publisher, int subscribers, std::uint64_t chunk)
    : publisher_{publisher},
      chunk_{chunk},
      subscribers_(static_cast<std::size_t>(subscribers)) {}

void Stream::hearProbe(int subscriber) noexcept {
    Subscriber &to = subscribers_[static_cast<std::size_t>(subscriber)];
    const std::lock_guard lock{mutex_};
    ready_ += to.ready ? 0 : 1;
    to.ready = true;
    changed_.notify_all();
}

void Stream::receive(int subscriber, std::uint64_t number, std::int64_t stamp) noexcept {
    Subscriber &to = subscribers_[static_cast<std::size_t>(subscriber)];
    to.received.store(to.received.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (stamp != 0 && &to == &subscribers_.back()) {
        times_.add(now() - stamp);
    }
    // A later chunk ends all before it: one lost message must not stop the rest.
    const std::uint64_t chunks = (number + 1) / chunk_;
    if (chunks > to.chunks) {
        finish(to, chunks);
    }
}

void Stream::finish(Subscriber &subscriber, std::uint64_t chunks) noexcept {
    bool awaited = false;
    {
        const std::lock_guard lock{mutex_};
        for (; subscriber.chunks < chunks; ++subscriber.chunks) {
            std::size_t &finished = finished_[subscriber.chunks % finished_.size()];
            if (++finished == subscribers_.size()) {
                finished = 0;
                completed_ = std::max(completed_, subscriber.chunks + 1);
                awaited = awaited || completed_ == awaited_;
            }
        }
    }
    if (awaited) {
        changed_.notify_one();
    }
}

bool Stream::hasCredit(std::uint64_t chunk) {
    const std::lock_guard lock{mutex_};
    return chunk < completed_ + kChunks;
}

bool Stream::await(std::uint64_t chunks) {
    std::unique_lock lock{mutex_};
    awaited_ = chunks;
    const bool complete = changed_.wait_for(lock, std::chrono::seconds(kPatience),
                                            [&] { return completed_ >= chunks; });
    completed_ = std::max(completed_, chunks); // what is lost is written off
    return complete;
}

bool Stream::awaitReady(Publisher &publishers, std::vector<char> &payload) {
    const Head probe;
    std::memcpy(payload.data(), &probe, sizeof probe);
    std::memcpy(payload.data() + sizeof probe, &publisher_, sizeof publisher_);
    const auto ready = [this] { return ready_ == subscribers_.size(); };
    // Some systems drop what is published before they know of a subscription.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        publishers.publish(publisher_, {payload.data(), payload.size()});
        std::unique_lock lock{mutex_};
        if (changed_.wait_for(lock, std::chrono::milliseconds(10), ready)) {
            return true;
        }
    }
    return false;
}

std::uint64_t Stream::received() const noexcept {
    std::uint64_t all = 0;
    for (const Subscriber &subscriber : subscribers_) {
        all += subscriber.received.load(std::memory_order_relaxed);
    }
    return all;
}

Sink::Sink(int subscribers, std::uint64_t chunk, int publishers) {
    for (int i = 0; i < publishers; ++i) {
        streams_.at(static_cast<std::size_t>(i)).emplace(i, subscribers, chunk);
    }
}

void Sink::receive(int subscriber, const void *data, std::size_t length) noexcept {
    Head head;
    int publisher = 0;
    if (length < sizeof head + sizeof publisher) {
        return;
    }
    std::memcpy(&head, data, sizeof head);
    std::memcpy(&publisher, static_cast<const char *>(data) + sizeof head, sizeof publisher);
    Stream &from = stream(publisher);
    if (head.number == Head::kProbe) {
        from.hearProbe(subscriber);
    } else {
        from.receive(subscriber, head.number, head.stamp);
    }
}

} // namespace bench
