// What a node gives: to stop its timers, to end its subscriptions, to let go of its calls, and the
// key store. Included by zelvo/bus.hpp.
#ifndef ZELVO_HANDLES_HPP
#define ZELVO_HANDLES_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Zelvo for C++ needs C++17 (-std=c++17); before that there is zelvo/bus_client.h"
#else

#include "detail/json_reader.hpp"
#include "detail/node.hpp"

namespace zelvo {

class Node;

namespace detail {

// Of what a node has got, and may have got rid of.
template <class Thing>
bool cancelled(const std::weak_ptr<Thing> &weak) {
    const auto thing = weak.lock();
    const auto node = thing ? thing->node.lock() : nullptr;
    return node && node->cancel(thing);
}

} // namespace detail

// What after() and every() give: a way to stop them. Copies stop the same timer; a timer whose
// handles are gone runs all the same. Any thread may use it, also when its node has gone.
class Timer {
public:
    Timer() noexcept = default; // of nothing
    // No run begins after this, except one that is about to in another thread; the function goes as
    // soon as it does not run. May be called from within it. True: there would have been another
    // run.
    bool cancel() const { return detail::cancelled(entry_); }

private:
    friend class Node;
    explicit Timer(const detail::TimerPtr &entry) noexcept : entry_{entry} {}

    std::weak_ptr<detail::TimerEntry> entry_;
};

// What subscribe() gives: a way to end it. Copies end the same one; a subscription whose handles
// are gone goes on. Any thread may use it, also when its node has gone.
class Subscription {
public:
    Subscription() noexcept = default; // to nothing
    // No run of the handler begins after this, except one that is about to in another thread; it
    // goes as the handlers do that are removed. May be called from within it. Waits for the bus,
    // where the node has no other handler for a topic of this one; the handler is over also where
    // the bus does not answer. True: it would have got further messages.
    bool cancel() const { return detail::cancelled(handler_); }

private:
    friend class Node;
    explicit Subscription(const detail::HandlerPtr &handler) noexcept : handler_{handler} {}

    std::weak_ptr<detail::Handler> handler_;
};

// What call_async() gives: a way to let go of the call. Copies let go of the same one; a call whose
// handles are gone goes on.
class PendingCall {
public:
    PendingCall() noexcept = default; // of nothing
    // Its future is ready at once, with Cause::cancelled; its completion does not run. The node
    // that is called may handle it all the same. True: it was not over yet.
    bool cancel() const { return detail::cancelled(call_); }

private:
    friend class Node;
    explicit PendingCall(const detail::AsyncCallPtr &call) noexcept : call_{call} {}

    std::weak_ptr<detail::AsyncCall> call_;
};

// The same with a future; a std::future, where only that is wanted.
template <class Value>
class Future : public std::future<Value>, public PendingCall {
public:
    Future() noexcept = default;
    Future(std::future<Value> value, PendingCall call) noexcept
        : std::future<Value>{std::move(value)},
          PendingCall{std::move(call)} {}
};

// The key store of the bus, through one of its nodes. Keys match without regard to ASCII case.
// Functions throw Error when there is no answer, as when the node has gone, and
// std::invalid_argument for an empty key.
class Keys {
public:
    // The value as JSON text, as the store prints it; nothing: there is none.
    [[nodiscard]] std::optional<std::string> get(const CText &key) const {
        std::string text = ask(key, R"({"operation":"get"})");
        // A value that is this object would be printed with blanks.
        return text == R"({"data":""})" ? std::nullopt : std::optional{std::move(text)};
    }
    // Stores a JSON value, with persist also in the file: it is on the disk when this returns, and
    // where it can't be written the log says so. Numbers are kept as doubles; one beyond them is
    // null. Throws std::invalid_argument for what is no JSON.
    void set(const CText &key, std::string_view json, bool persist = false) const {
        if (!detail::JsonReader{json}.isValue()) {
            detail::refuse("zelvo: a value for the key store is not JSON");
        }
        ask(key, detail::concat({R"({"operation":"set",)", persist ? R"("persist":"true",)" : "",
                                 R"("data":)", json, "}"}));
    }

private:
    friend class Node;
    explicit Keys(std::shared_ptr<detail::NodeState> node) noexcept : node_{std::move(node)} {}
    std::string ask(const CText &key, const std::string &request) const {
        if (*key.c_str() == '\0') {
            detail::refuse("zelvo: an empty key");
        }
        Answer answer = node_->call(detail::concat({"/localKeys/", key.c_str()}).c_str(), request);
        if (answer.outcome == Outcome::none) {
            throw detail::noAnswerError("/localKeys", answer.cause);
        }
        return std::move(answer.text);
    }

    std::shared_ptr<detail::NodeState> node_;
};

} // namespace zelvo

#endif // C++17

#endif
