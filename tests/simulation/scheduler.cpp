#include "world.h"

#include <algorithm>
#include <cstdio>
#include <span>

#include <link.h>
#include <unistd.h>

namespace simulation {
namespace {

constexpr std::size_t kStack = std::size_t{256} * 1024;
constexpr std::uint64_t kMostSteps = 3'000'000; // of a world; more are no end
constexpr std::uint64_t kFirstTime = 1'000'000'000 * kMillisecond;

ucontext_t worldsEnd;

// The thread_local objects of this program, which the C++ library is a part of.
const std::span<char> objects = [] {
    std::span<char> found;
    const auto visit = [](dl_phdr_info *program, std::size_t, void *arg) { // the first is this one
        const auto *part = program->dlpi_phdr;
        part = std::find_if(part, part + program->dlpi_phnum,
                            [](const auto &p) { return p.p_type == PT_TLS; });
        *static_cast<std::span<char> *>(arg) = {static_cast<char *>(program->dlpi_tls_data),
                                                part->p_memsz};
        return 1;
    };
    dl_iterate_phdr(visit, &found);
    return found;
}();
const std::vector<char> untouched(objects.begin(), objects.end());

void putBack(const Thread &thread) {
    std::ranges::copy(thread.objects, objects.begin());
}

} // namespace

// A walk, with changes of thread more or less often; or an order that changes at few steps, which
// finds rare ones. In both, one thread may stay where it is for long.
void World::chooseStyle() {
    constexpr unsigned kRarities[] = {1, 2, 4, 8, 24, 80, 300};
    constexpr unsigned kSpans[] = {300, 3000, 12'000};
    const unsigned span = kSpans[chance.below(3)];
    byPriority_ = chance.oneIn(3);
    lastChange_ = byPriority_ ? span : kMostSteps;
    rarity_ = byPriority_ ? span / 12 : kRarities[chance.below(7)];
    grain_ = chance.oneIn(3) ? 1 : kMillisecond;
    yieldTime_ = chance.oneIn(2) ? 1000 : 5 * kMillisecond;
    heldFrom_ = chance.below(span);
    heldUntil_ = heldFrom_ + chance.below(4 * span);
}

Thread *World::choose() {
    if (ready_.size() > 1 && step >= heldFrom_ && step < heldUntil_) {
        std::erase(ready_, held_);
    }
    if (byPriority_) {
        return *std::ranges::max_element(ready_, {}, &Thread::priority);
    }
    return ready_[chance.below(static_cast<unsigned>(ready_.size()))];
}

Thread *World::next() {
    for (ready_.clear();; ready_.clear()) {
        std::uint64_t soonest = kNever;
        for (Thread *thread : alive_) {
            if (thread->until <= now()) {
                thread->arouse();
            }
            if (!thread->sleeps()) {
                ready_.push_back(thread);
            }
            soonest = std::min(soonest, thread->until);
        }
        if (!ready_.empty()) {
            return choose();
        }
        const InLibrary no{false};
        if (soonest == kNever) {
            std::string who = "hangs:";
            for (const Thread *thread : alive_) {
                who += "\n  " + thread->name + " " + thread->doing;
            }
            fail(who);
        }
        rests();
        jumped_ += soonest - now();
    }
}

void World::handOn() {
    expect(++step < kMostSteps, "has no end");
    Thread &me = *current;
    current = next();
    const unsigned steps = rarity_ > 1 ? chance.below(2 * rarity_) : 0;
    nextChange_ = step < lastChange_ ? step + steps : kMostSteps;
    if (current == &me) {
        return;
    }
    if (me.ended) {
        setcontext(&current->place);
    }
    std::ranges::copy(objects, me.objects.begin());
    swapcontext(&me.place, &current->place);
    putBack(me);
}

void World::change() {
    current->priority = --lowest_;
    Thread &somebody = *alive_[chance.below(static_cast<unsigned>(alive_.size()))];
    if (somebody.word && chance.oneIn(8)) {
        somebody.arouse(); // without a reason
    }
    handOn();
}

// The destructors of a thread's objects run in it, and may meet other threads.
void World::runCurrent() {
    putBack(*current);
    current->body();
    while (!current->destructors.empty()) {
        const auto [run, object] = current->destructors.back();
        current->destructors.pop_back();
        run(object);
    }
    current->ended = true;
    std::erase(alive_, current);
    wake(current, true);
    if (alive_.empty()) {
        setcontext(&worldsEnd);
    }
    handOn();
}

Thread *World::spawn(const std::string &name, std::function<void()> body, Node *node) {
    Thread &thread =
        *threads_.emplace_back(std::make_unique<Thread>(Thread{name, std::move(body), node}));
    thread.number = static_cast<int>(threads_.size());
    thread.priority = 1 + chance.below(1000);
    thread.objects = untouched;
    thread.stack.reset(new char[kStack]);
    getcontext(&thread.place);
    thread.place.uc_stack.ss_sp = thread.stack.get();
    thread.place.uc_stack.ss_size = kStack;
    makecontext(
        &thread.place, [] { world.runCurrent(); }, 0);
    if (!held_ && chance.oneIn(3)) {
        held_ = &thread;
    }
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
    swapcontext(&worldsEnd, &current->place);
    current = nullptr;
    nextChange_ = kNever;
}

void World::join(const Thread *thread) {
    while (!thread->ended) {
        current->doing = "joins " + thread->name;
        sleepOn(thread, kNever);
    }
}

void World::sleepOn(const void *address, std::uint64_t until) {
    current->word = address;
    current->until = until == kNever ? kNever : (until + grain_ - 1) / grain_ * grain_;
    handOn();
}

// One of several that sleep is any of them.
void World::wake(const void *address, bool all) {
    const auto first = alive_.empty() ? 0 : chance.below(static_cast<unsigned>(alive_.size()));
    for (std::size_t i = 0; i < alive_.size(); ++i) {
        Thread &thread = *alive_[(first + i) % alive_.size()];
        if (thread.word == address) {
            thread.arouse();
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
    if (hasAccount) {
        std::printf("%8llu %9.3f ms  %-6s %.*s\n", static_cast<unsigned long long>(world.step),
                    static_cast<double>(world.now()) / kMillisecond - 1e9,
                    world.current->name.c_str(), static_cast<int>(text.size()), text.data());
    }
}

void fail(std::string_view text) {
    const InLibrary no{false};
    note("FAILS: " + std::string{text});
    text.copy(failure, kFailure - 1);
    std::fflush(stdout);
    _exit(1);
}

} // namespace simulation

// The compiler registers the destructors of thread_local objects here.
extern "C" int __cxa_thread_atexit(void (*run)(void *), void *object, void * /*library*/) noexcept {
    if (simulation::world.current) {
        const simulation::InLibrary no{false};
        simulation::world.current->destructors.emplace_back(run, object);
    }
    return 0;
}
