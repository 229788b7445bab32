// The timers of a node, and which of the bus's own timers they need.
#ifndef ZELVO_DETAIL_TIMERS_HPP
#define ZELVO_DETAIL_TIMERS_HPP

#include "call.hpp"

#include <memory>
#include <set>
#include <utility>

namespace zelvo::detail {

class NodeState;
class TimerEntry;
using TimerPtr = std::shared_ptr<TimerEntry>;
struct SetTimer {
    Clock::time_point due;
    TimerPtr timer;
};
struct Sooner {
    bool operator()(const SetTimer &one, const SetTimer &other) const noexcept {
        return one.due < other.due;
    }
};
using TimerQueue = std::multiset<SetTimer, Sooner>; // equal ones in the order of their setting

class TimerEntry {
public:
    explicit TimerEntry(Clock::duration beat) : period{beat} {}
    TimerEntry(const TimerEntry &) = delete;
    TimerEntry &operator=(const TimerEntry &) = delete;
    ZELVO_RARE virtual ~TimerEntry() = default;
    virtual void run(const TimerPtr &self) = 0;

    const Clock::duration period;  // 0: once
    std::weak_ptr<NodeState> node; // set once, before it gets it
    // The rest is guarded as the timers are.
    TimerQueue::iterator place;
    bool waits = false; // and stands at place
    bool cancelled = false;
};

// run(timer), or run()
template <class Run>
class TimerEntryOf final : public TimerEntry {
public:
    TimerEntryOf(Clock::duration beat, Run &run) : TimerEntry{beat}, run_{std::move(run)} {}
    void run(const TimerPtr &self) override {
        if constexpr (std::is_invocable_v<Run &, const TimerPtr &>) {
            static_cast<void>(run_(self));
        } else {
            static_cast<void>(self);
            static_cast<void>(run_());
        }
    }

private:
    Run run_;
};

// As handlers are held.
inline TimerPtr held(TimerEntry *timer) {
    return TimerPtr{timer};
}

// All under the node's mutex.
class Timers {
public:
    void add(const TimerPtr &timer, Clock::time_point due) {
        timer->place = queue_.insert({due, timer});
        timer->waits = true;
    }
    // Whether it waited.
    bool remove(TimerEntry &timer) noexcept {
        if (timer.waits) {
            timer.waits = false;
            queue_.erase(timer.place);
            return true;
        }
        return false;
    }
    // One that is due, to be put back with repeat(), or nothing.
    TimerQueue::node_type takeDue(Clock::time_point now) noexcept {
        if (queue_.empty() || firstDue() > now) {
            return {};
        }
        auto taken = queue_.extract(queue_.begin());
        taken.value().timer->waits = false;
        return taken;
    }
    // At the next of its whole periods; those that have been missed are left out.
    void repeat(TimerQueue::node_type taken) noexcept {
        Clock::time_point &due = taken.value().due;
        TimerEntry &timer = *taken.value().timer;
        const auto late = std::max(Clock::now() - due, Clock::duration{0});
        due = later(due, late - late % timer.period);
        due = later(due, timer.period);
        timer.place = queue_.insert(std::move(taken));
        timer.waits = true;
    }
    // into is empty.
    void takeAll(TimerQueue &into) noexcept {
        for (const SetTimer &set : queue_) {
            set.timer->waits = false;
        }
        queue_.swap(into);
    }

    // Sees to it that one of the bus's timers, made by set(milliseconds, number), is due when the
    // earliest of ours is. One that is earlier than those which are still to come is the next of
    // them, so they are a stack. Where it is high, each comes at half of the wait that is meant:
    // so it is never higher than kExact and the number of times that the longest wait can be
    // halved. The bus has place for 1,024. False: memory is short.
    template <class Set>
    bool arm(Set set) {
        if (queue_.empty() || (armed_count_ > 0 && armed_[armed_count_ - 1].due <= firstDue())) {
            return true;
        }
        if (armed_count_ == kMost) {
            return false;
        }
        const auto now = Clock::now();
        const auto left = std::clamp(firstDue() - now, Clock::duration{0}, kLongest);
        const auto wait = (left + kUnit - Clock::duration{1}) / kUnit;
        const auto armed = armed_count_ < kExact ? wait : wait / 2;
        last_ = last_ == INT_MAX ? 1 : last_ + 1;
        if (!set(static_cast<long>(armed), last_)) {
            return false;
        }
        armed_[armed_count_++] = {std::min(firstDue(), now + armed * kUnit), last_};
        return true;
    }
    // One of the bus's timers has come.
    void note(int number) noexcept {
        const auto is = [number](const Armed &armed) { return armed.number == number; };
        Armed *const end = armed_ + armed_count_;
        armed_count_ = static_cast<std::size_t>(std::remove_if(armed_, end, is) - armed_);
    }

private:
    static constexpr std::size_t kExact = 64;
    static constexpr std::size_t kMost = kExact + 32;
    static constexpr Clock::duration kUnit = std::chrono::milliseconds{1};
    static constexpr Clock::duration kLongest = INT_MAX * kUnit;
    struct Armed {
        Clock::time_point due;
        int number;
    };

    Clock::time_point firstDue() const noexcept { return queue_.begin()->due; } // there is one

    TimerQueue queue_;
    Armed armed_[kMost] = {}; // the earliest last
    std::size_t armed_count_ = 0;
    int last_ = 0;
};

} // namespace zelvo::detail

#endif
