// Calls that are not waited for: what becomes of their answers.
#ifndef ZELVO_DETAIL_ASYNC_CALL_HPP
#define ZELVO_DETAIL_ASYNC_CALL_HPP

#include "call.hpp"

#include <atomic>
#include <future>
#include <list>
#include <memory>
#include <utility>

namespace zelvo::detail {

class NodeState;
class AsyncCall;
using AsyncCallPtr = std::shared_ptr<AsyncCall>;
using AsyncCalls = std::list<AsyncCallPtr>;

// A call that somebody else makes for a node.
class AsyncCall {
public:
    AsyncCall(const char *to, std::string_view bytes, bool inNode)
        : url{to},
          data{bytes},
          has_data{bytes.data() != nullptr},
          completes{inNode} {
        static_cast<void>(lengthOf(bytes));
    }
    AsyncCall(const AsyncCall &) = delete;
    AsyncCall &operator=(const AsyncCall &) = delete;
    virtual ~AsyncCall() = default;

    // The answer, for whoever waits for it. Once, and not after forget().
    virtual void end(Answer answer) = 0;
    // Nobody waits any more: what is the user's goes.
    virtual void forget() noexcept = 0;

    const std::string url;
    const std::string data;
    const bool has_data;
    const bool completes;          // end() runs something of the user's: in the node's thread
    std::weak_ptr<NodeState> node; // whose call it is
    std::string node_name;
    std::atomic<bool> over{false}; // nobody wants it (any more)

    // The node's, with its mutex: where the call is, among those under way or those answered.
    AsyncCalls::iterator place;
    bool ready = false;
    Answer answer;
    // The helpers', with their mutex.
    AsyncCalls::iterator row_place;
    bool waits = false;
};

// read(answer) gives the future's value, in a helper's thread.
template <class Value, class Read>
class FutureCall final : public AsyncCall {
public:
    FutureCall(const char *to, std::string_view bytes, Read read)
        : AsyncCall{to, bytes, false},
          read_{read} {}
    void end(Answer given) override {
        try {
            promise_.set_value(read_(std::move(given)));
        } catch (...) { // no memory for the value
            promise_.set_exception(std::current_exception());
        }
    }
    void forget() noexcept override {}
    std::future<Value> future() { return promise_.get_future(); }

private:
    Read read_;
    std::promise<Value> promise_;
};
inline Answer asItIs(Answer answer) noexcept {
    return answer;
}

template <class Run>
class CompletedCall final : public AsyncCall {
public:
    CompletedCall(const char *to, std::string_view bytes, Run &run)
        : AsyncCall{to, bytes, true},
          run_{std::move(run)} {}
    void end(Answer given) override { static_cast<void>((*run_)(std::move(given))); }
    void forget() noexcept override { run_.reset(); }

private:
    std::optional<Run> run_;
};

// As handlers are held.
inline AsyncCallPtr held(AsyncCall *call) {
    return AsyncCallPtr{call};
}

// Those of a node. All under the node's mutex.
class OpenCalls {
public:
    void add(const AsyncCallPtr &call) { call->place = under_way_.insert(under_way_.end(), call); }
    void takeBack() noexcept { under_way_.pop_back(); }

    // The answer is there. What is given back has to be ended by it; otherwise it waits for the
    // node's thread, or was over.
    AsyncCalls finish(AsyncCall &call, Answer &&answer) noexcept {
        AsyncCalls ended;
        if (!call.over.exchange(true)) {
            call.answer = std::move(answer);
            call.ready = call.completes;
            auto &to = call.ready ? ready_ : ended;
            to.splice(to.end(), under_way_, call.place);
        }
        return ended;
    }
    bool hasReady() const noexcept { return !ready_.empty(); }
    // The next one whose completion is to be run, or null.
    AsyncCallPtr takeReady() noexcept {
        if (ready_.empty()) {
            return nullptr;
        }
        AsyncCallPtr call = std::move(ready_.front());
        ready_.pop_front();
        call->ready = false;
        return call;
    }
    // Nothing: it is over, or its completion has been taken.
    AsyncCalls cancel(AsyncCall &call) noexcept {
        AsyncCalls cancelled;
        if (!call.over.exchange(true) || call.ready) {
            auto &from = call.ready ? ready_ : under_way_;
            cancelled.splice(cancelled.end(), from, call.place);
            call.ready = false;
        }
        return cancelled;
    }
    AsyncCalls takeAll() noexcept {
        AsyncCalls all;
        all.swap(under_way_);
        for (const AsyncCallPtr &call : all) {
            call->over = true;
        }
        for (const AsyncCallPtr &call : ready_) {
            call->ready = false;
        }
        all.splice(all.end(), ready_);
        return all;
    }

private:
    AsyncCalls under_way_;
    AsyncCalls ready_; // answered, their completions not yet run
};

} // namespace zelvo::detail

#endif
