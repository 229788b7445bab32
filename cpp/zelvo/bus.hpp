// Zelvo for C++17 and later: a bus and its nodes as values, handlers as functions, answers as
// futures. It stands on the functions of zelvo/bus_client.h and the C++ library alone; there is
// nothing to link but Zelvo.
//
//     zelvo::Bus bus;
//     zelvo::Node lamp{bus, "lamp"}, panel{bus, "panel"};
//     lamp.on_call("/state", [](std::string_view) { return "on"; });
//     panel.subscribe("lamp.state", [](std::string_view state) { ... });
//     lamp.publish_sticky("lamp.state", "on");
//     std::string state = panel.call("/lamp/state").text;
//
// Threads.    A bus runs in a thread of its own, and so does each node: its handlers, timers and
//             completions run there, one at a time. Any thread may use any function, handlers
//             included, except that nobody may use an object while it is moved, assigned or
//             destroyed.
//             Threads bear the names of their nodes. A process that forks has none of them in the
//             child: there nothing of a bus that was made before may be used or destroyed, so the
//             child has to go on to exec or _exit. A handler may call std::exit. A module that has
//             used a bus of another one is unloaded when that bus has ended, not before.
// Blocking.   Making a node, call, subscribe, unsubscribe, a Subscription's cancel, Keys, nodes and
//             stats wait for an answer, Config::call_timeout at most where that is set, and for
//             each of the few answers that making a node takes. Threads that wait through
//             one node have their turns in the order in which they came. call_for waits as long as
//             it says. The end of a node or a bus waits as they say. Nothing else waits.
// Views.      A std::string_view that a handler gets is good until the handler returns. What is
//             passed in is copied before the call returns.
// Texts.      Topics, names and addresses are any bytes but NUL and match exactly; a text outside
//             ASCII had better be UTF-8. Data is any bytes; an answer to a call ends at a NUL.
// Exceptions. Error: the bus refuses. std::invalid_argument, std::length_error: an argument that
//             can't be meant. std::logic_error: an object that has been moved from. Nothing has
//             changed then, except where a function says more. What handlers throw goes to
//             Config::on_error, and the node goes on.
// Full queues. Publications and calls that find a queue full are dropped as bus_client.h says, with
//             a warning in the log.
#ifndef ZELVO_BUS_HPP
#define ZELVO_BUS_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Zelvo for C++ needs C++17 (-std=c++17); before that there is zelvo/bus_client.h"
#else

#include "codec.hpp"
#include "handles.hpp"

#include <initializer_list>

namespace zelvo {

class Node;
class PolledNode;

// A running bus. It lives as long as this object or a node of it does, in whatever order they go:
// its thread ends with the last of them. Nodes that C functions have made on native() must be
// closed before that.
// One process may have several, but they share one log, which the first of them to end closes for
// all; make and destroy them while no thread is in a call on another (busClientNew,
// busClientDelete).
class Bus {
public:
    // Throws Error when memory is short, std::invalid_argument for a configuration that can't be,
    // std::system_error when there is no thread for it, and what a copy of Config::on_error throws.
    explicit Bus(const Config &config)
        : state_{new detail::BusState{config, detail::NodeState::callUntil}} {}
    Bus() : state_{new detail::BusState{{}, nullptr}} {}
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;
    Bus(Bus &&) noexcept = default;
    Bus &operator=(Bus &&other) noexcept {
        Bus former{std::move(other)};
        state_.swap(former.state_);
        return *this;
    }
    // The last to hold the bus waits until it has ended, also for calls of call_async that are
    // under way, and for the handlers of nodes that have been destroyed within them.
    ~Bus() { close(); }

    // For the C functions; good as long as the bus lives.
    [[nodiscard]] Zelvo_t *native() const { return state().native(); }

private:
    friend class Node;
    detail::BusState &state() const {
        if (!state_) {
            throw std::logic_error("zelvo: the bus has been moved from");
        }
        return *state_;
    }
    void close() noexcept {
        if (state_) {
            state_->leaveToNodes();
            detail::release(state_);
        }
    }

