// A node that runs: what it has, and what it can do.
#ifndef ZELVO_DETAIL_NODE_STATE_HPP
#define ZELVO_DETAIL_NODE_STATE_HPP

#include "../codec.hpp"
#include "bus.hpp"
#include "handlers.hpp"
#include "hop.hpp"
#include "timers.hpp"

namespace zelvo::detail {

// Shared by zelvo::Node, the node's thread, and whoever is in a call through it, so that it
// outlives a node which is destroyed meanwhile.
class NodeState : public std::enable_shared_from_this<NodeState> {
public:
    // hops: null for a node whose thread does its work itself.
    NodeState(BusState &bus, const char *name, HopsPtr hops);
    NodeState(const NodeState &) = delete;
    NodeState &operator=(const NodeState &) = delete;
    ZELVO_RARE ~NodeState() = default; // the client is closed by its thread

    const std::string &name() const noexcept { return name_; }
    client_t *client() const noexcept { return client_; }

    // ---- its life: node.hpp ----

    void start();
    // No handler begins from now on, and no call is waited for.
    void leave(BusPtr bus);
    bool leaving() const noexcept { return leaving_; }
    // A message, or the question of a call, that does not decode.
    void noteUnreadable(std::string_view name, std::size_t size, std::size_t expected);
    std::size_t unreadable() const noexcept { return unreadable_; }

    // ---- calls: node_calls.hpp ----

    Answer call(const char *url, std::string_view data);
    // By a helper.
    static Answer callUntil(NodeState &node, Clock::time_point end, const char *url,
                            std::string_view data);
    // A call whose end() or forget() is run in any case.
    void callAsync(const AsyncCallPtr &call);
    // In a helper's thread, where nothing of the user's is run or destroyed.
    void finish(AsyncCall &call, Answer &&answer) noexcept;
    // False: it is over, or its completion has begun.
    bool cancel(const AsyncCallPtr &call) noexcept;

    // ---- handlers: node_handlers.hpp ----

    // To the handler's topics.
    void subscribe(const HandlerPtr &handler);
    void unsubscribe(const std::vector<std::string> &topics);
    // Whether there would have been another message for the handler.
    bool cancel(const HandlerPtr &handler);
    void setPath(const char *path, const HandlerPtr &handler);

    // ---- timers: node_timers.hpp ----

    void addTimer(const TimerPtr &timer, Clock::duration wait);
    bool cancel(const TimerPtr &timer);

private:
    friend class Hops;
    // Timers, and calls that are not waited for, are reached by these, which their first use sets:
    // a program that uses none compiles none of it.
    struct Timing {
        void (NodeState::*note)(int number) noexcept; // with mutex_, like the next
        bool (NodeState::*arm)() noexcept;
        void (NodeState::*run)() noexcept;
        void (NodeState::*forget)();
    };
    struct Calling {
        void (NodeState::*run)() noexcept;
        void (NodeState::*forget)() noexcept;
        void (NodeState::*leave)() noexcept;
    };

    static NodeState &of(void *userdata) noexcept { return *static_cast<NodeState *>(userdata); }
    static std::string_view viewOf(const char *data, int length) noexcept {
        return {data, static_cast<std::size_t>(length)};
    }

    // ---- what the bus has the node's thread do ----

    static int onMessage(void *userdata, client_t *client, char *topic, char *data,
                         int length) noexcept;
    static char *onCall(void *userdata, client_t *client, char *url, char *data,
                        int length) noexcept;
    // type: 0 to look at what other threads have left, otherwise the number of a timer.
    static int onTimer(void *userdata, client_t *client, int type) noexcept;

    // Does work, unless the node is leaving; here, or in the loop. Rarely: in the loop, or where
    // the node has something to do before.
    template <class... Arguments>
    void guarded(void (NodeState::*work)(Arguments...) noexcept, Arguments... arguments) noexcept;
    void rarely(Step work, void *object) noexcept;
    static void workInLoop(NodeState &node, Step work, void *object) noexcept;
    void inLoop(Step work, void *object) noexcept;
    void settled(Step work, void *object) noexcept;
    template <class Run>
    void reported(Run &&run) noexcept;
    void reportCurrent() noexcept;
    // Completions and timers.
    void runDue() noexcept;
    // Makes the changes that wait, and asks for the looks that there was no memory for. False: the
    // node is leaving.
    bool settle() noexcept;
    // With mutex_: has the node's thread look at what has been left for it, after so long.
    void wake(long milliseconds = 0) noexcept;

    // ---- its life ----

    void run() noexcept;
    // In the node's thread, when no handler runs or will. The loop leaves the bus by a call of its
    // own, which comes between nobody's answer and its copy.
    void goQuietly() noexcept;
    void endCalls() noexcept;
    // What users have left goes in the node's thread or the one that destroys the node, and under
    // no lock.
    void forgetHandlers();
    // False: the node's thread can't be waited for here.
    bool endLoop(bool (*giveUp)(void *node));
    static void askToLeave(void *self) noexcept;
    // Whether another thread's call through this node is under way, which the node's thread waits
    // for; or this thread is in a handler of a node whose answer the running handler waits for.
    static bool isHeld(void *self);
    // The node's thread goes on alone, and the bus waits for it. False: it has ended.
    bool retire(BusPtr &bus);

