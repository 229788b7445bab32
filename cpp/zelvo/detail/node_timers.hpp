// The timers of a node.
#ifndef ZELVO_DETAIL_NODE_TIMERS_HPP
#define ZELVO_DETAIL_NODE_TIMERS_HPP

#include "node_state.hpp"

namespace zelvo::detail {

inline void NodeState::addTimer(const TimerPtr &timer, Clock::duration wait) {
    static constexpr Timing kTiming{&NodeState::noteTimer, &NodeState::arm, &NodeState::runTimers,
                                    &NodeState::forgetTimers};
    const auto keep = shared_from_this(); // the timer may be about to destroy the node
    timer->node = keep;
    const std::lock_guard lock{mutex_};
    if (!timers_) {
        timers_.hold(new Timers);
        timing_ = &kTiming;
    }
    timers_->add(timer, later(Clock::now(), wait));
    if (!arm()) {
        timers_->remove(*timer);
        throw std::bad_alloc{};
    }
}

inline bool NodeState::cancel(const TimerPtr &timer) {
    const std::lock_guard lock{mutex_};
    const bool waits = timers_->remove(*timer) || (timer->period.count() > 0 && !leaving_);
    return waits && !std::exchange(timer->cancelled, true);
}

ZELVO_RARE inline void NodeState::noteTimer(int number) noexcept {
    timers_->note(number);
}

inline bool NodeState::arm() noexcept try {
    return gone_ || timers_->arm([this](long milliseconds, int number) {
        return busClientSettimer(client_, onTimer, milliseconds, number, this) != -1;
    });
} catch (const std::bad_alloc &) {
    return false;
}

inline TimerQueue::node_type NodeState::takeDue(Clock::time_point now) noexcept {
    const std::lock_guard lock{mutex_};
    return leaving_ ? TimerQueue::node_type{} : timers_->takeDue(now);
}

ZELVO_RARE inline void NodeState::runTimers() noexcept {
    const auto now = Clock::now();
    while (auto taken = takeDue(now)) {
        const TimerPtr timer = taken.value().timer;
        reported([&] { timer->run(timer); });
        const std::lock_guard lock{mutex_};
        if (timer->period.count() > 0 && !timer->cancelled) {
            timers_->repeat(std::move(taken));
        }
    }
    reported([&] {
        const std::lock_guard lock{mutex_};
        if (!arm()) {
            attention_ = true; // tried again whenever the node handles something
            throw std::bad_alloc{};
        }
    });
}

ZELVO_RARE inline void NodeState::forgetTimers() {
    TimerQueue timers;
    const std::lock_guard lock{mutex_};
    timers_->takeAll(timers);
}

} // namespace zelvo::detail

#endif
