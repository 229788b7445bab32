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
// Blocking.   Making a node, call, subscribe, unsubscribe, Keys, nodes and stats wait for an
//             answer, Config::call_timeout at most where that is set. It counts from a call's turn
//             where several threads use one node, and for each of the two or three answers that
//             making a node takes. The end of a node or a bus waits as they say. Nothing else
//             waits.
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

#include "detail/node.hpp"
#include "types.hpp"

#include <initializer_list>
#include <type_traits>

namespace zelvo {

class Node;

// A running bus. It lives as long as this object or a node of it does, in whatever order they go:
// its thread ends with the last of them. Nodes that C functions have made on native() must be
// closed before that.
// One process may have several, but they share one log; make and destroy them while no thread is in
// a call on another (busClientNew, busClientDelete).
class Bus {
public:
    // Throws Error when memory is short, std::invalid_argument for a configuration that can't be,
    // std::system_error when there is no thread for it.
    explicit Bus(const Config &config = {}) : state_{std::make_shared<detail::BusState>(config)} {}
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;
    Bus(Bus &&) noexcept = default;
    Bus &operator=(Bus &&other) noexcept {
        close();
        state_ = std::move(other.state_);
        return *this;
    }
    // The last to hold the bus waits until it has ended, also for calls of call_async that are
    // under way, and for the handlers of nodes that have been destroyed within them.
    ~Bus() { close(); }

    // For the C functions; good as long as the bus lives.
    Zelvo_t *native() const { return state().native(); }

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

// What after() and every() give: a way to stop them. Copies stop the same timer; a timer whose
// handles are gone runs all the same. Any thread may use it, also when its node has gone.
class Timer {
public:
    Timer() noexcept = default; // of nothing
    // No run begins after this, except one that is about to in another thread; the function goes as
    // soon as it does not run. May be called from within it. True: there would have been another
    // run.
    bool cancel() {
        const auto node = node_.lock();
        const auto entry = entry_.lock();
        return node && entry && node->cancel(entry);
    }

private:
    friend class Node;
    Timer(std::weak_ptr<detail::NodeState> node, const detail::TimerPtr &entry) noexcept
        : node_{std::move(node)},
          entry_{entry} {}

    std::weak_ptr<detail::NodeState> node_;
    std::weak_ptr<detail::TimerEntry> entry_;
};

// The key store of the bus, through one of its nodes. Keys match without regard to ASCII case.
// Functions throw Error when there is no answer, as when the node has gone, and
// std::invalid_argument for an empty key.
class Keys {
public:
    // The value as JSON text, as the store prints it; nothing: there is none.
    std::optional<std::string> get(const std::string &key) const {
        std::string text = ask(key, R"({"operation":"get"})");
        // A value that is this object would be printed with blanks.
        return text == R"({"data":""})" ? std::nullopt : std::optional{std::move(text)};
    }
    // Stores a JSON value, with persist also in the file: it is on the disk when this returns, and
    // where it can't be written the log says so. Throws std::invalid_argument for what is no JSON.
    void set(const std::string &key, std::string_view json, bool persist = false) const {
        if (!detail::JsonReader{json}.isValue()) {
            throw std::invalid_argument("zelvo: a value for the key store is not JSON");
        }
        std::string request = R"({"operation":"set",)";
        request += persist ? R"("persist":"true","data":)" : R"("data":)";
        ask(key, request.append(json) + '}');
    }

private:
    friend class Node;
    explicit Keys(std::shared_ptr<detail::NodeState> node) noexcept : node_{std::move(node)} {}
    std::string ask(const std::string &key, const std::string &request) const {
        if (key.empty()) {
            throw std::invalid_argument("zelvo: an empty key");
        }
        Answer answer = node_->call(CText{"/localKeys/" + key}.c_str(), request);
        if (answer.outcome == Outcome::none) {
            throw Error("zelvo: the key store does not answer");
        }
        return std::move(answer.text);
    }

