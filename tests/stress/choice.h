// Choices that a seed repeats, and the watchdog over the threads that make them.
#ifndef ZELVO_STRESS_CHOICE_H
#define ZELVO_STRESS_CHOICE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace stress {

// Every thread has a generator of its own, so that what one of them chooses depends on no other.
class Choice {
public:
    // The generator of one of the many that share a seed.
    Choice(std::uint64_t seed, std::uint64_t number) : state_{seed} {
        state_ = next() ^ (number * 0x9e3779b97f4a7c15U);
    }
    std::uint64_t next() {
        std::uint64_t mixed = state_ += 0x9e3779b97f4a7c15U;
        mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
        mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
        return mixed ^ (mixed >> 31U);
    }
    unsigned below(unsigned limit) { return static_cast<unsigned>(next() % limit); }
    bool oneIn(unsigned times) { return below(times) == 0; }

private:
    std::uint64_t state_;
};

// What the threads are doing. A thread that does one thing for too long ends the process, after
// everybody's doings have been printed.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit) : limit_{limit} {}

    // One thing that the calling thread does, for a scope. A thing inside another one hides it.
    class Doing {
    public:
        Doing(Watchdog &watchdog, std::string_view who, std::string_view what)
            : watchdog_{watchdog},
              mine_{watchdog.begin(who, what)} {}
        ~Doing() { watchdog_.end(mine_); }
        Doing(const Doing &) = delete;
        Doing &operator=(const Doing &) = delete;

    private:
        Watchdog &watchdog_;
        std::uint64_t mine_;
    };

    // To be called now and then; aborts where something hangs.
    void look();

private:
    struct Thing {
        std::string text;
        std::chrono::steady_clock::time_point begun;
    };
    std::uint64_t begin(std::string_view who, std::string_view what);
    void end(std::uint64_t thing);

    const std::chrono::seconds limit_;
    std::mutex mutex_;
    std::uint64_t last_ = 0;
    std::map<std::uint64_t, Thing> things_; // in the order in which they began
};

} // namespace stress

#endif
