#include "choice.h"

#include <cstdio>
#include <cstdlib>

namespace stress {

std::uint64_t Watchdog::begin(std::string_view who, std::string_view what) {
    const auto now = std::chrono::steady_clock::now();
    std::string text{who};
    text.append(" ").append(what);
    const std::lock_guard lock{mutex_};
    things_.emplace(++last_, Thing{std::move(text), now});
    return last_;
}

void Watchdog::end(std::uint64_t thing) {
    const std::lock_guard lock{mutex_};
    things_.erase(thing);
}

void Watchdog::look() {
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock{mutex_};
    if (things_.empty() || now - things_.begin()->second.begun < limit_) {
        return;
    }
    std::fprintf(stderr, "no progress; what is going on, the oldest first:\n");
    for (const auto &[number, thing] : things_) {
        const std::chrono::duration<double> age = now - thing.begun;
        std::fprintf(stderr, "%7.1f s  %s\n", age.count(), thing.text.c_str());
    }
    std::abort();
}

} // namespace stress