    std::shared_ptr<detail::NodeState> node_;
};

// A node of a bus, on it from its constructor to its destructor.
// An object that has a Node as a member, and handlers that use its other members, has the node as
// its last member: then the handlers have ended before the rest goes. A handler that captures a
// Node by reference must not outlive a move of it.
class Node {
public:
    // Joins the bus under name, which another node can call it by: 1 to 127 bytes, no "/", no
    // beginning of "bus" or "localKeys"; otherwise std::invalid_argument. Throws Error when the
    // name is taken, the bus is full (2,048 nodes), its queue is, or there is no answer in time;
    // std::system_error when there is no thread for it.
    Node(const Bus &bus, const std::string &name)
        : bus_{bus.state_},
          state_{std::make_shared<detail::NodeState>(bus.state(), checked(name))} {
        state_->start();
    }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    Node(Node &&) noexcept = default;
    Node &operator=(Node &&other) noexcept {
        close();
        bus_ = std::move(other.bus_);
        state_ = std::move(other.state_);
        return *this;
    }
    // Leaves the bus, however full the node's queue is. No handler, timer or completion begins any
    // more; messages that wait are dropped, calls that wait are answered as not implemented.
    // Calls of call_async that are under way count no more: their futures become ready with
    // Outcome::none, and completions are destroyed without having run.
    // Waits for a handler that is running. In a handler of the node itself it can't: there it
    // returns at once, the handler goes on to its end, and the node leaves then. What it has
    // captured lives as long.
    ~Node() { close(); }

    // The name it has joined by.
    const std::string &name() const { return state().name(); }

    // ---- publishing: does not wait, and does not tell who receives it ----

    // To every node that has subscribed to topic, this one too. Up to 2 GB.
    void publish(const CText &topic, std::string_view data = {}) const {
        busClientPublish(state().client(), topic.c_str(), data.data(), detail::lengthOf(data));
    }
    // Any contiguous bytes: std::vector<std::byte>, std::array<unsigned char, 4>, std::span.
    template <class Bytes, class = detail::IfBytes<Bytes>>
    void publish(const CText &topic, const Bytes &bytes) const {
        publish(topic, detail::viewOf(bytes));
    }
    // The bus keeps the message too, the latest of each topic: who subscribes later gets it at
    // once.
    void publish_sticky(const CText &topic, std::string_view data = {}) const {
        busClientPublishSticky(state().client(), topic.c_str(), data.data(),
                               detail::lengthOf(data));
    }
    template <class Bytes, class = detail::IfBytes<Bytes>>
    void publish_sticky(const CText &topic, const Bytes &bytes) const {
        publish_sticky(topic, detail::viewOf(bytes));
    }
    // Drops what the bus has kept of the topic.
    void remove_sticky(const CText &topic) const {
        busClientRemoveSticky(state().client(), detail::jsonArray({topic.c_str()}).c_str());
    }

    // ---- subscribing ----
    // Each topic has one handler: another subscription replaces it, and does not fetch the sticky
    // message again. A change holds from the next message on; it may be made in the handler that
    // it replaces or removes, which runs to its end. What that has captured goes before the node
    // next handles something, or when some further changes have been made, in the node's thread,
    // and at the latest when the node leaves. Messages of a topic without a handler are dropped.
    // Error: the bus has not answered, or its queue is full. Then the handlers are changed, but
    // not certainly what the bus sends: do it again. At most 2,048 topics for each node; further
    // ones are left out, with a warning in the log.

