#include "scheduler.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include <cxxabi.h>
#include <link.h>
#include <ucontext.h>
#include <unistd.h>

namespace simulation {

// What the compiler and the C library keep for a thread of the system, and each of ours needs.
struct Thread::Kept {
    std::array<char, 256> objects{}; // the program's thread_local ones
    std::array<char, 16> exceptions{};
    std::vector<std::pair<void (*)(void *), void *>> destructors{};
    std::unique_ptr<char[]> stack{};
    ucontext_t place{};
};

namespace {

constexpr std::size_t kStack = std::size_t{256} * 1024;
constexpr std::uint64_t kMostSteps = 20'000'000; // more are no end
constexpr std::uint64_t kFirstTime = 1'000'000'000 * kMillisecond;
constexpr std::uint64_t kLastTime = kFirstTime + 3'600'000 * kMillisecond;

ucontext_t worldsEnd;

using Bytes = std::pair<char *, std::size_t>;
const Bytes objects = [] {
    Bytes found{};
    const auto visit = [](dl_phdr_info *program, std::size_t, void *arg) { // the first is this one
        for (int i = 0; i < program->dlpi_phnum; ++i) {
            if (program->dlpi_phdr[i].p_type == PT_TLS) {
                *static_cast<Bytes *>(arg) = {static_cast<char *>(program->dlpi_tls_data),
                                              program->dlpi_phdr[i].p_memsz};
            }
        }
        return 1;
    };
    dl_iterate_phdr(visit, &found);
    return found;
}();

void keep(Thread::Kept &kept) {
    std::memcpy(kept.objects.data(), objects.first, objects.second);
    std::memcpy(kept.exceptions.data(), abi::__cxa_get_globals(), kept.exceptions.size());
}

void putBack(const Thread::Kept &kept) {
    void *const exceptions = abi::__cxa_get_globals();
    std::memcpy(objects.first, kept.objects.data(), objects.second);
    std::memcpy(exceptions, kept.exceptions.data(), kept.exceptions.size());
}

void arouse(Thread &thread) {
    thread.state = Thread::kReady;
    thread.word = nullptr;
    thread.until = kNever;
}

} // namespace

// A walk, with changes of thread more or less often; or an order that changes at a few steps, which
// finds rare ones. In both, one thread may stay where it is for long.
void World::chooseStyle() {
    constexpr unsigned kRarities[] = {1, 2, 4, 8, 24, 80, 300};
    constexpr unsigned kSpans[] = {300, 3000, 12'000};
    const unsigned span = kSpans[chance.below(3)];
    byPriority_ = chance.oneIn(3);
    rarity_ = kRarities[chance.below(7)];
    yieldTime_ = chance.oneIn(2) ? 1000 : 5 * kMillisecond;
    std::generate_n(std::back_inserter(turns_), 12, [&] { return chance.below(span); });
    std::sort(turns_.rbegin(), turns_.rend());
    heldFrom_ = chance.below(span);
    heldUntil_ = heldFrom_ + chance.below(4 * span);
}

Thread *World::choose() {
    if (ready_.size() > 1 && step >= heldFrom_ && step < heldUntil_) {
        std::erase(ready_, held_);
    }
    if (byPriority_) {
        const auto lower = [](const Thread *a, const Thread *b) {
            return a->priority < b->priority;
        };
        return *std::max_element(ready_.begin(), ready_.end(), lower);
    }
    const auto number = static_cast<unsigned>(ready_.size());
    Thread *const chosen = ready_[chance.below(number)];
    return chosen->slow && !chance.oneIn(6) ? ready_[chance.below(number)] : chosen;
}

Thread *World::next() {
    for (ready_.clear();; ready_.clear()) {
        std::uint64_t soonest = kNever;
        for (Thread *thread : alive_) {
            thread->until <= now() ? arouse(*thread) : void();
            thread->state == Thread::kReady ? ready_.push_back(thread) : void();
            soonest = std::min(soonest, thread->until);
        }
        if (!ready_.empty()) {
            return choose();
        }
        if (soonest == kNever) {
            const InLibrary no{false};
            std::string who = "hangs:";
            std::for_each(alive_.begin(), alive_.end(),
                          [&](auto *t) { who += "\n  " + t->name + " " + t->doing; });
            fail(who);
        }
        jumped_ += soonest - now();
    }
}

void World::handOn() {
    const std::uint64_t turn = turns_.empty() ? kMostSteps : turns_.back();
    nextChange_ = byPriority_ ? turn : step + 1 + (rarity_ > 1 ? chance.below(2 * rarity_) : 0);
    if (++step >= kMostSteps || now() > kLastTime) {
        fail("has no end");
    }
    Thread &me = *current;
    current = next();
    if (current != &me && me.ended()) {
        setcontext(&current->kept->place);
    } else if (current != &me) {
        keep(*me.kept);
        swapcontext(&me.kept->place, &current->kept->place);
        putBack(*me.kept);
    }
}

void World::change() {
    while (!turns_.empty() && turns_.back() <= step) {
        turns_.pop_back();
    }
    current->priority = --lowest_;
    Thread &somebody = *alive_[chance.below(static_cast<unsigned>(alive_.size()))];
    if (somebody.word && chance.oneIn(8)) {
        arouse(somebody); // without a reason
    }
    handOn();
}

// The destructors of a thread's objects run in it, and may meet other threads.
void World::runCurrent() {
    putBack(*current->kept);
    current->body();
    for (auto &destructors = current->kept->destructors; !destructors.empty();) {
        const auto [run, object] = destructors.back();
        destructors.pop_back();
        run(object);
    }
    current->state = Thread::kEnded;
    std::erase(alive_, current);
    wake(current, true);
    alive_.empty() ? static_cast<void>(setcontext(&worldsEnd)) : handOn();
}

Thread *World::spawn(const std::string &name, std::function<void()> body) {
    static Thread::Kept untouched;
    threads_.empty() ? keep(untouched) : void();
    Thread &thread =
        *threads_.emplace_back(std::make_unique<Thread>(Thread{name, std::move(body)}));
    thread.number = static_cast<int>(threads_.size());
    thread.slow = chance.oneIn(4);
    thread.priority = 1 + chance.below(1000);
    thread.kept = std::make_shared<Thread::Kept>();
    thread.kept->objects = untouched.objects;
    thread.kept->stack.reset(new char[kStack]);
    ucontext_t &place = thread.kept->place;
    getcontext(&place);
    place.uc_stack.ss_sp = thread.kept->stack.get();
    place.uc_stack.ss_size = kStack;
    makecontext(
        &place, [] { world.runCurrent(); }, 0);
    held_ = !held_ && chance.oneIn(3) ? &thread : held_;
    alive_.push_back(&thread);
    ready_.reserve(alive_.size());
    return &thread;
}

void World::run(std::uint64_t seed, std::function<void()> body) {
    chance = Random{seed};
    jumped_ = kFirstTime;
    chooseStyle();
    current = spawn("main", std::move(body));
    nextChange_ = 0;
    swapcontext(&worldsEnd, &current->kept->place);
    current = nullptr;
    nextChange_ = kNever;
}

void World::join(const Thread *thread) {
    while (!thread->ended()) {
        current->doing = "joins " + thread->name;
        sleepOn(thread, kNever);
    }
}

void World::sleepOn(const void *address, std::uint64_t until) {
    current->state = Thread::kAsleep;
    current->word = address;
    current->until = until;
    handOn();
}

// One of several that sleep is any of them.
void World::wake(const void *address, bool all) {
    const auto first = alive_.empty() ? 0 : chance.below(static_cast<unsigned>(alive_.size()));
    for (std::size_t i = 0; i < alive_.size(); ++i) {
        Thread &thread = *alive_[(first + i) % alive_.size()];
        if (thread.word == address) {
            arouse(thread);
            if (!all) {
                return;
            }
        }
    }
}

void World::yield() {
    jumped_ += yieldTime_;
    change();
}

void note(std::string_view text) {
    if (report.account) {
        std::printf("%8llu %9.3f ms  %-6s %.*s\n", static_cast<unsigned long long>(world.step),
                    static_cast<double>(world.now()) / kMillisecond - 1e9,
                    world.current->name.c_str(), static_cast<int>(text.size()), text.data());
    }
}

void fail(std::string_view text) {
    const InLibrary no{false};
    note("FAILS: " + std::string{text});
    text.copy(report.failure, report.size - 1);
    std::fflush(stdout);
    _exit(1);
}

} // namespace simulation

// The compiler registers the destructors of thread_local objects here.
extern "C" int __cxa_thread_atexit(void (*run)(void *), void *object, void * /*library*/) noexcept {
    if (simulation::world.current) {
        const simulation::InLibrary no{false};
        simulation::world.current->kept->destructors.emplace_back(run, object);
    }
    return 0;
}
