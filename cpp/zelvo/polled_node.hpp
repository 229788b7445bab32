// A node for loops that poll. Included by zelvo/bus.hpp.
#ifndef ZELVO_POLLED_NODE_HPP
#define ZELVO_POLLED_NODE_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Zelvo for C++ needs C++17 (-std=c++17); before that there is zelvo/bus_client.h"
#else

#include "bus.hpp"

namespace zelvo {

namespace detail {

// What waits to be dispatched: a node has one piece of work at a time.
class Inbox final : public Hops {
public:
    // False: there is nothing to do.
    bool dispatch() noexcept {
        const std::uint64_t number = take();
        if (number != 0) {
            perform(number);
        }
        return number != 0;
    }
    // Until there is something to dispatch; false: the time is up, or the node has gone.
    bool awaitOne(Clock::time_point end) {
        std::unique_lock lock{mutex_};
        while (waiting_ == 0 && !gone_ &&
               come_.wait_until(lock, end) == std::cv_status::no_timeout) {}
        return waiting_ != 0 && !gone_;
    }
    Signal::Native native() const noexcept { return signal_.native(); }

private:
    void post(const HopsPtr & /*self*/, std::uint64_t number) override {
        const std::lock_guard lock{mutex_};
        if (waiting_ == 0) {
            signal_.set();
        }
        waiting_ = number;
        come_.notify_one();
    }
    void forgetExecutor() noexcept override {
        const std::lock_guard lock{mutex_};
        gone_ = true;
        come_.notify_one();
    }
    std::uint64_t take() noexcept {
        const std::lock_guard lock{mutex_};
        if (waiting_ != 0) {
            signal_.clear();
        }
        return std::exchange(waiting_, 0);
    }

    std::mutex mutex_;
    std::condition_variable come_;
    std::uint64_t waiting_ = 0; // 0: nothing
    bool gone_ = false;
    Signal signal_;
};

} // namespace detail

// A node whose handlers, timers and completions run where dispatch() is called, in a loop of the
// application's own:
//     pollfd waits[] = {{panel.fd(), POLLIN, 0}, ...};
//     poll(waits, ...);
//     panel.dispatch();
// What holds for a node with an executor holds here. Where nobody calls dispatch(), nothing of the
// node runs, and its queue fills.
class PolledNode : public Node {
public:
    // Throws what Node's constructor throws; std::system_error also when there are no more
    // descriptors.
    PolledNode(const Bus &bus, const CText &name)
        : PolledNode{bus, name, detail::held(new detail::Inbox)} {}

    // Can be read while there is something to dispatch; not to be read or closed. On Windows it is
    // a handle to wait for. Good as long as the node.
    [[nodiscard]] detail::Signal::Native fd() const {
        state();
        return inbox().native();
    }

    // Does what there is to do at this moment, at most so much, and tells how much that was: a
    // message, a call, or all timers and completions that are due count as one. Does not wait: the
    // node's thread hands over the next message some microseconds later, which fd() tells. A loop
    // with a beat of its own, which does not wait for fd(), uses dispatch_for() instead. By one
    // thread at a time; not in a handler of the node itself, where there is nothing to do.
    std::size_t dispatch(std::size_t at_most = static_cast<std::size_t>(-1)) {
        state();
        const auto keep = inbox_; // a handler may destroy the node
        detail::Inbox &its = inbox();
        std::size_t done = 0;
        while (done < at_most && its.dispatch()) {
            ++done;
        }
        return done;
    }
    // Does what there is to do and what comes, until the time is up: instead of sleeping between
    // two beats. A handler that then runs comes to its end. Otherwise as dispatch().
    template <class Rep, class Period>
    std::size_t dispatch_for(std::chrono::duration<Rep, Period> time) {
        state();
        const auto keep = inbox_;
        detail::Inbox &its = inbox();
        const auto end = detail::later(detail::Clock::now(), detail::saturated(time));
        std::size_t done = 0;
        while (its.awaitOne(end) && its.dispatch()) {
            ++done;
            if (detail::Clock::now() >= end) {
                break;
            }
        }
        return done;
    }

private:
    PolledNode(const Bus &bus, const CText &name, const detail::HopsPtr &inbox)
        : Node{bus, name, inbox},
          inbox_{inbox} {}
    detail::Inbox &inbox() const noexcept { return static_cast<detail::Inbox &>(*inbox_); }

    detail::HopsPtr inbox_;
};

} // namespace zelvo

#endif // C++17

#endif
