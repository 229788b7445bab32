#include "scenario.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <thread>
#include <utility>

namespace bench {
namespace {

constexpr std::uint64_t kWindow = 512;
constexpr std::uint64_t kWideWindow = 128; // of publications to many subscribers
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
    {"latency-1k", Kind::kPaced, {}},
    {"fanout-8", Kind::kPublish, {.subscribers = 8}},
    {"fanout-64", Kind::kPublish, {.subscribers = 64}},
    {"fanout-256", Kind::kPublish, {.subscribers = 256}},
    {"growth-10", Kind::kPublish, kGrowth(10)},
    {"growth-100", Kind::kPublish, kGrowth(100)},
    {"growth-1000", Kind::kPublish, kGrowth(1000)},
    {"growth-2000", Kind::kPublish, kGrowth(2000)},
};

// The first bytes of every payload.
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

// Sends whole chunks, and counts them.
class Source {
public:
    Source(Publisher &publisher, Sink &sink, std::vector<char> &payload)
        : publisher_{publisher},
          sink_{sink},
          payload_{payload} {}

    void send(bool timed) {
        const Head head{sent_++, timed ? now() : 0};
        std::memcpy(payload_.data(), &head, sizeof head);
        publisher_.publish({payload_.data(), payload_.size()});
    }
    // As fast as the window allows.
    void flood(int milliseconds) {
        const std::int64_t end = now() + std::int64_t{milliseconds} * 1'000'000;
        while (now() < end) {
            const std::uint64_t chunk = sent_ / sink_.chunk();
            // With the window full, half of it is waited for, so that publisher and subscribers do
            // not take turns for every chunk.
            if (!sink_.hasCredit(chunk)) {
                await(chunk + 1 - Sink::kChunks / 2);
            }
            for (std::uint64_t i = 0; i < sink_.chunk(); ++i) {
                send(sent_ % std::min(kSampling, sink_.chunk()) == 0);
            }
        }
        await(sent_ / sink_.chunk());
    }
    // One each millisecond.
    void pace(int milliseconds) {
        timespec due{};
        clock_gettime(CLOCK_MONOTONIC, &due);
        const std::uint64_t end = sent_ + static_cast<std::uint64_t>(milliseconds);
        while (sent_ < end || sent_ % sink_.chunk() != 0) {
            due.tv_nsec += 1'000'000;
            if (due.tv_nsec >= 1'000'000'000) {
                due.tv_nsec -= 1'000'000'000;
                ++due.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
            send(true);
        }
        await(sent_ / sink_.chunk());
    }
    std::uint64_t sent() const noexcept { return sent_; }
    // Waits that ended in vain since this was asked last.
    int stalls() noexcept { return std::exchange(stalls_, 0); }

private:
    void await(std::uint64_t chunks) { stalls_ += sink_.await(chunks) ? 0 : 1; }

    Publisher &publisher_;
    Sink &sink_;
    std::vector<char> &payload_;
    std::uint64_t sent_ = 0;
    int stalls_ = 0;
};

std::uint64_t windowOf(const Cell &cell) noexcept {
    if (cell.payload == kMegabyte) {
        return kLargeWindow;
    }
    return cell.shape.subscribers > 1 ? kWideWindow : kWindow;
}

Result runPublish(const System &system, const Cell &cell, int milliseconds) {
    Sink sink{cell.shape.subscribers, windowOf(cell) / Sink::kChunks};
    const auto publisher = system.publisher(cell.shape, sink);
    std::vector<char> payload(cell.payload, 'x');
    if (!sink.awaitReady(*publisher, payload)) {
        throw std::runtime_error("the subscribers hear nothing");
    }
    Source source{*publisher, sink, payload};
    const auto send = [&](int time) {
        cell.kind == Kind::kPaced ? source.pace(time) : source.flood(time);
    };
    send(milliseconds / 10);
    const std::uint64_t before = sink.received();
    const std::uint64_t sentBefore = source.sent();
    sink.forgetTimes();
    source.stalls();
    const Stopwatch watch;
    send(milliseconds);
    Result result;
    result.seconds = watch.seconds() - kPatience * source.stalls();
    result.used = watch.used();
    result.operations = sink.received() - before;
    result.lost =
        (source.sent() - sentBefore) * static_cast<std::uint64_t>(cell.shape.subscribers) -
        result.operations;
    result.times = sink.times();
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

Sink::Sink(int subscribers, std::uint64_t chunk)
    : chunk_{chunk},
      subscribers_(static_cast<std::size_t>(subscribers)) {}

void Sink::receive(int subscriber, const void *data, std::size_t length) noexcept {
    Subscriber &to = subscribers_[static_cast<std::size_t>(subscriber)];
    Head head;
    if (length < sizeof head) {
        return;
    }
    std::memcpy(&head, data, sizeof head);
    if (head.number == Head::kProbe) {
        const std::lock_guard lock{mutex_};
        ready_ += to.ready ? 0 : 1;
        to.ready = true;
        changed_.notify_all();
        return;
    }
    to.received.store(to.received.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (head.stamp != 0 && &to == &subscribers_.back()) {
        times_.add(now() - head.stamp);
    }
    // A later chunk ends all before it: one lost message must not stop the rest.
    const std::uint64_t chunks = (head.number + 1) / chunk_;
    if (chunks > to.chunks) {
        finish(to, chunks);
    }
}

void Sink::finish(Subscriber &subscriber, std::uint64_t chunks) noexcept {
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

bool Sink::hasCredit(std::uint64_t chunk) {
    const std::lock_guard lock{mutex_};
    return chunk < completed_ + kChunks;
}

bool Sink::await(std::uint64_t chunks) {
    std::unique_lock lock{mutex_};
    awaited_ = chunks;
    const bool complete = changed_.wait_for(lock, std::chrono::seconds(kPatience),
                                            [&] { return completed_ >= chunks; });
    completed_ = std::max(completed_, chunks); // what is lost is written off
    return complete;
}

bool Sink::awaitReady(Publisher &publisher, std::vector<char> &payload) {
    const Head probe;
    std::memcpy(payload.data(), &probe, sizeof probe);
    const auto ready = [this] { return ready_ == subscribers_.size(); };
    // Some systems drop what is published before they know of a subscription.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        publisher.publish({payload.data(), payload.size()});
        std::unique_lock lock{mutex_};
        if (changed_.wait_for(lock, std::chrono::milliseconds(10), ready)) {
            return true;
        }
    }
    return false;
}

std::uint64_t Sink::received() const noexcept {
    std::uint64_t all = 0;
    for (const Subscriber &subscriber : subscribers_) {
        all += subscriber.received.load(std::memory_order_relaxed);
    }
    return all;
}

} // namespace bench
