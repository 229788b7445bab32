// What the machine allows: a token that three threads hand over and nothing else; publications
// through a router that does nothing else; and blocks that one thread allocates and another frees.
#include "scenario.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using namespace bench;

// A seat to which the token comes. The word is free, taken, or free with its owner asleep.
class Seat {
public:
    void hand(std::uint32_t token) noexcept {
        if (word_.exchange(token, std::memory_order_acq_rel) == kAsleep) {
            futex(FUTEX_WAKE_PRIVATE, 1);
        }
    }
    // Looks at the word, the processor given up between them, before sleeping.
    std::uint32_t take() noexcept {
        constexpr int kLooks = 32;
        for (int look = 0; look < kLooks; ++look) {
            if (word_.load(std::memory_order_acquire) != kFree) {
                return word_.exchange(kFree, std::memory_order_acquire);
            }
            sched_yield();
        }
        std::uint32_t expected = kFree;
        if (word_.compare_exchange_strong(expected, kAsleep, std::memory_order_acq_rel)) {
            while (word_.load(std::memory_order_acquire) == kAsleep) {
                futex(FUTEX_WAIT_PRIVATE, kAsleep);
            }
        }
        return word_.exchange(kFree, std::memory_order_acquire);
    }

    static constexpr std::uint32_t kToken = 1;
    static constexpr std::uint32_t kEnd = 2;

private:
    static constexpr std::uint32_t kFree = 0;
    static constexpr std::uint32_t kAsleep = 3;
    void futex(int operation, std::uint32_t value) noexcept {
        syscall(SYS_futex, &word_, operation, value, nullptr, nullptr, 0);
    }
    alignas(64) std::atomic<std::uint32_t> word_{kFree};
};

// A, S, B, S, A: what a call through a server hands over.
class Ring final : public Caller {
public:
    Ring() : server_{[this] { serve(); }}, callee_{[this] { answer(); }} {}
    Ring(const Ring &) = delete;
    Ring &operator=(const Ring &) = delete;
    ~Ring() override {
        s_.hand(Seat::kEnd);
        server_.join();
        callee_.join();
    }
    std::size_t call() override {
        s_.hand(Seat::kToken);
        a_.take();
        return kAnswer.size();
    }

private:
    void serve() noexcept {
        for (;;) {
            const std::uint32_t token = s_.take();
            b_.hand(token);
            if (token == Seat::kEnd) {
                return;
            }
            s_.take();
            a_.hand(token);
        }
    }
    void answer() noexcept {
        while (b_.take() != Seat::kEnd) {
            s_.hand(Seat::kToken);
        }
    }

    Seat a_;
    Seat s_;
    Seat b_;
    std::thread server_;
    std::thread callee_;
};

std::unique_ptr<Caller> ring(const Shape & /*shape*/) {
    return std::make_unique<Ring>();
}

// Blocks of a hundred bytes travel from the thread that allocates them to one that frees them.
class Blocks {
public:
    Blocks() : thread_{[this] { drain(); }} {}
    Blocks(const Blocks &) = delete;
    Blocks &operator=(const Blocks &) = delete;
    ~Blocks() {
        put(nullptr);
        thread_.join();
    }
    void put(void *block) noexcept {
        while (written_ - read_.load(std::memory_order_acquire) == slots_.size()) {
            sched_yield();
        }
        slots_[written_ % slots_.size()] = block;
        ready_.store(++written_, std::memory_order_release);
    }

private:
    void drain() noexcept {
        for (std::size_t next = 0;; ++next) {
            while (ready_.load(std::memory_order_acquire) == next) {
                sched_yield();
            }
            void *const block = slots_[next % slots_.size()];
            read_.store(next + 1, std::memory_order_release);
            if (!block) {
                return;
            }
            std::free(block);
        }
    }

    std::array<void *, 512> slots_{};
    std::size_t written_ = 0;
    alignas(64) std::atomic<std::size_t> ready_{0};
    alignas(64) std::atomic<std::size_t> read_{0};
    std::thread thread_;
};

Result blocks(int milliseconds) {
    constexpr int kBatch = 256; // blocks for each look at the clock
    Blocks to;
    Result result = repeat(milliseconds, [&] {
        for (int i = 0; i < kBatch; ++i) {
            if (void *const block = std::malloc(100)) {
                to.put(block);
            }
        }
    });
    result.operations *= kBatch;
    result.times = {}; // they are of batches
    return result;
}

// A message in one block: who sends it, what it is, its topic and its payload follow the record.
struct Message {
    std::size_t headSize; // of what is in front of the topic
    std::size_t topicSize;
    std::size_t payloadSize;
    const char *text() const noexcept { return reinterpret_cast<const char *>(this + 1); }
    std::string_view topic() const noexcept { return {text() + headSize, topicSize}; }
    std::string_view payload() const noexcept { return {topic().data() + topicSize, payloadSize}; }
};
struct Free {
    void operator()(Message *message) const noexcept { std::free(message); }
};
using MessagePtr = std::unique_ptr<Message, Free>;

MessagePtr makeMessage(std::string_view head, std::string_view topic, std::string_view payload) {
    void *const block = std::malloc(sizeof(Message) + head.size() + topic.size() + payload.size());
    if (!block) {
        throw std::bad_alloc{};
    }
    MessagePtr message{new (block) Message{head.size(), topic.size(), payload.size()}};
    char *next = static_cast<char *>(block) + sizeof(Message);
    for (const std::string_view part : {head, topic, payload}) {
        std::memcpy(next, part.data(), part.size());
        next += part.size();
    }
    return message;
}