    detail::BusPtr state_;
};

// A node of a bus, on it from its constructor to its destructor.
// An object that has a Node as a member, and handlers that use its other members, has the node as
// its last member: then the handlers have ended before the rest goes. A handler that captures a
// Node by reference must not outlive a move of it.
class Node {
public:
    // Joins the bus under name, which another node can call it by: 1 to 127 bytes, no "/", no
    // beginning of "bus" or "localKeys"; otherwise std::invalid_argument. Throws Error when the
    // name is taken (Cause::name_taken), the bus is full (bus_full), its queue is (lost), or there
    // is no answer in time (timed_out); std::system_error when there is no thread for it.
    Node(const Bus &bus, const CText &name) : Node{bus, name, detail::HopsPtr{}} {}
    // The same, but all that is said here to run in the node's thread, handlers, timers and
    // completions, runs where executor has it run: a callable that takes a zelvo::Task, which is a
    // function of no arguments that can be moved only, and runs it later, one after the other in
    // the order in which they came; or destroys it. It is called in the node's thread, which waits
    // until that has happened: a loop that does not come round makes the node a slow one, whose
    // queue fills. A node that is destroyed while work of it waits in the loop runs none of it.
    // What handlers have captured goes in the loop too, or in the thread that destroys the node;
    // the executor goes then. Timers and completions that it has destroyed, or thrown at, are
    // looked at again, a second later at the latest; a message is lost, and Config::on_error told
    // so once until it has run something again. A handler that waits, in a loop, for another node
    // of the same loop waits for good. Throws std::invalid_argument for an executor that holds no
    // function; what it throws when it is called goes to Config::on_error, and a message that it
    // was for is lost.
    template <class Executor>
    Node(const Bus &bus, const CText &name, Executor executor)
        : Node{bus, name, detail::hopsOf(std::move(executor))} {}
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    Node(Node &&) noexcept = default;
    Node(PolledNode &&) = delete; // what is dispatched would stay behind
    Node &operator=(PolledNode &&) = delete;
    Node &operator=(Node &&other) noexcept {
        Node former{std::move(other)};
        bus_.swap(former.bus_);
        state_.swap(former.state_);
        return *this;
    }
    // Leaves the bus, however full the node's queue is. No handler, timer or completion begins any
    // more; messages that wait are dropped, calls that wait are answered as not implemented.
    // Calls of call_async that are under way count no more: their futures become ready with
    // Cause::left, and completions are destroyed without having run. So do calls end that a handler
    // which still runs makes through the node.
    // Waits for a handler that is running. Where it can't, it returns at once, the handler goes on
    // to its end, and the node leaves then; what the handler has captured lives as long. That is so
    // in a handler of the node itself, and in one of another node whose answer the running handler
    // waits for. A call that another thread has begun through the node goes on as well, and is not
    // waited for; the bus waits for it when it ends.
    // The name may stay taken for a moment where it has returned at once.
    virtual ~Node() { close(); }

    // The name it has joined by.
    [[nodiscard]] const std::string &name() const { return state().name(); }

    // ---- publishing: does not wait, and does not tell who receives it ----

    // To every node that has subscribed to topic, this one too. Up to 2 GB.
    void publish(const CText &topic, const DataView &data = {}) const {
        busClientPublish(state().client(), topic.c_str(), data.data(), detail::lengthOf(data));
    }
    // A value of the topic's type, as its zelvo::Codec makes it bytes; what that throws is thrown
    // here, and nothing is published. A number is converted as a call would, but for one with a
    // fraction to a type without, or anything else to bool: that does not compile.
    template <class Value>
    void publish(const Topic<Value> &topic, const detail::Same<Value> &value) const {
        std::string space;
        publish(topic.name(), Codec<Value>::encode(value, space));
    }
    // The bus keeps the message too, the latest of each topic: who subscribes later gets it at
    // once.
    void publish_sticky(const CText &topic, const DataView &data = {}) const {
        busClientPublishSticky(state().client(), topic.c_str(), data.data(),
                               detail::lengthOf(data));
    }
    template <class Value>
    void publish_sticky(const Topic<Value> &topic, const detail::Same<Value> &value) const {
        std::string space;
        publish_sticky(topic.name(), Codec<Value>::encode(value, space));
    }
    // Drops what the bus has kept of the topic.
    void remove_sticky(const CText &topic) const {
        busClientRemoveSticky(state().client(), detail::jsonArray({topic.c_str()}).c_str());
    }
    template <class Value>
    void remove_sticky(const Topic<Value> &topic) const {
        remove_sticky(topic.name());
    }

