#include "world.h"

#include <cstdio>
#include <span>

#include <link.h>
#include <unistd.h>

namespace simulation {

constexpr std::size_t kStack = std::size_t{256} * 1024;
constexpr std::uint64_t kMostSteps = 3'000'000; // of a world; more are no end

static ucontext_t worldsEnd;
static std::span<char> objects; // the thread_local ones of this program and the C++ library in it

void World::run(std::uint64_t seed, std::function<void()> body) {
    const auto findObjects = [](dl_phdr_info *program, std::size_t, void *) {
        const auto *part = program->dlpi_phdr;
        for (; part->p_type != PT_TLS; ++part) {}
        objects = {static_cast<char *>(program->dlpi_tls_data), part->p_memsz};
        return 1; // the first is this program, and enough
    };
    dl_iterate_phdr(findObjects, nullptr);
    chance.seed(seed);
    rarity_ = 1U << chance.below(12);
    lastChange_ = chance.oneIn(2) ? chance.below(12'000) : kNever;
    grain_ = chance.oneIn(3) ? 1 : kMillisecond;
    yieldTime_ = chance.oneIn(2) ? 1000 : 5 * kMillisecond;
    nextChange_ = 0;
    current = spawn("main", std::move(body));
    swapcontext(&worldsEnd, &current->place);
}

Thread *World::spawn(const string &name, std::function<void()> body, Node *node) {
    static const std::vector<char> untouched(objects.begin(), objects.end());
    Thread &thread = threads_.emplace_back(Thread{name, {std::move(body)}, node});
    thread.objects = untouched;
    thread.stack.reset(new char[kStack]);
    getcontext(&thread.place);
    thread.place.uc_stack.ss_sp = thread.stack.get();
    thread.place.uc_stack.ss_size = kStack;
    thread.place.uc_link = &worldsEnd;
    makecontext(
        &thread.place, [] { world.runCurrent(); }, 0);
    alive_.push_back(&thread);
    std::ranges::shuffle(alive_, chance);
    return &thread;
}

// The destructors of a thread's objects run in it, and may meet other threads.
void World::runCurrent() {
    std::ranges::copy(current->objects, objects.begin());
    while (!current->duties.empty()) {
        const auto duty = std::move(current->duties.back());
        current->duties.pop_back();
        duty();
    }
    current->ended = true;
    std::erase(alive_, current);
    wake(current, true);
    if (!alive_.empty()) {
        handOn();
    }
}

void World::join(const Thread *thread, std::uint64_t until) {
    note("joins " + thread->name);
    if (!thread->ended) {
        sleepOn(thread, until);
    }
}

void World::yield() {
    jumped_ += yieldTime_;
    const auto me = std::ranges::find(alive_, current);
    std::iter_swap(me, std::min(me + 1, alive_.end() - 1));
    handOn();
}

void World::sleepOn(const void *address, std::uint64_t until) {
    current->word = address;
    current->until = until == kNever ? kNever : (until + grain_ - 1) / grain_ * grain_;
    handOn();
    current->word = nullptr;
}

void World::wake(const void *address, bool all) {
    bool more = true;
    for (Thread *thread : alive_) {
        if (thread->word == address && std::exchange(more, all)) {
            thread->word = nullptr;
            thread->until = 0;
        }
    }
}

void World::handOn() {
    expect(++step < kMostSteps, "has no end");
    const auto isAwake = [&](const Thread *thread) { return thread->until <= now(); };
    if (std::ranges::none_of(alive_, isAwake)) {
        passTime();
    }
    Thread &me = *std::exchange(current, *std::ranges::find_if(alive_, isAwake));
    nextChange_ = step < lastChange_ ? step + chance.below(2 * rarity_) : kMostSteps;
    if (current != &me) {
        std::ranges::copy(objects, me.objects.begin());
        swapcontext(&me.place, &current->place);
        std::ranges::copy(me.objects, objects.begin());
    }
}

void World::passTime() {
    const InLibrary no{false};
    const auto soonest = (*std::ranges::min_element(alive_, {}, &Thread::until))->until;
    if (soonest == kNever) {
        string hang = "hangs:";
        for (const Thread *thread : alive_) {
            hang += "\n  " + thread->name + " " + thread->last;
        }
        fail(hang);
    }
    expectAllTaken();
    jumped_ += soonest - now();
}

void note(std::string_view text) {
    const InLibrary no{false};
    world.current->last = text;
    if (telling == Telling::kAccount) {
        std::printf("%8llu %9.3f ms  %-6s %.*s\n", static_cast<unsigned long long>(world.step),
                    static_cast<double>(world.now()) / kMillisecond - 1e9,
                    world.current->name.c_str(), static_cast<int>(text.size()), text.data());
    }
}

void fail(std::string_view text) {
    const InLibrary no{false};
    note("FAILS");
    if (telling != Telling::kNothing) {
        std::printf("world %llu: %.*s\n", worldsNumber, static_cast<int>(text.size()), text.data());
    }
    _exit(1);
}

} // namespace simulation

// The compiler registers the destructors of thread_local objects here.
extern "C" int __cxa_thread_atexit(void (*run)(void *), void *object, void * /*library*/) noexcept {
    if (simulation::world.current) {
        const simulation::InLibrary no{false};
        simulation::world.current->duties.emplace_back([=] { run(object); });
    }
    return 0;
}