    // handler(std::string_view data). The bus's own topics are "bus.event" (nodes that join) and
    // "bus.error" (calls refused as a ring).
    template <class Handler,
              class = std::enable_if_t<std::is_invocable_v<Handler &, std::string_view>>>
    void subscribe(const CText &topic, Handler handler) {
        subscribeTo({topic.c_str()}, detail::handlerOf([handler = std::move(handler)](
                                                           std::string_view, std::string_view data,
                                                           char *&) mutable { handler(data); }));
    }
    // handler(std::string_view topic, std::string_view data), one for all of them.
    template <class Handler, class = std::enable_if_t<std::is_invocable_v<
                                 Handler &, std::string_view, std::string_view>>>
    void subscribe(const std::vector<std::string> &topics, Handler handler) {
        subscribeTo(topics, detail::handlerOf([handler = std::move(handler)](
                                                  std::string_view topic, std::string_view data,
                                                  char *&) mutable { handler(topic, data); }));
    }
    void unsubscribe(const std::vector<std::string> &topics) {
        const std::string json = detail::jsonArray(topics);
        state().change({&detail::Handlers::topics, topics, nullptr});
        tellBus("/bus/unsubscribe", json);
    }
    void unsubscribe(const CText &topic) { unsubscribe(std::vector<std::string>{topic.c_str()}); }

    // ---- being called ----

    // Answers calls of "/name" + path. handler(std::string_view data) gives the answer, a
    // std::string or what becomes one, or a std::optional of it: nothing, and what it throws, is
    // answered as not implemented. An answer with a NUL in it counts as thrown. Replaces a former
    // handler of the path, which may be the one that calls this: it runs to its end. nullptr
    // removes. Throws std::invalid_argument for a path without "/" at its beginning.
    template <class Handler, class = detail::IfAnswers<Handler, std::string_view>>
    void on_call(const CText &path, Handler handler) {
        setCall(checkedPath(path), detail::handlerOf([handler = std::move(handler)](
                                                         std::string_view, std::string_view data,
                                                         char *&answer) mutable {
                    answer = detail::answerText(handler(data));
                }));
    }
    void on_call(const CText &path, std::nullptr_t) { setCall(checkedPath(path), nullptr); }
    // handler(std::string_view path, std::string_view data), for every path without its own.
    template <class Handler, class = detail::IfAnswers<Handler, std::string_view, std::string_view>>
    void on_call(Handler handler) {
        setCall("", detail::handlerOf([handler = std::move(handler)](std::string_view path,
                                                                     std::string_view data,
                                                                     char *&answer) mutable {
                    answer = detail::answerText(handler(path, data));
                }));
    }
    void on_call(std::nullptr_t) { setCall("", nullptr); }

    // ---- calling ----

    // Asks "/node/path" and waits for the answer; in a handler the node handles nothing meanwhile.
    // Calls of one node are made one after the other: a second thread waits until the first has its
    // answer. So a handler calls through its own node: waiting for another one's turn to call is
    // not seen as a part of a ring. A node whose handler does not return, or that C functions have
    // made and do not run, keeps the caller waiting, call_timeout at most where that is set.
    Answer call(const CText &url, std::string_view data = {}) const {
        return state().call(url.c_str(), data);
    }
    // The same without waiting, by one of the bus's helpers (Config::helpers): many can be under
    // way at once, in no order. The future always becomes ready, with Outcome::none when the node
    // leaves before the answer, and need not be waited for.
    // The wait for a future is not known to the bus: a handler that waits for a node which waits
    // for it, or for itself, is not refused as a ring, but waits for good. In handlers, take the
    // form with a completion. Calls that wait behind Config::helpers others that are never answered
    // are not answered either. Throws Error when Config::helpers is 0, std::system_error when there
    // is no thread for the first of them.
    std::future<Answer> call_async(const CText &url, std::string_view data = {}) const {
        return state().callAsync(url.c_str(), data, nullptr);
    }
    // completion(Answer) runs in this node's thread, unless the node leaves before.
    void call_async(const CText &url, std::string_view data,
                    std::function<void(Answer)> completion) const {
        if (!completion) {
            throw std::invalid_argument("zelvo: a completion is missing");
        }
        state().callAsync(url.c_str(), data, std::move(completion));
    }

    // ---- timers ----
    // Run in the node's thread, to within some 3 ms (on Windows a tick of the system) and what the
    // node has to do before them; those that are due together in the order in which they were set.

    // run() or run(Timer), which gets its own handle: the way to cancel from within.

