// The calls that a node makes.
#ifndef ZELVO_DETAIL_NODE_CALLS_HPP
#define ZELVO_DETAIL_NODE_CALLS_HPP

#include "node_state.hpp"

namespace zelvo::detail {

// The bus counts the time from when it gets the call. So one that has waited for its turn for
// some of it is made by a helper, which can be left alone with it.
inline Answer NodeState::call(const char *url, std::string_view data) {
    Turn turn{*this, url};
    if (!turn.owned()) {
        return noAnswer(noTurn());
    }
    const Deadline deadline = turn.deadline();
    const auto handOver = bus_.handOver(); // who has no turn must not look at the bus
    if (handOver && !leaving_ && deadline != kNever && hasWaited(deadline, timeout_) &&
        !isOfTheBus(hostOf(url))) {
        turn.pass();
        return handOver(*this, deadline, url, data);
    }
    return askIn(turn, url, data);
}

inline Answer NodeState::callUntil(NodeState &node, Clock::time_point end, const char *url,
                                   std::string_view data) {
    const auto keep = node.shared_from_this(); // for cancel()
    AsyncCallPtr call;
    auto future = makeFutureCall<Answer>(url, data, asItIs, call);
    node.callAsync(call);
    if (future.wait_until(end) != std::future_status::ready && node.cancel(call)) {
        return noAnswer(Cause::timed_out);
    }
    return future.get();
}

inline Answer NodeState::askIn(const Turn &turn, const char *url, std::string_view data) {
    if (gone_ || (leaving_ && !isOfTheBus(hostOf(url)))) {
        return noAnswer(Cause::left);
    }
    return ask(client_, url, data, turn.deadline());
}

inline void NodeState::callAsync(const AsyncCallPtr &call) {
    const auto keep = shared_from_this(); // the completion may be about to destroy the node
    call->node = keep;
    call->node_name = name_;
    std::unique_lock lock{mutex_};
    if (leaving_) {
        lock.unlock();
        abandon(*call, Cause::left);
        return;
    }
    static constexpr Calling kCalling{&NodeState::runCompletions, &NodeState::forgetCalls,
                                      &NodeState::leaveHelpers};
    Helpers &helpers = bus_.helpers(); // there from now on, so that leaving takes no memory
    calling_ = &kCalling;
    calls_.add(call);
    bool taken = false;
    try {
        taken = helpers.add(call);
    } catch (...) {
        OpenCalls::takeBack(*call);
        throw;
    }
    lock.unlock();
    if (!taken) {
        finish(*call, noAnswer(Cause::too_many));
    }
}

ZELVO_RARE inline void NodeState::finish(AsyncCall &call, Answer &&answer) noexcept {
    AsyncCallPtr ended;
    {
        const std::lock_guard lock{mutex_};
        ended = calls_.finish(call, std::move(answer));
        if (calls_.hasReady()) {
            wake();
        }
    }
    if (ended) {
        call.end();
    }
}

inline bool NodeState::cancel(const AsyncCallPtr &call) noexcept {
    bool cancelled = false;
    {
        const std::lock_guard lock{mutex_};
        cancelled = OpenCalls::cancel(*call);
        if (cancelled) { // else node and bus may have gone
            bus_.helpers().drop(*call);
        }
    }
    if (cancelled) {
        abandon(*call, Cause::cancelled);
    }
    return cancelled;
}

inline void NodeState::abandon(AsyncCall &call, Cause cause) noexcept {
    if (call.completes) {
        call.forget();
    } else {
        call.answer = noAnswer(cause);
        call.end();
    }
}

inline AsyncCallPtr NodeState::takeReady() noexcept {
    const std::lock_guard lock{mutex_};
    return leaving_ ? nullptr : calls_.takeReady();
}

inline AsyncCallPtr NodeState::takeAnyCall() noexcept {
    const std::lock_guard lock{mutex_};
    return calls_.takeAny();
}

ZELVO_RARE inline void NodeState::runCompletions() noexcept {
    while (const AsyncCallPtr call = takeReady()) {
        reported([&] { call->end(); });
        call->forget();
    }
}

ZELVO_RARE inline void NodeState::forgetCalls() noexcept {
    while (const AsyncCallPtr call = takeAnyCall()) {
        bus_.helpers().drop(*call);
        abandon(*call, Cause::left);
    }
}

ZELVO_RARE inline void NodeState::leaveHelpers() noexcept {
    bus_.helpers().leave(name_);
}

} // namespace zelvo::detail

#endif