    // ---- calls ----

    // A turn for a scope, in which the node stays.
    class Turn {
    public:
        Turn(NodeState &node, const char *url)
            : keep_{node.shared_from_this()},
              deadline_{deadlineAfter(node.timeout_)},
              owned_{node.turns_.take(url, deadline_)} {}
        ~Turn() { pass(); }
        Turn(const Turn &) = delete;
        Turn &operator=(const Turn &) = delete;
        Deadline deadline() const noexcept { return deadline_; }
        bool owned() const noexcept { return owned_; }
        void pass() noexcept {
            if (std::exchange(owned_, false)) {
                keep_->turns_.pass();
            }
        }

    private:
        const std::shared_ptr<NodeState> keep_;
        const Deadline deadline_;
        bool owned_;
    };
    // Why there is no turn.
    Cause noTurn() const noexcept { return leaving_ ? Cause::left : Cause::timed_out; }
    Answer askIn(const Turn &turn, const char *url, std::string_view data);
    static void abandon(AsyncCall &call, Cause cause) noexcept;
    AsyncCallPtr takeReady() noexcept;
    AsyncCallPtr takeAnyCall() noexcept;
    void runCompletions() noexcept;
    // Futures become ready without an answer, completions never run.
    void forgetCalls() noexcept;
    // The node's helpers leave the bus.
    void leaveHelpers() noexcept;

    // ---- handlers ----

    void hear(const char *topic, std::string_view data) noexcept;
    // Where it is not the one handler of the topic that was heard last.
    void hearAll(const char *topic, std::string_view data) noexcept;
    void tell(const NamedHandler &named, std::string_view data) noexcept;
    void answer(const char *url, std::string_view data, char **answer) noexcept;
    // Made before the node's next handler; what is replaced is destroyed then, in its thread. A
    // node that hears nothing looks when many wait, so that it does not keep ever more.
    void change(Change::Kind kind, const HandlerPtr &handler, std::vector<std::string> names = {});

    // ---- timers ----

    // With mutex_, like the next. False: memory is short.
    bool arm() noexcept;
    void noteTimer(int number) noexcept;
    TimerQueue::node_type takeDue(Clock::time_point now) noexcept;
    void runTimers() noexcept;
    void forgetTimers();

    BusState &bus_; // gone once the node is, which whoever has a turn finds out first
    const std::chrono::milliseconds timeout_;
    const std::string name_;
    const HopsPtr hops_;
    client_t *client_ = nullptr; // until it starts
    Turns turns_;
    BusState::Caller caller_{name_, turns_, hops_.get()};
    Subscriptions subscriptions_; // whoever has the turn looks at them

    Handlers handlers_; // the node's thread's, or the loop's
    long pause_ = 0;    // of milliseconds, after work that the loop has lost; the node's thread's

    std::mutex mutex_; // of all below that is not atomic
    OwningChain<Change> changes_;
    std::size_t change_count_ = 0; // since they were last looked at
    Box<Timers> timers_;           // from the first on
    OpenCalls calls_;
    BusPtr keep_;        // of a node that nobody waits for
    bool wakes_ = false; // a look has been asked for
    std::atomic<const Timing *> timing_{nullptr};
    std::atomic<const Calling *> calling_{nullptr};
    std::atomic<std::size_t> unreadable_{0};
    std::atomic<bool> gone_{false};        // the client must not be used; set in a turn, too
    std::atomic<bool> leaving_{false};     // no handler begins
    std::atomic<bool> quiet_{false};       // nor does one run
    std::atomic<bool> calls_ended_{false}; // nobody has a turn any more
    std::atomic<bool> attention_{false};   // settle() has something to do, or the node is leaving
    Loop loop_;
    OwningChain<Retired::Entry> retirement_{new Retired::Entry}; // made when there was memory
};

// These are declared inline for what it says to optimizers: there is one of them for each message.
template <class... Arguments>
inline void NodeState::guarded(void (NodeState::*work)(Arguments...) noexcept,
                               Arguments... arguments) noexcept {
    if (hops_ || attention_.load(std::memory_order_acquire)) {
        auto its = [node = this, work, arguments...] { (node->*work)(arguments...); };
        rarely([](void *object) { (*static_cast<decltype(its) *>(object))(); }, &its);
    } else {
        (this->*work)(arguments...);
        if (attention_.load(std::memory_order_acquire)) {
            settle();
        }
    }
}

template <class Run>
inline void NodeState::reported(Run &&run) noexcept {
    try {
        run();
    } catch (...) {
        reportCurrent();
    }
}

} // namespace zelvo::detail

#endif
