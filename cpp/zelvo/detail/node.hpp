// A node that runs: its handlers, its timers, and the calls that it does not wait for.
#ifndef ZELVO_DETAIL_NODE_HPP
#define ZELVO_DETAIL_NODE_HPP

#include "bus.hpp"

#include <atomic>
#include <future>

namespace zelvo::detail {

using Clock = std::chrono::steady_clock;
// A user's handler: of a topic, or of a path, for which it sets the answer.
using Handler = std::function<void(std::string_view name, std::string_view data, char *&answer)>;
using HandlerPtr = std::shared_ptr<const Handler>;
template <class Run>
HandlerPtr handlerOf(Run run) {
    return std::make_shared<const Handler>(std::move(run));
}

// Handlers by topic or by path, in order.
class Table {
public:
    // Null: there is none.
    const Handler *find(std::string_view name) const {
        const auto [place, held] = placeOf(name);
        return held ? entries_[place].handler.get() : nullptr;
    }
    // Null removes.
    void set(const std::string &name, HandlerPtr handler) {
        auto [place, held] = placeOf(name);
        if (held && handler) {
            entries_[place].handler.swap(handler);
        } else if (held) {
            for (; place + 1 < entries_.size(); ++place) {
                std::swap(entries_[place], entries_[place + 1]);
            }
            entries_.pop_back();
        } else if (handler) {
            entries_.push_back({name, std::move(handler)});
            for (std::size_t last = entries_.size() - 1; last > place; --last) {
                std::swap(entries_[last], entries_[last - 1]);
            }
        }
    }

private:
    struct Entry {
        std::string name;
        HandlerPtr handler;
    };
    // Where the name is or belongs, and whether it is there.
    std::pair<std::size_t, bool> placeOf(std::string_view name) const {
        std::size_t low = 0;
        for (std::size_t high = entries_.size(); low < high;) {
            const std::size_t middle = low + (high - low) / 2;
            const int order = name.compare(entries_[middle].name);
            if (order == 0) {
                return {middle, true};
            }
            (order < 0 ? high : low) = order < 0 ? middle : middle + 1;
        }
        return {low, false};
    }
    std::vector<Entry> entries_;
};

// Only the node's own thread looks at them, and changes them between two handlers: so a handler
// that runs stays whole, and finding one takes no lock.
struct Handlers {
    Table topics;
    Table paths; // "": of every other path
};
struct Change {
    Table Handlers::*table;
    std::vector<std::string> names;
    HandlerPtr handler; // null: none any more
};

struct TimerEntry {
    Clock::time_point due;
    Clock::duration period{0}; // 0: once
    std::function<void(const std::shared_ptr<TimerEntry> &self)> run;
    bool cancelled = false;
};
using TimerPtr = std::shared_ptr<TimerEntry>;

// Shared by zelvo::Node and the node's thread, so that it outlives a node which is destroyed in its
// own handler.
class NodeState : public std::enable_shared_from_this<NodeState> {
public:
    NodeState(BusState &bus, const std::string &name)
        : bus_{bus},
          name_{name},
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
            loop_.start([](void *node) { static_cast<NodeState *>(node)->run(); }, this,
                        shared_from_this());
        } catch (...) {
            busClientClose(client_);
            throw;
        }
    }
    const std::string &name() const noexcept { return name_; }
    client_t *client() const noexcept { return client_; }

    // ---- calls ----

    // A second thread waits for the first one's answer to be copied.
    Answer call(const char *url, std::string_view data) {
        const std::lock_guard lock{call_mutex_};
        return gone_ ? Answer{} : ask(client_, url, data);
    }

    std::future<Answer> callAsync(const char *url, std::string_view data,
                                  std::function<void(Answer)> completion) {
        const auto call = std::make_shared<AsyncCall>();
        call->url = url;
        static_cast<void>(lengthOf(data));
        call->data = data;
        call->has_data = data.data() != nullptr;
        call->completion = std::move(completion);
        call->caller = weak_from_this();
        auto future = call->promise.get_future();
        const std::lock_guard lock{mutex_};
        if (leaving_) {
            call->promise.set_value({});
            return future;
        }
        call->place = calls_.size();
        calls_.push_back(call);
        try {
            bus_.helpers().add(call);
        } catch (...) {
            calls_.pop_back();
            throw;
        }
        return future;
    }

    // In a helper's thread, where nothing of the user's is run or destroyed.
    void finish(AsyncCall &call, Answer answer) noexcept {
        std::unique_lock lock{mutex_};
        if (call.over) {
            return;
        }
        call.over = true;
        call.answer = std::move(answer);
        calls_.back()->place = call.place;
        std::swap(calls_[call.place], calls_.back());
        const AsyncCallPtr taken = std::move(calls_.back());
        calls_.pop_back();
        if (taken->completion) {
            *ready_end_ = taken;
            ready_end_ = &taken->next;
            wake();
            return;
        }
        lock.unlock();
        taken->promise.set_value(std::move(taken->answer));
    }

    // ---- handlers and timers ----

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

    TimerPtr addTimer(Clock::duration wait, Clock::duration period,
                      std::function<void(const TimerPtr &)> run) {
        const auto now = Clock::now();
        auto timer = std::make_shared<TimerEntry>();
        timer->due = now + std::clamp(wait, Clock::duration{0}, Clock::time_point::max() - now);
        timer->period = period;
        timer->run = std::move(run);
        const std::lock_guard lock{mutex_};
        timers_.resize(timers_.size() + 2); // the other place is for one that runs and comes again
        timers_.resize(timers_.size() - 2);
        insert(timer);
        if (!arm()) {
            forget(timer);
            throw std::bad_alloc{};
        }
        return timer;
    }
    bool cancel(const TimerPtr &timer) {
        const std::lock_guard lock{mutex_};
        const bool waits = forget(timer) || (timer->period.count() > 0 && !leaving_);
        return waits && !std::exchange(timer->cancelled, true);
    }

    // ---- the end ----

    // No handler begins from now on, and no call is waited for.
    void leave(BusPtr bus) {
        {
            const std::lock_guard lock{mutex_};
            leaving_ = true;
            attention_ = true;
        }
        forgetCalls();
        if (loop_.isThisThread()) {
            busClientSpinExit(client_);
            Retired::instance().add(bus.get(), loop_.release());
            keep_ = std::move(bus);
            return;
        }
        loop_.end([](void *node) { static_cast<NodeState *>(node)->askToLeave(); });
        if (bus->isLeftToNodes()) {
            release(bus);
        }
    }