    // ---- subscribing ----
    // Handlers of one topic add up and run in the order in which they have subscribed. The first
    // one fetches the topic's sticky message, which those get too that come before the node has
    // handled it; later ones get the next publication.
    // A change holds from the next message on; it may be made in a handler that it removes, which
    // runs to its end. What that has captured goes before the node next handles something, or when
    // some further changes have been made, in the node's thread, and at the latest when the node
    // leaves. Error: the bus has not answered, or its queue is full. Then nothing is subscribed;
    // unsubscribe has removed the handlers, but not certainly told the bus: do it again.
    // At most 2,048 topics for each node; further ones are left out, with a warning in the log, and
    // stay so until they are unsubscribed.

    // handler(std::string_view topic, std::string_view data), handler(std::string_view data) or
    // handler(); it may take std::string instead, and be moved only. Topics are one, two, or any
    // number in braces or a vector. The bus's own topics are "bus.event" (nodes that join) and
    // "bus.error" (calls refused as a ring).
    template <class Handler>
    Subscription subscribe(const CText &topic, Handler handler) {
        return subscribeTo(topic, hearing(handler));
    }
    template <class Handler>
    Subscription subscribe(const std::vector<std::string> &topics, Handler handler) {
        return subscribeTo(topics, hearing(handler));
    }
    template <class Handler>
    Subscription subscribe(std::initializer_list<std::string> topics, Handler handler) {
        return subscribeTo(topics, hearing(handler));
    }
    template <class Handler>
    Subscription subscribe(const CText &first, const CText &second, Handler handler) {
        return subscribeTo({first.c_str(), second.c_str()}, hearing(handler));
    }
    // handler(const Value &value). What does not decode reaches no handler: it is counted, and
    // Config::on_error gets Unreadable.
    template <class Value, class Handler>
    Subscription subscribe(const Topic<Value> &topic, Handler handler) {
        constexpr bool fits = detail::takesWhole<Handler, Value>();
        static_assert(fits,
                      "zelvo: a handler of this topic takes (const Value &), of the topic's type");
        if constexpr (fits) {
            detail::require(handler);
            return subscribeTo(topic.name(),
                               detail::held(new detail::ValueHandler<Value, Handler>{handler}));
        } else {
            return {}; // or there is a warning beside the error
        }
    }
    // How many messages and questions have not decoded since the node was made.
    [[nodiscard]] std::size_t unreadable() const { return state().unreadable(); }
    // All handlers of the topics.
    void unsubscribe(const std::vector<std::string> &topics) { state().unsubscribe(topics); }
    void unsubscribe(std::initializer_list<std::string> topics) {
        state().unsubscribe(std::vector<std::string>(topics));
    }
    void unsubscribe(const CText &topic) { unsubscribe({topic.c_str()}); }
    template <class Value>
    void unsubscribe(const Topic<Value> &topic) {
        unsubscribe(CText{topic.name()});
    }

    // ---- being called ----