// Sender and receiver exchange rows of messages; a receiver lets a short row grow for some yields.
// Any thread may send, so that row has a lock.
class Rows {
public:
    // False: full.
    bool push(MessagePtr message) {
        constexpr std::size_t kPlaces = 1024;
        bool wake = false;
        {
            const std::lock_guard lock{mutex_};
            if (message && in_.size() + left_.load(std::memory_order_acquire) >= kPlaces) {
                return false;
            }
            in_.push_back(std::move(message));
            waiting_.store(in_.size(), std::memory_order_release);
            wake = std::exchange(asleep_, false);
        }
        if (wake) {
            filled_.notify_one();
        }
        return true;
    }
    MessagePtr pop() {
        if (next_ == out_.size()) {
            exchange();
        }
        left_.store(out_.size() - next_ - 1, std::memory_order_release);
        return std::move(out_[next_++]);
    }

private:
    void exchange() {
        constexpr int kLooks = 8;
        constexpr std::size_t kShort = 32;
        for (int i = 0; i < kLooks && waiting_.load(std::memory_order_acquire) < kShort; ++i) {
            sched_yield();
        }
        out_.clear();
        next_ = 0;
        std::unique_lock lock{mutex_};
        while (in_.empty()) {
            asleep_ = true;
            filled_.wait(lock);
        }
        in_.swap(out_);
        waiting_.store(0, std::memory_order_release);
    }

    alignas(64) std::mutex mutex_; // of the senders' row
    std::condition_variable filled_;
    std::vector<MessagePtr> in_;
    bool asleep_ = false;
    std::atomic<std::size_t> waiting_{0};
    alignas(64) std::vector<MessagePtr> out_; // the receiver's
    std::size_t next_ = 0;
    std::atomic<std::size_t> left_{0};
};

// The three hops of a publication, with what each of them needs on any bus: a bound, a count of
// what was sent and refused, the sender's name. Without log, timers, calls, coming and going.
class BareRouter final : public Publisher {
public:
    BareRouter(const Shape &shape, Sink &sink)
        : senders_(static_cast<std::size_t>(shape.publishers)) {
        for (int i = 0; i < shape.publishers; ++i) {
            senders_[static_cast<std::size_t>(i)].topic = i % shape.topics;
        }
        for (int topic = 0; topic < shape.topics; ++topic) {
            for (int i = 0; i < shape.subscribers; ++i) {
                Rows &rows = *inboxes_.emplace_back(std::make_unique<Rows>());
                subscribers_[std::string{Topic{topic}.name()}].push_back(&rows);
                threads_.emplace_back([&rows, &sink, i] {
                    while (const MessagePtr message = rows.pop()) {
                        sink.receive(i, message->payload().data(), message->payload().size());
                    }
                });
            }
        }
        threads_.emplace_back([this] { route(); });
    }
    BareRouter(const BareRouter &) = delete;
    BareRouter &operator=(const BareRouter &) = delete;
    ~BareRouter() override {
        posted_.push(nullptr);
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }
    void publish(int publisher, std::string_view payload) override {
        Sender &sender = senders_[static_cast<std::size_t>(publisher)];
        const bool sent = posted_.push(makeMessage(kHead, Topic{sender.topic}.name(), payload));
        (sent ? sender.sent : sender.refused).fetch_add(1, std::memory_order_relaxed);
    }

private:
    static constexpr std::string_view kHead{"publisher0 publish"};
    struct Sender {
        int topic = 0;
        alignas(64) std::atomic<std::uint64_t> sent{0}; // any thread may use a sender
        std::atomic<std::uint64_t> refused{0};
    };

    void route() {
        while (MessagePtr message = posted_.pop()) {
            const std::vector<Rows *> &all = subscribers_[std::string{message->topic()}];
            for (std::size_t i = 1; i < all.size(); ++i) {
                send(*all[i], makeMessage(kHead, message->topic(), message->payload()));
            }
            if (!all.empty()) {
                send(*all.front(), std::move(message));
            }
        }
        for (const auto &inbox : inboxes_) {
            inbox->push(nullptr);
        }
    }
    void send(Rows &to, MessagePtr message) {
        ++(to.push(std::move(message)) ? handedOn_ : refused_);
    }

    std::vector<Sender> senders_;
    std::unordered_map<std::string, std::vector<Rows *>> subscribers_;
    Rows posted_;
    std::vector<std::unique_ptr<Rows>> inboxes_;
    std::uint64_t handedOn_ = 0; // by the router
    std::uint64_t refused_ = 0;
    std::vector<std::thread> threads_;
};

std::unique_ptr<Publisher> bareRouter(const Shape &shape, Sink &sink) {
    return std::make_unique<BareRouter>(shape, sink);
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{System{"limit",
                                    ring,
                                    bareRouter,
                                    {"call-2", "call-1-core", "publish-64", "publish-1-core",
                                     "latency-1k", "fanout-8", "publish-4-to-1", "publish-4-pairs"},
                                    {{"blocks", blocks}}}};
    return bench::run(argc, argv, systems);
}
