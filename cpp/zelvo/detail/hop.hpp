// How what a node does is run in a loop of the application's own instead of the node's thread.
#ifndef ZELVO_DETAIL_HOP_HPP
#define ZELVO_DETAIL_HOP_HPP

#include "handlers.hpp"
#include "loop.hpp"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace zelvo {

namespace detail {
class Hops;
class NodeState;
} // namespace detail

// A piece of a node's work, for an executor: to be run once, or destroyed. It does not throw, and
// it may outlive the node: then it does nothing.
class Task {
public:
    Task(Task &&) noexcept = default;
    Task &operator=(Task &&other) noexcept {
        hops_.swap(other.hops_);
        std::swap(number_, other.number_);
        return *this;
    }
    Task(const Task &) = delete;
    Task &operator=(const Task &) = delete;
    ~Task();
    void operator()() noexcept;

private:
    friend class detail::Hops;
    Task(std::shared_ptr<detail::Hops> hops, std::uint64_t number) noexcept
        : hops_{std::move(hops)},
          number_{number} {}

    std::shared_ptr<detail::Hops> hops_;
    std::uint64_t number_;
};

namespace detail {

// The node's thread waits here while the loop does its work: so there is one piece at a time, and
// what the loop does not come round to stays in the node's queue.
class Hops {
public:
    Hops() = default;
    Hops(const Hops &) = delete;
    Hops &operator=(const Hops &) = delete;
    virtual ~Hops() = default;

    // What every node asks of a loop that it may have. By a table of our own, as a compiler guesses
    // virtual functions: so a program that has no such loop compiles none of it.
    struct Ways {
        void (*serve)(NodeState &node, Step work, void *object) noexcept;
        bool (Hops::*close)();
        bool (Hops::*runsHere)() noexcept;
    };
    // Has the loop do a node's work.
    void serve(NodeState &node, Step work, void *object) const noexcept {
        ways_.serve(node, work, object);
    }
    // Nothing begins any more, and the executor goes: the loop may be about to. True: a piece is in
    // the midst of it.
    bool close() { return (this->*ways_.close)(); }
    // Whether the calling thread is in the midst of it.
    bool runsHere() noexcept { return (this->*ways_.runsHere)(); }

    // In the node's thread: has the loop do it, and waits until it has or never will (false).
    // Throws what the executor throws.
    bool run(const std::shared_ptr<Hops> &self, Step work, void *object) {
        {
            const std::lock_guard lock{mutex_};
            if (closed_) {
                return false;
            }
            done_ = false;
            ++number_;
            state_ = State::waits;
            posting_ = true;
            poster_ = std::this_thread::get_id();
            work_ = work;
            object_ = object;
        }
        try {
            post(self, number_);
            posted();
        } catch (...) {
            drop(number_);
            posted();
            wait();
            throw;
        }
        return wait();
    }

protected:
    // Has the loop perform() the piece of that number, or drop() it.
    virtual void post(const std::shared_ptr<Hops> &self, std::uint64_t number) = 0;
    // Nothing is posted any more.
    virtual void forgetExecutor() noexcept {}
    // In the loop; does nothing where the piece is not wanted any more.
    void perform(std::uint64_t number) noexcept {
        {
            const std::lock_guard lock{mutex_};
            if (number != number_ || state_ != State::waits) {
                return;
            }
            state_ = State::runs;
            runner_ = std::this_thread::get_id();
        }
        work_(object_);
        const std::lock_guard lock{mutex_};
        done_ = true;
        finish();
    }
    static Task task(const std::shared_ptr<Hops> &self, std::uint64_t number) {
        return {self, number};
    }

private:
    friend class zelvo::Task;
    enum class State { over, waits, runs };

    bool closeIt() {
        std::unique_lock lock{mutex_};
        closed_ = true;
        if (state_ == State::waits) {
            finish();
        }
        const bool runs = state_ == State::runs;
        const auto here = std::this_thread::get_id();
        // An executor that returns only when the piece has been run can't be waited for in it.
        const bool waits = poster_ != here && !(runs && runner_ == here);
        const auto end = Clock::now() + std::chrono::seconds{1};
        while (waits && posting_ && changed_.wait_until(lock, end) == std::cv_status::no_timeout) {}
        left_ = posting_;
        lock.unlock();
        if (!left_) {
            forgetExecutor();
        }
        return runs;
    }
    bool isInThisThread() noexcept {
        const std::lock_guard lock{mutex_};
        return state_ == State::runs && runner_ == std::this_thread::get_id();
    }
    void drop(std::uint64_t number) noexcept {
        const std::lock_guard lock{mutex_};
        if (number == number_ && state_ == State::waits) {
            finish();
        }
    }
    void posted() noexcept {
        std::unique_lock lock{mutex_};
        posting_ = false;
        changed_.notify_all();
        const bool left = left_;
        lock.unlock();
        if (left) {
            forgetExecutor();
        }
    }
    // With mutex_.
    void finish() noexcept {
        state_ = State::over;
        changed_.notify_all();
    }
    bool wait() {
        std::unique_lock lock{mutex_};
        while (state_ != State::over) {
            changed_.wait(lock);
        }
        return done_;
    }

    static const Ways kWays;
    const Ways &ways_ = kWays;
    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::over;
    bool closed_ = false;
    bool posting_ = false; // by the thread poster_, which forgets the executor where it is left_
    bool left_ = false;
    std::thread::id poster_;
    bool done_ = false;        // the latest piece has been run
    std::uint64_t number_ = 0; // of the latest piece
    std::thread::id runner_;
    Step work_ = nullptr;
    void *object_ = nullptr;
};
using HopsPtr = std::shared_ptr<Hops>;
// As handlers are held.
inline HopsPtr held(Hops *hops) {
    return HopsPtr{hops};
}

template <class Executor>
class HopsOf final : public Hops {
public:
    explicit HopsOf(Executor &&executor) : executor_{std::move(executor)} {}

private:
    void post(const HopsPtr &self, std::uint64_t number) override {
        (*executor_)(task(self, number));
    }
    void forgetExecutor() noexcept override { executor_.reset(); }
    std::optional<Executor> executor_;
};
template <class Executor>
HopsPtr hopsOf(Executor executor) {
    static_assert(std::is_invocable_v<Executor &, Task>,
                  "zelvo: an executor takes (zelvo::Task), which can be moved only");
    if constexpr (std::is_invocable_v<Executor &, Task>) {
        require(executor);
        return detail::held(new HopsOf<Executor>{std::move(executor)});
    } else {
        return {};
    }
}

} // namespace detail

inline Task::~Task() {
    if (hops_) {
        hops_->drop(number_);
    }
}
inline void Task::operator()() noexcept {
    if (const auto hops = std::move(hops_)) {
        hops->perform(number_);
    }
}

} // namespace zelvo

#endif
