// A simulated world: its threads, its clock and its memory. One thread runs at a time, until it
// comes to a place where another might go on: each atomic operation of the library is one. The
// world's number decides who goes on and what fails, so the same number gives the same run each
// time.
//
// The threads are contexts in one thread of the system. What is thread_local in this program, the
// library included, is kept for each of them.
#ifndef ZELVO_SIMULATION_WORLD_H
#define ZELVO_SIMULATION_WORLD_H

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ucontext.h>

namespace simulation {

using std::string;

struct Random : std::mt19937_64 {
    using std::mt19937_64::mersenne_twister_engine;
    unsigned below(std::size_t n) { return static_cast<unsigned>((*this)() % n); }
    bool oneIn(unsigned n) { return n > 0 && below(n) == 0; } // of 0: never
};

inline constexpr std::uint64_t kMillisecond = 1'000'000; // of the world's clock
inline constexpr std::uint64_t kNever = UINT64_MAX;

struct Node;

struct Thread {
    string name;
    std::vector<std::function<void()>> duties; // to do, the last one first
    Node *node;                                // that it works for
    bool ended = false;
    const void *word = nullptr;  // that it sleeps on
    std::uint64_t until = 0;     // that it sleeps
    bool inLibrary = false;      // not while it is in a handler
    string last{"goes on"};      // that it has noted, for who asks why it does not
    std::vector<char> objects{}; // its thread_local ones
    std::unique_ptr<char[]> stack{};
    ucontext_t place{};
};

class World {
public:
    // Runs body as the first thread, until that and all that it has started have ended.
    void run(std::uint64_t seed, std::function<void()> body);
    Thread *spawn(const string &name, std::function<void()> body, Node *node = nullptr);
    // Waits until thread has ended, or the time has come.
    void join(const Thread *thread, std::uint64_t until = kNever);
    // A place where another thread may go on. Where another order is rare, a thread may stay where
    // it is for as long as others can go on; where it is frequent, it is anybody's turn each time.
    void point() {
        if (++step >= nextChange_) {
            std::ranges::shuffle(alive_, chance);
            handOn();
        }
    }
    // Sleeps until what stands at address is woken, or the time has come.
    void sleepOn(const void *address, std::uint64_t until);
    void wake(const void *address, bool all);
    void yield();
    void pause(unsigned milliseconds) { sleepOn(nullptr, now() + milliseconds * kMillisecond); }
    // The clock, in nanoseconds. It goes on a little with each step, and jumps to the next time-out
    // when nobody can run.
    std::uint64_t now() const { return jumped_ + step * 20; }
    // Whether no thread that can go on is kept from it for long, as the clock counts.
    bool isPrompt() const { return yieldTime_ < kMillisecond; }

    Random chance; // for whatever happens by chance
    Thread *current = nullptr;
    std::uint64_t step = 0;

private:
    void handOn();
    void runCurrent();
    void passTime();

    std::deque<Thread> threads_{};
    std::vector<Thread *> alive_{};                       // the first one that can go on does
    std::uint64_t jumped_ = 1'000'000'000 * kMillisecond; // it does not begin at 0
    std::uint64_t nextChange_ = kNever, lastChange_ = kNever;
    unsigned rarity_ = 1;         // of changes of the order, in steps
    std::uint64_t grain_ = 1;     // of time-outs, which so end at once
    std::uint64_t yieldTime_ = 0; // that a yield takes
};
inline World world;

// Whether the current thread is in the library, for a scope.
struct InLibrary {
    bool is, before = std::exchange(world.current->inLibrary, is);
    ~InLibrary() { world.current->inLibrary = before; }
};

// Which allocations of the library are refused, and how often the disk fails: once in so many times
// by chance, and the n-th; 0: never.
struct Shortage {
    unsigned oneIn = 0;
    std::uint64_t nth = 0;
    unsigned disk = 0;
};
inline Shortage shortage;
// A block that the library is going to free. It is not handed out again then, so whoever touches it
// is found out.
void *allocate(std::size_t size, std::size_t alignment = 16);
inline std::size_t blocks = 0; // that the library has

inline unsigned long long worldsNumber = 0;
enum class Telling { kNothing, kFailure, kAccount };
inline Telling telling = Telling::kNothing; // what is printed

void note(std::string_view text);              // in the world's account
[[noreturn]] void fail(std::string_view text); // ends the process: the world has shown a fault
void expectAllTaken(); // the model's: where nobody can go on before a time has come
inline void expect(bool holds, std::string_view otherwise) {
    if (!holds) {
        fail(otherwise);
    }
}

} // namespace simulation

#endif