private:
    void askToLeave() noexcept {
        const std::lock_guard lock{mutex_};
        if (!gone_) {
            busClientSpinExit(client_);
        }
    }

    static NodeState &of(void *userdata) noexcept { return *static_cast<NodeState *>(userdata); }
    static std::string_view viewOf(const char *data, int length) noexcept {
        return data ? std::string_view{data, static_cast<std::size_t>(length)} : std::string_view{};
    }

    // Runs a handler, unless the node is leaving.
    template <class Run>
    void guarded(Run run) noexcept {
        if (!attention_.load(std::memory_order_acquire) || settle()) {
            reported(run);
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
        node.guarded([&] {
            char *none = nullptr;
            if (const Handler *const handler = node.handlers_.topics.find(topic)) {
                (*handler)(topic, viewOf(data, length), none);
            }
        });
        return 0;
    }

    static char *onCall(void *userdata, client_t * /*client*/, char *url, char *data,
                        int length) noexcept {
        NodeState &node = of(userdata);
        char *answer = nullptr;
        node.guarded([&] {
            const std::string_view path = std::string_view{url}.substr(1 + node.name_.size());
            const Handler *handler = node.handlers_.paths.find(path);
            handler = handler ? handler : node.handlers_.paths.find("");
            if (handler) {
                (*handler)(path, viewOf(data, length), answer);
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
        insideNode() = true;
        busClientSpin(client_);
        {
            const std::lock_guard calls{call_mutex_}; // zelvo::Keys may outlive the node
            const std::lock_guard lock{mutex_};
            leaving_ = true;
            gone_ = true;
        }
        forgetCalls();
        forgetHandlers();
        busClientClose(client_);
        // A node that was destroyed in its own handler may be the last to let go of the bus.
        if (keep_) {
            BusPtr{std::move(keep_)}.reset();
            Retired::instance().finish();
        }
    }

    // What users have left goes in the node's thread, and under no lock.
    void forgetHandlers() {
        std::vector<TimerPtr> timers;
        std::vector<Change> changes;
        const Handlers handlers = std::move(handlers_);
        const std::lock_guard lock{mutex_};
        timers.swap(timers_);
        changes.swap(changes_);
    }

    // Makes the changes that wait, and asks for the looks that there was no memory for. False: the
    // node is leaving.
    bool settle() noexcept {
        std::vector<Change> changes;
        {
            const std::lock_guard lock{mutex_};
            changes.swap(changes_);
            attention_ = leaving_ || !arm();
            if (ready_) {
                wake();
            }
        }
        reported([&] {
            for (const Change &change : changes) {
                for (const std::string &name : change.names) {
                    (handlers_.*change.table).set(name, change.handler);
                }
            }
        });
        changes.clear(); // what goes with them may be the owner of this node
        if (leaving_) {
            busClientSpinExit(client_); // the first wish may have found a full queue
        }
        return !leaving_;
    }

    // With mutex_: has the node's thread look at what has been left for it.
    void wake() noexcept {
        if (!wakes_ && !gone_) {
            wakes_ = busClientSettimer(client_, onTimer, 0, 0, this) != -1;
            attention_ = attention_ || !wakes_;
        }
    }

    // ---- timers ----

    // With mutex_. The earliest is the last; of those that are due together, the one set first.
    void insert(const TimerPtr &timer) {
        timers_.push_back(timer);
        for (auto at = timers_.size() - 1; at > 0 && timers_[at - 1]->due <= timer->due; --at) {
            timers_[at].swap(timers_[at - 1]);
        }
    }
    // With mutex_. Whether it was there.
    bool forget(const TimerPtr &timer) noexcept {
        std::size_t at = 0;
        while (at < timers_.size() && timers_[at] != timer) {
            ++at;
        }
        if (at == timers_.size()) {
            return false;
        }
        for (; at + 1 < timers_.size(); ++at) {
            timers_[at].swap(timers_[at + 1]);
        }
        timers_.pop_back();
        return true;
    }
    // With mutex_. Sees to it that one of the bus's timers is due when the earliest of ours is.
    // Those that an earlier one has overtaken run out in vain; where they are many, one that comes
    // at the node's next look serves all, again and again. False: memory is short.
    bool arm() noexcept {
        if (timers_.empty() || gone_ || (armed_ != 0 && armed_due_ <= timers_.back()->due)) {
            return true;
        }
        const bool many = pending_ >= 256; // the bus loses those beyond 1,024
        const auto wait =
            std::chrono::ceil<std::chrono::milliseconds>(timers_.back()->due - Clock::now());
        const auto longest = std::min<long long>(wait.count(), INT_MAX);
        last_ = last_ == INT_MAX ? 1 : last_ + 1;
        const long time = many ? 0 : static_cast<long>(longest);
        if (busClientSettimer(client_, onTimer, time, last_, this) == -1) {
            return false;
        }
        armed_ = last_;
        armed_due_ = many ? Clock::time_point::min() : timers_.back()->due;
        ++pending_;
        return true;
    }
    void noteTimer(int type) noexcept {
        const std::lock_guard lock{mutex_};
        wakes_ = wakes_ && type != 0;
        pending_ -= type != 0 ? 1 : 0;
        armed_ = armed_ == type ? 0 : armed_;
    }
    // Null: none is due.
    TimerPtr takeDue(Clock::time_point now) {
        const std::lock_guard lock{mutex_};
        if (leaving_ || timers_.empty() || timers_.back()->due > now) {
            return nullptr;
        }
        TimerPtr timer = std::move(timers_.back());
        timers_.pop_back();
        return timer;
    }
    // Missed beats are left out. Its place is still there, whatever has been set meanwhile.
    void repeat(const TimerPtr &timer) {
        const std::lock_guard lock{mutex_};
        if (timer->period.count() > 0 && !timer->cancelled) {
            const auto late = std::max(Clock::now() - timer->due, Clock::duration{0});
            timer->due += timer->period * (late / timer->period + 1);
            insert(timer);
        }
    }
    void runTimers() {
        const auto now = Clock::now();
        while (const TimerPtr timer = takeDue(now)) {
            reported([&] { timer->run(timer); });
            repeat(timer);
        }
        const std::lock_guard lock{mutex_};
        if (!arm()) {
            attention_ = true; // tried again whenever the node handles something
            throw std::bad_alloc{};
        }
    }

    // ---- calls that are not waited for ----

    // With mutex_.
    AsyncCallPtr takeReady() noexcept {
        ready_end_ = &ready_;
        return std::exchange(ready_, nullptr);
    }
    void runCompletions() {
        AsyncCallPtr call;
        {
            const std::lock_guard lock{mutex_};
            call = takeReady();
        }
        for (; call; call = std::move(call->next)) {
            const auto completion = std::exchange(call->completion, nullptr);
            if (!leaving_) {
                reported([&] { completion(std::move(call->answer)); });
            }
        }
    }
    // Futures become ready without an answer, completions never run.
    void forgetCalls() {
        std::vector<AsyncCallPtr> calls;
        AsyncCallPtr ready;
        {
            const std::lock_guard lock{mutex_};
            calls.swap(calls_);
            ready = takeReady();
            for (const AsyncCallPtr &call : calls) {
                call->over = true;
            }
        }
        for (const AsyncCallPtr &call : calls) {
            call->promise.set_value({});
            std::exchange(call->completion, nullptr);
        }
        for (; ready; ready = std::move(ready->next)) {
            std::exchange(ready->completion, nullptr);
        }
    }

    BusState &bus_;
    const std::string name_;
    client_t *const client_;
    std::mutex call_mutex_; // from a call until its answer is copied

    Handlers handlers_; // the node's thread's
    BusPtr keep_;       // likewise

    std::mutex mutex_; // of all below that is not atomic
    std::vector<Change> changes_;
    std::vector<TimerPtr> timers_;      // the earliest last
    std::vector<AsyncCallPtr> calls_;   // under way
    AsyncCallPtr ready_;                // answered, their completions not yet run: a list
    AsyncCallPtr *ready_end_ = &ready_; // where the next one goes
    bool wakes_ = false;                // a look has been asked for
    int pending_ = 0;                   // timers of the bus that will come
    int last_ = 0;                      // number of the latest of them
    int armed_ = 0;                     // number of the one that counts; 0: none
    Clock::time_point armed_due_;       // and when it comes
    bool gone_ = false;                 // the client must not be used; set with call_mutex_, too
    std::atomic<bool> leaving_{false};
    std::atomic<bool> attention_{false}; // settle() has something to do, or the node is leaving
    Loop loop_;
};

inline void Helpers::finish(AsyncCall &call, Answer answer) noexcept {
    if (const auto node = call.caller.lock()) {
        node->finish(call, std::move(answer));
    }
}

} // namespace zelvo::detail

#endif
