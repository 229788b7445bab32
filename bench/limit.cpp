// What the machine allows: a token that three threads hand over and nothing else; and blocks that
// one thread allocates and another frees.
#include "scenario.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>

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
    // looks: at the word, the processor given up between them, before sleeping.
    std::uint32_t take(int looks) noexcept {
        for (int look = 0; look < looks; ++look) {
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
template <int Looks>
Result ring(int milliseconds) {
    Seat a;
    Seat s;
    Seat b;
    std::thread server{[&] {
        for (;;) {
            const std::uint32_t token = s.take(Looks);
            b.hand(token);
            if (token == Seat::kEnd) {
                return;
            }
            s.take(Looks);
            a.hand(token);
        }
    }};
    std::thread callee{[&] {
        while (b.take(Looks) != Seat::kEnd) {
            s.hand(Seat::kToken);
        }
    }};
    const Result result = repeat(milliseconds, [&] {
        s.hand(Seat::kToken);
        a.take(Looks);
    });
    s.hand(Seat::kEnd);
    server.join();
    callee.join();
    return result;
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

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"limit",
               nullptr,
               nullptr,
               {},
               {{"ring-sleep", ring<0>}, {"ring-spin", ring<4>}, {"blocks", blocks}}}};
    return bench::run(argc, argv, systems);
}