    // Once, so much later. A time that is over: as soon as possible.
    template <class Run>
    Timer after(std::chrono::nanoseconds wait, Run run) {
        return addTimer(wait, std::chrono::nanoseconds{0}, std::move(run));
    }
    // Again and again, at whole periods from now however long run takes; beats that have been
    // missed meanwhile are left out. Throws std::invalid_argument for a period that is not
    // positive.
    template <class Run>
    Timer every(std::chrono::nanoseconds period, Run run) {
        if (period.count() <= 0) {
            throw std::invalid_argument("zelvo: a period that is not positive");
        }
        return addTimer(period, period, std::move(run));
    }

    // ---- the bus ----

    Keys keys() const {
        state();
        return Keys{state_};
    }
    // The names of the nodes on the bus, in the order in which they joined, without the helpers.
    // Throws Error when there is no answer.
    std::vector<std::string> nodes() const {
        std::vector<std::string> names;
        const std::string text = tellBus("/bus/nodes");
        detail::JsonReader{text}.texts(names, detail::kHelperPrefix);
        return names;
    }
    // What the bus has counted, JSON text as bus_client.h describes under /bus/stats; helpers are
    // among the nodes. Nothing: Config::stats is not set. Throws Error when there is no answer.
    std::optional<std::string> stats() const {
        std::string text = tellBus("/bus/stats");
        return detail::outcomeOf("/bus/stats", text) == Outcome::answered
                   ? std::optional{std::move(text)}
                   : std::nullopt;
    }

private:
    detail::NodeState &state() const {
        if (!state_) {
            throw std::logic_error("zelvo: the node has been moved from");
        }
        return *state_;
    }
    static const std::string &checked(const std::string &name) {
        const std::string url = '/' + name + '/';
        if (name.empty() || name.size() > 127 || name.find('/') != name.npos ||
            std::strlen(name.c_str()) != name.size() || detail::isOfTheBus(url)) {
            throw std::invalid_argument("zelvo: a node cannot be called by the name \"" + name +
                                        '"');
        }
        return name;
    }
    void close() noexcept {
        if (state_) {
            state_->leave(std::move(bus_));
            state_.reset();
        }
    }
    // The text of the bus's own answer.
    std::string tellBus(const char *url, std::string_view data = {}) const {
        Answer answer = state().call(url, data);
        if (answer.outcome == Outcome::none) {
            throw Error(std::string{"zelvo: the bus does not answer "} + url);
        }
        return std::move(answer.text);
    }
    // The handler is there before the first message can be.
    void subscribeTo(const std::vector<std::string> &topics, detail::HandlerPtr handler) {
        const std::string json = detail::jsonArray(topics);
        state().change({&detail::Handlers::topics, topics, std::move(handler)});
        tellBus("/bus/subscribe", json);
    }
    static std::string checkedPath(const CText &path) {
        if (path.c_str()[0] != '/') {
            throw std::invalid_argument("zelvo: a path begins with a slash");
        }
        return path.c_str();
    }
    void setCall(const std::string &path, detail::HandlerPtr handler) {
        state().change({&detail::Handlers::paths, {path}, std::move(handler)});
    }
    template <class Run>
    Timer addTimer(std::chrono::nanoseconds wait, std::chrono::nanoseconds period, Run run) {
        state();
        if constexpr (std::is_invocable_v<Run &, Timer>) {
            const std::weak_ptr<detail::NodeState> node = state_;
            return {state_, state_->addTimer(wait, period,
                                             [run = std::move(run),
                                              node](const detail::TimerPtr &timer) mutable {
                                                 run(Timer{node, timer});
                                             })};
        } else {
            return {state_, state_->addTimer(wait, period,
                                             [run = std::move(run)](
                                                 const detail::TimerPtr &) mutable { run(); })};
        }
    }

    detail::BusPtr bus_;
    std::shared_ptr<detail::NodeState> state_;
};

} // namespace zelvo

#endif // C++17

#endif
