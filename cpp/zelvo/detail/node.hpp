// How a node lives: it joins, does its work in its thread or in a loop, and leaves.
#ifndef ZELVO_DETAIL_NODE_HPP
#define ZELVO_DETAIL_NODE_HPP

#include "json_reader.hpp"
#include "node_calls.hpp"
#include "node_handlers.hpp"
#include "node_timers.hpp"

namespace zelvo::detail {

// Why there is no client of that name. C functions don't tell; another one sees whether it can be:
// then it was the name.
ZELVO_RARE inline Cause refusalOf(BusState &bus, const std::string &name) {
    const std::string probe = bus.helperNames().next(name);
    client_t *const client =
        busClientConnect(bus.native(), probe.c_str(), nullptr, nullptr, nullptr);
    busClientClose(client);
    return client ? Cause::name_taken : Cause::bus_full;
}
inline client_t *joined(BusState &bus, const std::string &name, onmessage_callback onMessage,
                        oncall_callback onCall, void *node) {
    const Deadline deadline = deadlineAfter(bus.timeout());
    client_t *client = busClientConnect(bus.native(), name.c_str(), onMessage, onCall, node);
    if (!client || !becomesSilent(client)) {
        const bool isLate = Clock::now() >= deadline;
        const Cause cause = isLate ? Cause::timed_out : client ? Cause::lost : refusalOf(bus, name);
        busClientClose(client);
        throw Error(concat({"zelvo: node ", name, " could not join the bus: ", reason(cause)}),
                    cause);
    }
    return client;
}

inline NodeState::NodeState(BusState &bus, const char *name, HopsPtr hops)
    : bus_{bus},
      timeout_{bus.timeout()},
      name_{name},
      hops_{std::move(hops)} {}

inline void NodeState::start() {
    try {
        client_ = joined(bus_, name_, onMessage, onCall, this);
        bus_.enter(caller_);
        loop_.start(
            name_, [](void *node) { static_cast<NodeState *>(node)->run(); }, this,
            shared_from_this());
    } catch (...) {
        bus_.takeOut(caller_);
        busClientClose(client_);
        throw;
    }
}

ZELVO_RARE inline void NodeState::run() noexcept {
    insideNode() = true;
    bus_.begin(caller_);
    busClientSpin(client_);
    endCalls(); // where the loop has ended of itself
    BusPtr keep;
    {
        const std::lock_guard lock{mutex_};
        leaving_ = true;
        gone_ = true;
        keep = std::move(keep_);
    }
    turns_.pass();
    if (const Calling *const calling = calling_) {
        (this->*calling->forget)();
    }
    if (keep || !hops_) {
        forgetHandlers();
    }
    bus_.takeOut(caller_);
    busClientClose(client_);
    // A node that could not be waited for may be the last to let go of the bus.
    if (keep) {
        keep.reset();
        Retired::instance().finish();
    }
}

ZELVO_RARE inline bool NodeState::settle() noexcept {
    OwningChain<Change> changes;
    {
        const std::lock_guard lock{mutex_};
        changes.prependAll(changes_);
        change_count_ = 0;
        const Timing *const timing = timing_;
        attention_ = leaving_ || (timing && !(this->*timing->arm)());
        if (calls_.hasReady()) {
            wake();
        }
    }
    reported([&] { // what goes with a change may be the owner of this node
        for (; !changes.empty(); changes.dropFirst()) {
            handlers_.make(changes.front());
        }
    });
    if (!changes.empty()) { // memory is short
        const std::lock_guard lock{mutex_};
        changes_.prependAll(changes);
        attention_ = true;
    }
    if (leaving_ && !hops_) {
        goQuietly();
    }
    return !leaving_;
}

ZELVO_RARE inline void NodeState::rarely(Step work, void *object) noexcept {
    if (hops_) {
        hops_->serve(*this, work, object);
    } else {
        settled(work, object);
    }
}

inline void NodeState::settled(Step work, void *object) noexcept {
    if (!attention_ || settle()) {
        work(object);
    }
    if (attention_) {
        settle();
    }
}

inline constexpr Hops::Ways Hops::kWays{NodeState::workInLoop, &Hops::closeIt,
                                        &Hops::isInThisThread};
inline void NodeState::workInLoop(NodeState &node, Step work, void *object) noexcept {
    node.inLoop(work, object);
}

inline void NodeState::inLoop(Step work, void *object) noexcept {
    auto hop = [&] {
        const bool outer = std::exchange(insideNode(), true);
        settled(work, object);
        if (leaving_) {
            forgetHandlers();
        }
        insideNode() = outer;
    };
    using Hop = decltype(hop);
    bool done = leaving_;
    if (!done) {
        reported([&] {
            done = hops_->run(
                hops_, [](void *run) { (*static_cast<Hop *>(run))(); }, &hop);
            if (!done && !leaving_ && pause_ == 0) {
                throw Error("zelvo: an executor has destroyed a task unrun", Cause::lost);
            }
        });
    }
    // What is due or ready is looked at again, also where no message comes; at once, where the loop
    // has come back.
    const bool isBack = done && pause_ != 0;
    pause_ = done ? 0 : std::clamp(2 * pause_, 20L, 1000L);
    if (!done || isBack) {
        const std::lock_guard lock{mutex_};
        attention_ = attention_ || !done;
        wakes_ = wakes_ && !isBack;
        wake(pause_);
    }
    if (leaving_) {
        goQuietly();
    }
}

inline int NodeState::onTimer(void *userdata, client_t * /*client*/, int type) noexcept {
    NodeState &node = of(userdata);
    {
        const std::lock_guard lock{node.mutex_};
        if (type == 0) {
            node.wakes_ = false;
        } else {
            (node.*node.timing_.load()->note)(type);
        }
    }
    node.guarded(&NodeState::runDue);
    return 0;
}

inline void NodeState::runDue() noexcept {
    if (const Calling *const calling = calling_) {
        (this->*calling->run)();
    }
    if (const Timing *const timing = timing_) {
        (this->*timing->run)();
    }
}

inline void NodeState::wake(long milliseconds) noexcept {
    if (!wakes_ && !gone_) {
        wakes_ = busClientSettimer(client_, onTimer, milliseconds, 0, this) != -1;
        attention_ = attention_ || !wakes_;
    }
}

ZELVO_RARE inline void NodeState::reportCurrent() noexcept {
    bus_.report(name_, std::current_exception());
}

ZELVO_RARE inline void NodeState::noteUnreadable(std::string_view name, std::size_t size,
                                                 std::size_t expected) {
    ++unreadable_;
    bus_.report(name_, std::make_exception_ptr(Unreadable{Text{name}, size, expected}));
}

inline void NodeState::goQuietly() noexcept {
    quiet_ = true;
    endCalls();
    busClientSpinExit(client_); // another wish may have found a full queue
}

inline void NodeState::endCalls() noexcept {
    if (!calls_ended_) {
        turns_.takeLast();
        calls_ended_ = true;
    }
}

ZELVO_RARE inline void NodeState::leave(BusPtr bus) {
    {
        const std::lock_guard lock{mutex_};
        leaving_ = true;
        attention_ = true;
    }
    if (const Calling *const calling = calling_) {
        (this->*calling->forget)();
        (this->*calling->leave)();
    }
    if (hops_ && !hops_->close()) {
        forgetHandlers(); // otherwise the loop does, as it ends what it runs
    }
    const bool own = loop_.isThisThread() || (hops_ && hops_->runsHere());
    if (own) {
        askToLeave(this); // while there is memory
    }
    if ((own || !endLoop(isHeld)) && retire(bus)) {
        return;
    }
    forgetHandlers();
    if (bus->isLeftToNodes()) {
        release(bus);
    }
}

ZELVO_RARE inline void NodeState::forgetHandlers() {
    if (const Timing *const timing = timing_) {
        (this->*timing->forget)(); // before what may cancel one as it goes
    }
    OwningChain<Change> changes;
    HandlersByName topics;
    HandlersByName paths;
    handlers_.takeAll(topics, paths);
    const std::lock_guard lock{mutex_};
    changes.prependAll(changes_);
}

inline bool NodeState::endLoop(bool (*giveUp)(void *node)) {
    return loop_.end(askToLeave, giveUp);
}

ZELVO_RARE inline void NodeState::askToLeave(void *self) noexcept {
    NodeState &node = of(self);
    const std::lock_guard lock{node.mutex_};
    if (node.turns_.keepFor(node.loop_.id())) {
        node.calls_ended_ = true;
    }
    if (node.calls_ended_ && !node.gone_) {
        busClientSpinExit(node.client_);
    } else {
        node.wakes_ = false; // it may be for a look that is far away
        node.wake();         // to go quietly
    }
}

ZELVO_RARE inline bool NodeState::isHeld(void *self) {
    NodeState &node = of(self);
    if (node.quiet_ && !node.calls_ended_) {
        return true;
    }
    return node.bus_.waitsForThisThread(node.caller_);
}

ZELVO_RARE inline bool NodeState::retire(BusPtr &bus) {
    bool alone = false;
    {
        const std::lock_guard lock{mutex_};
        if (!gone_) {
            Retired::instance().add(retirement_.front(), bus.get(), loop_.release());
            keep_ = std::move(bus);
            alone = true;
        }
    }
    return alone || !endLoop(nullptr);
}

inline bool Helpers::hasLeft(const AsyncCall &call) noexcept {
    const auto node = call.node.lock();
    return !node || node->leaving();
}
inline void Handler::cannotRead(View name, std::size_t size, std::size_t expected) const {
    if (const auto its = node.lock()) {
        its->noteUnreadable(name, size, expected);
    }
}
inline void Helpers::finish(AsyncCall &call, Answer &&answer) noexcept {
    if (const auto node = call.node.lock()) {
        node->finish(call, std::move(answer));
    }
}

} // namespace zelvo::detail

#endif