    // Answers calls of "/name" + path. handler(std::string_view data) gives the answer: a text, a
    // number, nothing at all for an empty one, or a std::optional of these; where that is empty,
    // and where the handler throws, the call is answered as not implemented. An answer with a NUL
    // in it counts as thrown. The handler may take the path before the data, std::string instead
    // of views, or nothing. Replaces a former handler of the path, which may be the one that calls
    // this: it runs to its end. nullptr removes. Throws std::invalid_argument for a path without
    // "/" at its beginning.
    template <class Handler>
    void on_call(const CText &path, Handler handler) {
        setCall(checkedPath(path), handler);
    }
    void on_call(const CText &path, std::nullptr_t) { state().setPath(checkedPath(path), {}); }
    // The same for every path without its own.
    template <class Handler>
    void on_call(Handler handler) {
        setCall("", handler);
    }
    void on_call(std::nullptr_t) { state().setPath("", {}); }
    // Answers calls of a service. handler(const Question &question) gives a Reply, or a
    // std::optional of one. A question that does not decode is answered as not implemented, and
    // told as a message is. Throws std::invalid_argument for a service of another node.
    template <class Question, class Reply, class Handler>
    void on_call(const Service<Question, Reply> &service, Handler handler) {
        constexpr bool fits = detail::gives<Reply, Handler, Question>();
        static_assert(fits, "zelvo: a handler of this service takes (const Question &) and gives a "
                            "Reply, of the service's types");
        if constexpr (fits) {
            detail::require(handler);
            using Server = detail::ServiceHandler<Question, Reply, Handler>;
            state().setPath(ownPath(service.url()), detail::held(new Server{handler}));
        }
    }
    template <class Question, class Reply>
    void on_call(const Service<Question, Reply> &service, std::nullptr_t) {
        state().setPath(ownPath(service.url()), {});
    }

    // ---- calling ----

    // Asks "/node/path" and waits for the answer; in a handler the node handles nothing meanwhile.
    // Calls of one node are made one after the other: a second thread waits until the first has its
    // answer. So a handler calls through its own node: waiting for another one's turn to call is
    // not seen as a part of a ring. A node whose handler does not return, or that C functions have
    // made and do not run, keeps the caller waiting, call_timeout at most where that is set.
    Answer call(const CText &url, const DataView &data = {}) const {
        return state().call(url.c_str(), data);
    }
    // The reply, or why there is none: Cause::unreadable where what came is no Reply.
    template <class Question, class Reply>
    Result<Reply> call(const Service<Question, Reply> &service,
                       const detail::Same<Question> &question) const {
        std::string space;
        return detail::resultFrom<Reply>(
            call(service.url(), Codec<Question>::encode(question, space)));
    }
    // The same, but it ends after that time, whatever the other node does: then with
    // Cause::timed_out. As it is made by a helper, it is not refused as a ring, counts among the
    // calls of call_async (Cause::too_many), and throws what that throws.
    template <class Rep, class Period>
    [[nodiscard]] Answer call_for(std::chrono::duration<Rep, Period> limit, const CText &url,
                                  const DataView &data = {}) const {
        const auto end = detail::later(detail::Clock::now(), detail::saturated(limit));
        return detail::NodeState::callUntil(state(), end, url.c_str(), data);
    }
    template <class Rep, class Period, class Question, class Reply>
    Result<Reply> call_for(std::chrono::duration<Rep, Period> limit,
                           const Service<Question, Reply> &service,
                           const detail::Same<Question> &question) const {
        std::string space;
        return detail::resultFrom<Reply>(
            call_for(limit, service.url(), Codec<Question>::encode(question, space)));
    }
    // A call that is not waited for, made by one of the bus's helpers (Config::helpers): many can
    // be under way at once, in no order. The future always becomes ready, with Outcome::none when
    // the node leaves before the answer, and need not be waited for. The wait for a future is not
    // known to the bus: a handler that waits for a node which waits for it, or for itself, is not
    // refused as a ring, but waits for good. In handlers, take the form with a completion. A node
    // that never answers keeps the helpers that call it, a quarter of them at most, and what waits
    // behind them for the same node. Throws Error when Config::helpers is 0, std::system_error when
    // there is no thread for the first of them. cancel() of the future, or of what the form with a
    // completion gives, lets go of the call.
    Future<Answer> call_async(const CText &url, const DataView &data = {}) const {
        return beginFuture<Answer>(url.c_str(), data, detail::asItIs);
    }
    template <class Question, class Reply>
    Future<Result<Reply>> call_async(const Service<Question, Reply> &service,
                                     const detail::Same<Question> &question) const {
        std::string space;
        return beginFuture<Result<Reply>>(
            service.url(), Codec<Question>::encode(question, space),
            [](const Answer &answer) { return detail::resultFrom<Reply>(answer); });
    }
    // completion(Answer) runs in this node's thread, unless the node leaves before.
    template <class Completion>
    PendingCall call_async(const CText &url, const DataView &data, Completion completion) const {
        static_assert(std::is_invocable_v<Completion &, Answer>,
                      "zelvo: a completion of a call takes (zelvo::Answer)");
        if constexpr (std::is_invocable_v<Completion &, Answer>) {
            detail::require(completion);
            return begin(
                detail::held(new detail::CompletedCall<Completion>{url.c_str(), data, completion}));
        } else {
            return {};
        }
    }
    template <class Completion, class = detail::IfNoData<Completion>>
    PendingCall call_async(const CText &url, Completion completion) const {
        return call_async(url, {}, std::move(completion));
    }
    // completion(Result<Reply>)
    template <class Question, class Reply, class Completion>
    PendingCall call_async(const Service<Question, Reply> &service,
                           const detail::Same<Question> &question, Completion completion) const {
        static_assert(std::is_invocable_v<Completion &, Result<Reply>>,
                      "zelvo: a completion of this service takes (zelvo::Result<Reply>)");
        if constexpr (std::is_invocable_v<Completion &, Result<Reply>>) {
            detail::require(completion);
            std::string space;
            return call_async(service.url(), Codec<Question>::encode(question, space),
                              [run = std::move(completion)](const Answer &answer) mutable {
                                  run(detail::resultFrom<Reply>(answer));
                              });
        } else {
            return {};
        }
    }

