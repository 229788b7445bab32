// A node that runs.
#ifndef ZELVO_DETAIL_NODE_HPP
#define ZELVO_DETAIL_NODE_HPP

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
    NodeState(BusState &bus, const std::string &name, HopsPtr hops)
        : bus_{bus},
          name_{name},
          hops_{std::move(hops)},
          client_{connectSilently(bus.native(), name.c_str(), onMessage, onCall, this)} {
        if (!client_) {
            throw Error("zelvo: node " + name + " could not join the bus");
        }
    }
    NodeState(const NodeState &) = delete;
    NodeState &operator=(const NodeState &) = delete;
    ~NodeState() = default; // the client is closed by its thread

    void start() {
        try {
            bus_.enter(name_, turns_);
            loop_.start(
                name_, [](void *node) { static_cast<NodeState *>(node)->run(); }, this,
                shared_from_this());
        } catch (...) {
            bus_.takeOut(turns_);
            busClientClose(client_);
            throw;
        }
    }
    const std::string &name() const noexcept { return name_; }
    client_t *client() const noexcept { return client_; }
    BusState &bus() const noexcept { return bus_; }

    // ---- calls ----

    // The bus counts the time from when it gets the call. So one that has waited for its turn for
    // some of it is made by a helper, which can be left alone with it.
    Answer call(const char *url, std::string_view data) {
        const auto keep = shared_from_this();
        const Deadline deadline = deadlineAfter(bus_.timeout());
        Turn turn{turns_, url, deadline};
        if (!turn.owned()) {
            return noAnswer(Cause::timed_out);
        }
        if (deadline && *deadline - Clock::now() < bus_.timeout() * 15 / 16 &&
            !isOfTheBus(hostOf(url)) && bus_.helpers().any()) {
            turn.pass();
            return callUntil(*deadline, url, data);
        }
        return askInTurn(url, data, deadline);
    }
    Answer callUntil(Clock::time_point end, const char *url, std::string_view data) {
        const auto call = futureCall<Answer>(url, data, asItIs);
        auto future = call->future();
        callAsync(call);
        if (future.wait_until(end) != std::future_status::ready && cancel(call)) {
            return noAnswer(Cause::timed_out);
        }
        return future.get();
    }

    // A call whose end() or forget() is run in any case.
    void callAsync(const AsyncCallPtr &call) {
        call->node = weak_from_this();
        call->node_name = name_;
        std::unique_lock lock{mutex_};
        if (leaving_) {
            lock.unlock();
            call->over = true;
            abandon(*call, Cause::left);
            return;
        }
        calls_.add(call);
        bool taken = false;
        try {
            taken = bus_.helpers().add(call);
        } catch (...) {
            calls_.takeBack();
            throw;
        }
        lock.unlock();
        if (!taken) {
            finish(*call, noAnswer(Cause::too_many));
        }
    }

    // In a helper's thread, where nothing of the user's is run or destroyed.
    void finish(AsyncCall &call, Answer answer) noexcept {
        AsyncCalls ended;
        {
            const std::lock_guard lock{mutex_};
            ended = calls_.finish(call, std::move(answer));
            if (calls_.hasReady()) {
                wake();
            }
        }
        if (!ended.empty()) {
            call.end(std::move(call.answer));
        }
    }

    // False: it is over, or its completion has begun.
    bool cancel(const AsyncCallPtr &call) noexcept {
        AsyncCalls cancelled;
        {
            const std::lock_guard lock{mutex_};
            cancelled = calls_.cancel(*call);
            bus_.helpers().drop(*call);
        }
        if (!cancelled.empty()) {
            abandon(*call, Cause::cancelled);
        }
        return !cancelled.empty();
    }

    // ---- handlers ----
    // What the node does and what the bus does change in one turn, so that they do not come apart
    // where several threads make changes.

    void subscribe(const std::vector<std::string> &topics, const HandlerPtr &handler) {
        constexpr const char *url = "/bus/subscribe";
        const auto keep = shared_from_this();
        const Deadline deadline = deadlineAfter(bus_.timeout());
        const Turn turn{turns_, url, deadline};
        if (!turn.owned()) {
            throw noAnswerError(url, Cause::timed_out);
        }
        const std::vector<std::string> fresh = subscriptions_.notIn(topics);
        const std::string json = jsonArray(fresh);
        change({Change::Kind::add, topics, handler}); // it is there before the first message
        const Cause cause = gone_           ? Cause::left
                            : fresh.empty() ? Cause::answered
                                            : askInTurn(url, json, deadline).cause;
        if (cause != Cause::answered) {
            handler->cancelled = true;
            change({Change::Kind::remove, topics, handler});
            throw noAnswerError(url, cause);
        }
        subscriptions_.add(topics, *handler);
    }
    void unsubscribe(const std::vector<std::string> &topics) {
        constexpr const char *url = "/bus/unsubscribe";
        const std::string json = jsonArray(topics);
        const auto keep = shared_from_this();
        const Deadline deadline = deadlineAfter(bus_.timeout());
        const Turn turn{turns_, url, deadline};
        change({Change::Kind::remove, topics, nullptr});
        if (turn.owned()) {
            subscriptions_.removeAll(topics);
        }
        const Cause cause = turn.owned() ? askInTurn(url, json, deadline).cause : Cause::timed_out;
        if (cause != Cause::answered) {
            throw noAnswerError(url, cause);
        }
    }
    // Whether there would have been another message for the handler.
    bool cancel(const HandlerPtr &handler, const std::vector<std::string> &topics) {
        if (handler->cancelled.exchange(true)) {
            return false;
        }
        constexpr const char *url = "/bus/unsubscribe";
        const auto keep = shared_from_this();
        const Deadline deadline = deadlineAfter(bus_.timeout());
        const Turn turn{turns_, url, deadline};
        change({Change::Kind::remove, topics, handler});
        if (!turn.owned()) {
            return true;
        }
        std::vector<std::string> last;
        const bool was = subscriptions_.remove(topics, *handler, last);
        if (!last.empty()) {
            askInTurn(url, jsonArray(last), deadline); // or what comes has no handler
        }
        return was && !leaving_;
    }
    void setPath(const std::string &path, HandlerPtr handler) {
        change({Change::Kind::set, {path}, std::move(handler)});
    }

    // ---- timers ----

    // run(timer)
    template <class Run>
    TimerPtr addTimer(Clock::duration wait, Clock::duration period, Run run) {
        TimerPtr timer = std::make_shared<TimerEntryOf<Run>>(period, std::move(run));
        const std::lock_guard lock{mutex_};
        timers_.add(timer, later(Clock::now(), wait));
        if (!arm()) {
            timers_.remove(*timer);
            throw std::bad_alloc{};
        }
        return timer;
    }
    bool cancel(const TimerPtr &timer) {
        const std::lock_guard lock{mutex_};
        const bool waits = timers_.remove(*timer) || (timer->period.count() > 0 && !leaving_);
        return waits && !std::exchange(timer->cancelled, true);
    }

    // ---- the end ----

    // No handler begins from now on, and no call is waited for.
    void leave(BusPtr bus) {
        {
            const std::lock_guard lock{mutex_};
            leaving_ = true;
            attention_ = true;
            wake();
        }
        forgetCalls();
        bus_.helpers().leave(name_);
        if (hops_) {
            hops_->close();
        }
        const bool own = loop_.isThisThread() || (hops_ && hops_->runsHere());
        if ((own || !endLoop(isHeld)) && retire(bus)) {
            return;
        }
        forgetHandlers();
        if (bus->isLeftToNodes()) {
            release(bus);
        }
    }
    bool leaving() const noexcept { return leaving_; }

    // ---- what does not decode ----

    void noteUnreadable(std::string_view name, std::size_t size, std::size_t expected) {
        ++unreadable_;
        bus_.report(name_, std::make_exception_ptr(Unreadable{Text{name}, size, expected}));
    }
    std::size_t unreadable() const noexcept { return unreadable_; }

