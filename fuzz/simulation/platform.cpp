// What the library asks of the operating system, answered by the simulated world: waiting and
// yielding by its scheduler, time by its clock. The files stand in disk.cpp.
#include "platform/platform.h"

#include "scheduler.h"

#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

using simulation::world;

namespace platform {
namespace {

// Some sleeps end at once, without a reason.
void sleepUntil(const Word &word, std::uint32_t expected, std::uint64_t time) {
    world.point();
    const bool sleeps = reinterpret_cast<const std::uint32_t &>(word) == expected;
    sleeps && !world.chance.oneIn(32) ? world.sleepOn(&word, time) : void();
}

} // namespace

void waitWord(Word &word, std::uint32_t expected) noexcept {
    sleepUntil(word, expected, simulation::kNever);
}
void waitWordFor(Word &word, std::uint32_t expected, std::uint32_t milliseconds) noexcept {
    sleepUntil(word, expected, world.now() + milliseconds * simulation::kMillisecond);
}
void wakeOne(Word &word) noexcept {
    world.point();
    world.wake(&word, false);
}
void wakeAll(Word &word) noexcept {
    world.point();
    world.wake(&word, true);
}
void yieldThread() noexcept {
    world.yield();
}
std::uint32_t threadId() noexcept {
    return static_cast<std::uint32_t>(world.current->number);
}
std::uint32_t processId() noexcept {
    return 1;
}
void *threadStart(ThreadBody /*body*/, void * /*arg*/, std::size_t /*stack*/) noexcept {
    return nullptr; // the library starts no threads
}
void threadJoin(void * /*handle*/) noexcept {}
bool visitExecutables(ExecutableVisitor /*visit*/, void * /*arg*/) noexcept {
    return false;
}

} // namespace platform

// Every clock is the world's; outside of one, the system's.
extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept {
    constexpr std::uint64_t kSecond = 1'000'000'000;
    if (!world.current) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    *time = {static_cast<time_t>(world.now() / kSecond), static_cast<long>(world.now() % kSecond)};
    return 0;
}