    // ---- timers ----
    // Run in the node's thread, to within some 3 ms (on Windows a tick of the system) and what the
    // node has to do before them; those that are due together in the order in which they were set.

    // run() or run(Timer), which gets its own handle: the way to cancel from within.

    // Once, so much later. A time that is over: as soon as possible; one that is longer than the
    // clock can tell: never.
    template <class Rep, class Period, class Run>
    Timer after(std::chrono::duration<Rep, Period> wait, Run run) {
        return addTimer(detail::saturated(wait), {}, run);
    }
    // Again and again, at whole periods from now however long run takes; beats that have been
    // missed meanwhile are left out. Throws std::invalid_argument for a period that is not
    // positive, or less than a tick of the clock.
    template <class Rep, class Period, class Run>
    Timer every(std::chrono::duration<Rep, Period> period, Run run) {
        const auto ticks = detail::saturated(period);
        if (ticks.count() <= 0) {
            detail::refuse("zelvo: a period that is not positive");
        }
        return addTimer(ticks, ticks, run);
    }

    // ---- the bus ----

    [[nodiscard]] Keys keys() const {
        state();
        return Keys{state_};
    }
    // The names of the nodes on the bus, in the order in which they joined, without the helpers.
    // Throws Error when there is no answer.
    [[nodiscard]] std::vector<std::string> nodes() const {
        std::vector<std::string> names;
        const std::string text = tellBus("/bus/nodes");
        detail::JsonReader{text}.texts(names, detail::kHelperPrefix);
        return names;
    }
    // What the bus has counted, JSON text as bus_client.h describes under /bus/stats; helpers are
    // among the nodes, and notices of joins that come before a node has asked for none among what
    // is "unread". Nothing: Config::stats is not set. Throws Error when there is no answer.
    [[nodiscard]] std::optional<std::string> stats() const {
        std::string text = tellBus("/bus/stats");
        return text == detail::kNoNode ? std::nullopt : std::optional{std::move(text)};
    }

private:
    friend class PolledNode;
    detail::NodeState &state() const {
        if (!state_) {
            throw std::logic_error("zelvo: the node has been moved from");
        }
        return *state_;
    }
    Node(const Bus &bus, const CText &name, detail::HopsPtr hops)
        : bus_{bus.state_},
          state_{new detail::NodeState{bus.state(), checked(name.c_str()), std::move(hops)}} {
        state_->start();
    }
    static const char *checked(const char *text) {
        const std::string_view name = text;
        const char *why = nullptr;
        if (name.empty() || name.size() > 127) {
            why = "it has to have 1 to 127 bytes";
        } else if (name.find('/') != name.npos) {
            why = "there is a slash in it";
        } else if (detail::isOfTheBus(name)) {
            why = "the bus answers for it itself, as for \"bus\", \"localKeys\" and all that these "
                  "begin with";
        }
        if (why) {
            detail::refuse(
                detail::concat({"zelvo: no name for a node, ", why, ": \"", name, "\""}).c_str());
        }
        return text;
    }
    void close() noexcept {
        if (state_) {
            state_->leave(std::move(bus_));
            state_.reset();
        }
    }
    // The text of the bus's own answer.
    std::string tellBus(const char *url) const {
        Answer answer = state().call(url, {});
        if (answer.outcome == Outcome::none) {
            throw detail::noAnswerError(url, answer.cause);
        }
        return std::move(answer.text);
    }
    template <class Handler>
    static detail::HandlerPtr hearing(Handler &handler) {
        static_assert(detail::kIsHandler<Handler>,
                      "zelvo: a handler of a topic takes (std::string_view data), or "
                      "(std::string_view topic, std::string_view data)");
        if constexpr (detail::kIsHandler<Handler>) {
            detail::require(handler);
            return detail::held(new detail::TopicHandler<Handler>{handler});
        } else {
            return {};
        }
    }
    Subscription subscribeTo(const std::vector<std::string> &topics,
                             const detail::HandlerPtr &handler) {
        handler->names = detail::eachOnce(topics);
        state().subscribe(handler);
        return Subscription{handler};
    }
    Subscription subscribeTo(std::initializer_list<std::string> topics,
                             const detail::HandlerPtr &handler) {
        return subscribeTo(std::vector<std::string>(topics), handler);
    }
    Subscription subscribeTo(const CText &topic, const detail::HandlerPtr &handler) {
        handler->names.push_back(topic.c_str());
        state().subscribe(handler);
        return Subscription{handler};
    }
    static const char *checkedPath(const CText &path) {
        if (path.c_str()[0] != '/') {
            detail::refuse("zelvo: a path begins with a slash");
        }
        return path.c_str();
    }
    template <class Handler>
    void setCall(const char *path, Handler &handler) {
        static_assert(detail::answers<Handler>(),
                      "zelvo: a handler of a call takes (std::string_view data), or "
                      "(std::string_view path, std::string_view data), and gives a text, a number, "
                      "nothing, or a std::optional of these");
        if constexpr (detail::answers<Handler>()) {
            detail::require(handler);
            state().setPath(path, detail::held(new detail::PathHandler<Handler>{handler}));
        }
    }
    const char *ownPath(const CText &service) const {
        const std::string_view url = service.c_str();
        if (detail::hostOf(url) != name() || url.size() < name().size() + 2) {
            detail::refuse(
                detail::concat({"zelvo: the service \"", url, "\" is none of node ", name()})
                    .c_str());
        }
        return service.c_str() + 1 + name().size();
    }
    template <class Value, class Read>
    Future<Value> beginFuture(const char *url, std::string_view data, Read read) const {
        detail::AsyncCallPtr call;
        auto future = detail::makeFutureCall<Value>(url, data, read, call);
        return {std::move(future), begin(call)};
    }
    PendingCall begin(const detail::AsyncCallPtr &call) const {
        state().callAsync(call);
        return PendingCall{call};
    }
    template <class Run>
    Timer addTimer(detail::Clock::duration wait, detail::Clock::duration period, Run &run) {
        static_assert(std::is_invocable_v<Run &, Timer> || std::is_invocable_v<Run &>,
                      "zelvo: a timer's function takes nothing, or (zelvo::Timer)");
        detail::require(run);
        if constexpr (std::is_invocable_v<Run &, Timer>) {
            auto timed = [run = std::move(run)](const detail::TimerPtr &timer) mutable {
                run(Timer{timer});
            };
            using Entry = detail::TimerEntryOf<decltype(timed)>;
            return set(wait, detail::held(new Entry{period, timed}));
        } else if constexpr (std::is_invocable_v<Run &>) {
            return set(wait, detail::held(new detail::TimerEntryOf<Run>{period, run}));
        } else {
            return {};
        }
    }
    Timer set(detail::Clock::duration wait, const detail::TimerPtr &timer) {
        state().addTimer(timer, wait);
        return Timer{timer};
    }

    detail::BusPtr bus_;
    std::shared_ptr<detail::NodeState> state_;
};

} // namespace zelvo

#include "polled_node.hpp"

#endif // C++17

#endif