private:
    static NodeState &of(void *userdata) noexcept { return *static_cast<NodeState *>(userdata); }
    static std::string_view viewOf(const char *data, int length) noexcept {
        return data ? std::string_view{data, static_cast<std::size_t>(length)} : std::string_view{};
    }

    // ---- what the bus has the node's thread do ----

    // Does work, unless the node is leaving; here, or in the loop.
    template <class Work>
    void guarded(Work work) noexcept {
        if (!hops_) {
            settled(work);
        } else if (!leaving_) {
            auto hop = [&] {
                const auto *const outer = std::exchange(handlingNode(), this);
                settled(work);
                handlingNode() = outer;
            };
            using Hop = decltype(hop);
            bool done = false;
            reported(
                [&] { done = hops_->run([](void *run) { (*static_cast<Hop *>(run))(); }, &hop); });
            if (!done) { // what is due or ready is looked at again
                const std::lock_guard lock{mutex_};
                attention_ = true;
            }
        }
        if (hops_ && leaving_) {
            goQuietly();
        }
    }
    template <class Work>
    void settled(Work &work) noexcept {
        if (!attention_.load(std::memory_order_acquire) || settle()) {
            work();
        }
        if (attention_.load(std::memory_order_acquire)) {
            settle();
        }
    }
    template <class Run>
    void reported(Run &&run) noexcept {
        try {
            run();
        } catch (...) {
            bus_.report(name_, std::current_exception());
        }
    }

    // NOLINTNEXTLINE(readability-non-const-parameter): the type is given
    static int onMessage(void *userdata, client_t * /*client*/, char *topic, char *data,
                         int length) noexcept {
        NodeState &node = of(userdata);
        node.guarded([&] { node.hear(topic, viewOf(data, length)); });
        return 0;
    }
    void hear(std::string_view topic, std::string_view data) noexcept {
        const auto [first, last] = handlers_.ofTopic(topic);
        for (auto entry = first; entry != last; ++entry) {
            Handler &handler = *entry->second;
            if (!handler.cancelled.load(std::memory_order_relaxed) && !leaving_) {
                reported([&] {
                    char *none = nullptr;
                    handler.run(topic, data, none);
                });
            }
        }
    }

    static char *onCall(void *userdata, client_t * /*client*/, char *url, char *data,
                        int length) noexcept {
        NodeState &node = of(userdata);
        char *answer = nullptr;
        node.guarded([&] {
            const std::string_view path = std::string_view{url}.substr(1 + node.name_.size());
            if (Handler *const handler = node.handlers_.ofPath(path)) {
                node.reported([&] { handler->run(path, viewOf(data, length), answer); });
            }
        });
        return answer;
    }

    // type: 0 to look at what other threads have left, otherwise the number of a timer.
    static int onTimer(void *userdata, client_t * /*client*/, int type) noexcept {
        NodeState &node = of(userdata);
        node.noteTimer(type);
        node.guarded([&] {
            node.runCompletions();
            node.runTimers();
        });
        return 0;
    }

    void run() noexcept {
        handlingNode() = this;
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
        forgetCalls();
        if (keep || !hops_) {
            forgetHandlers();
        }
        bus_.takeOut(turns_);
        busClientClose(client_);
        // A node that could not be waited for may be the last to let go of the bus.
        if (keep) {
            keep.reset();
            Retired::instance().finish();
        }
    }

    // Makes the changes that wait, and asks for the looks that there was no memory for. False: the
    // node is leaving.
    bool settle() noexcept {
        std::vector<Change> changes;
        {
            const std::lock_guard lock{mutex_};
            changes.swap(changes_);
            attention_ = leaving_ || !arm();
            if (calls_.hasReady()) {
                wake();
            }
        }
        reported([&] {
            for (const Change &change : changes) {
                handlers_.make(change);
            }
        });
        changes.clear(); // what goes with them may be the owner of this node
        if (leaving_ && !hops_) {
            goQuietly();
        }
        return !leaving_;
    }
    // In the node's thread, when no handler runs or will. The loop leaves the bus by a call of its
    // own, which comes between nobody's answer and its copy.
    void goQuietly() noexcept {
        quiet_ = true;
        endCalls();
        busClientSpinExit(client_); // another wish may have found a full queue
    }
    void endCalls() noexcept {
        if (!calls_ended_) {
            turns_.takeLast();
            calls_ended_ = true;
        }
    }

    // Made before the node's next handler; what is replaced is destroyed then, in its thread. A
    // node that hears nothing looks when many wait, so that it does not keep ever more.
    void change(Change change) {
        constexpr std::size_t kMany = 16;
        const std::lock_guard lock{mutex_};
        changes_.push_back(std::move(change));
        attention_ = true;
        if (changes_.size() >= kMany) {
            wake();
        }
    }
    // With mutex_: has the node's thread look at what has been left for it.
    void wake() noexcept {
        if (!wakes_ && !gone_) {
            wakes_ = busClientSettimer(client_, onTimer, 0, 0, this) != -1;
            attention_ = attention_ || !wakes_;
        }
    }

    // ---- in a turn ----

    Answer askInTurn(const char *url, std::string_view data, const Deadline &deadline) {
        if (gone_ || (leaving_ && !isOfTheBus(hostOf(url)))) {
            return noAnswer(Cause::left);
        }
        return ask(client_, url, data, deadline);
    }
    // ---- timers ----

    // With mutex_. False: memory is short.
    bool arm() noexcept try {
        return gone_ || timers_.arm([this](long milliseconds, int number) {
            return busClientSettimer(client_, onTimer, milliseconds, number, this) != -1;
        });
    } catch (const std::bad_alloc &) {
        return false;
    }
    void noteTimer(int type) noexcept {
        const std::lock_guard lock{mutex_};
        if (type == 0) {
            wakes_ = false;
        } else {
            timers_.note(type);
        }
    }
    TimerQueue::node_type takeDue(Clock::time_point now) noexcept {
        const std::lock_guard lock{mutex_};
        return leaving_ ? TimerQueue::node_type{} : timers_.takeDue(now);
    }
    void runTimers() noexcept {
        const auto now = Clock::now();
        while (auto taken = takeDue(now)) {
            const TimerPtr timer = taken.mapped();
            reported([&] { timer->run(timer); });
            const std::lock_guard lock{mutex_};
            if (timer->period.count() > 0 && !timer->cancelled) {
                timers_.repeat(std::move(taken));
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

    // ---- calls that are not waited for ----

    static void abandon(AsyncCall &call, Cause cause) noexcept {
        if (call.completes) {
            call.forget();
        } else {
            call.end(noAnswer(cause));
        }
    }
    AsyncCallPtr takeReady() noexcept {
        const std::lock_guard lock{mutex_};
        return leaving_ ? nullptr : calls_.takeReady();
    }
    void runCompletions() noexcept {
        while (const AsyncCallPtr call = takeReady()) {
            reported([&] { call->end(std::move(call->answer)); });
            call->forget();
        }
    }
    // Futures become ready without an answer, completions never run.
    void forgetCalls() noexcept {
        AsyncCalls calls;
        {
            const std::lock_guard lock{mutex_};
            calls = calls_.takeAll();
        }
        for (const AsyncCallPtr &call : calls) {
            bus_.helpers().drop(*call);
            abandon(*call, Cause::left);
        }
    }

    // ---- the end ----

    // What users have left goes in the node's thread or the one that destroys the node, and under
    // no lock.
    void forgetHandlers() {
        TimerQueue timers;
        std::vector<Change> changes;
        const auto handlers = handlers_.takeAll();
        const std::lock_guard lock{mutex_};
        timers = timers_.takeAll();
        changes.swap(changes_);
    }
    // False: the node's thread can't be waited for here.
    bool endLoop(bool (*giveUp)(void *node)) {
        return loop_.end([](void *node) { static_cast<NodeState *>(node)->askToLeave(); }, giveUp);
    }
    void askToLeave() noexcept {
        const std::lock_guard lock{mutex_};
        if (calls_ended_ && !gone_) {
            busClientSpinExit(client_);
        } else {
            wake(); // to go quietly
        }
    }
    // Whether another thread's call through this node is under way, which the node's thread waits
    // for; or this thread is in a handler of a node whose answer the running handler waits for.
    static bool isHeld(void *self) {
        NodeState &node = *static_cast<NodeState *>(self);
        if (node.quiet_ && !node.calls_ended_) {
            return true;
        }
        const NodeState *const here = handlingNode();
        return here && &here->bus_ == &node.bus_ && node.bus_.waitsFor(node.name_, here->name_);
    }
    // The node's thread goes on alone, and the bus waits for it. False: it has ended.
    bool retire(BusPtr &bus) {
        bool alone = false;
        {
            const std::lock_guard lock{mutex_};
            if (!gone_) {
                Retired::instance().add(bus.get(), loop_.release());
                keep_ = std::move(bus);
                alone = true;
            }
        }
        return alone || !endLoop(nullptr);
    }

    BusState &bus_;
    const std::string name_;
    const HopsPtr hops_;
    client_t *const client_;
    Turns turns_;
    Subscriptions subscriptions_; // whoever has the turn looks at them

    Handlers handlers_; // the node's thread's, or the loop's

    std::mutex mutex_; // of all below that is not atomic
    std::vector<Change> changes_;
    Timers timers_;
    OpenCalls calls_;
    BusPtr keep_;        // of a node that nobody waits for
    bool wakes_ = false; // a look has been asked for
    std::atomic<std::size_t> unreadable_{0};
    std::atomic<bool> gone_{false};        // the client must not be used; set in a turn, too
    std::atomic<bool> leaving_{false};     // no handler begins
    std::atomic<bool> quiet_{false};       // nor does one run
    std::atomic<bool> calls_ended_{false}; // nobody has a turn any more
    std::atomic<bool> attention_{false};   // settle() has something to do, or the node is leaving
    Loop loop_;
};

// Answers the calls of a service.
template <class Question, class Reply, class Run>
HandlerPtr server(NodeState &node, Run run) {
    return handlerOf([run = std::move(run), &node](View path, View data, char *&answer) mutable {
        auto question = decoded<Question>(data);
        if (!question) {
            node.noteUnreadable(path, data.size(), SizeOf<Question>::value);
            return;
        }
        if (const std::optional<Reply> reply = run(std::move(*question))) {
            std::string space;
            const View bytes = Codec<Reply>::encode(*reply, space);
            answer = answerText(withoutNul(bytes, isRefusal(bytes)));
        }
    });
}

inline bool Helpers::hasLeft(const AsyncCall &call) noexcept {
    const auto node = call.node.lock();
    return !node || node->leaving();
}
inline void Helpers::finish(AsyncCall &call, Answer answer) noexcept {
    if (const auto node = call.node.lock()) {
        node->finish(call, std::move(answer));
    }
}

} // namespace zelvo::detail

#endif
