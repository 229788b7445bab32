// Calls that are not waited for: what becomes of their answers.
#ifndef ZELVO_DETAIL_ASYNC_CALL_HPP
#define ZELVO_DETAIL_ASYNC_CALL_HPP

#include "call.hpp"

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <utility>

namespace zelvo::detail {

class NodeState;
class AsyncCall;
using AsyncCallPtr = std::shared_ptr<AsyncCall>;

// A call's place among others, which keep it.
struct CallPlace : Link {
    ZELVO_APART void join(Chain<CallPlace> &calls, const AsyncCallPtr &its) noexcept {
        call = its;
        calls.append(*this);
    }
    ZELVO_APART AsyncCallPtr leave() noexcept {
        unlink();
        return std::move(call);
    }
    AsyncCallPtr call;
};
using AsyncCalls = Chain<CallPlace>;

// A call that somebody else makes for a node.
class AsyncCall {
public:
    AsyncCall(const char *to, std::string_view bytes, bool inNode)
        : url{to},
          data{bytes.substr(0, static_cast<std::size_t>(lengthOf(bytes)))},
          has_data{bytes.data() != nullptr},
          completes{inNode} {}
    AsyncCall(const AsyncCall &) = delete;
    AsyncCall &operator=(const AsyncCall &) = delete;
    ZELVO_RARE virtual ~AsyncCall() = default;

    // The answer is there, for whoever waits for it. Once, and not after forget().
    virtual void end() = 0;
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
    CallPlace place;
    bool ready = false;
    Answer answer;
    // The helpers', with their mutex.
    CallPlace row_place;
    struct Host *host = nullptr;
};

// As handlers are held.
inline AsyncCallPtr held(AsyncCall *call) {
    return AsyncCallPtr{call};
}

// read(answer) gives the future's value, in a helper's thread.
template <class Value, class Read>
class FutureCall final : public AsyncCall {
public:
    FutureCall(const char *to, std::string_view bytes, Read read)
        : AsyncCall{to, bytes, false},
          read_{read} {}
    void end() override {
        if constexpr (std::is_nothrow_invocable_v<Read &, Answer>) {
            promise_.set_value(read_(std::move(answer)));
        } else {
            try {
                promise_.set_value(read_(std::move(answer)));
            } catch (...) { // no memory for the value
                promise_.set_exception(std::current_exception());
            }
        }
    }
    void forget() noexcept override {}
    std::future<Value> future() { return promise_.get_future(); }

private:
    Read read_;
    std::promise<Value> promise_;
};
// One of them, and its future.
template <class Value, class Read>
std::future<Value> makeFutureCall(const char *to, std::string_view bytes, Read read,
                                  AsyncCallPtr &call) {
    auto *const made = new FutureCall<Value, Read>{to, bytes, read};
    call = detail::held(made);
    return made->future();
}
inline Answer asItIs(Answer answer) noexcept {
    return answer;
}

template <class Run>
class CompletedCall final : public AsyncCall {
public:
    CompletedCall(const char *to, std::string_view bytes, Run &run)
        : AsyncCall{to, bytes, true},
          run_{std::move(run)} {}
    void end() override { static_cast<void>((*run_)(std::move(answer))); }
    void forget() noexcept override { run_.reset(); }

private:
    std::optional<Run> run_;
};

// Those of a node. All under the node's mutex.
class OpenCalls {
public:
    void add(const AsyncCallPtr &call) noexcept { call->place.join(under_way_, call); }
    static void takeBack(AsyncCall &call) noexcept { call.place.leave(); }

    // The answer is there. What is given back has to be ended by it; otherwise it waits for the
    // node's thread, or was over.
    AsyncCallPtr finish(AsyncCall &call, Answer &&answer) noexcept {
        if (call.over.exchange(true)) {
            return nullptr;
        }
        call.answer = std::move(answer);
        call.ready = call.completes;
        AsyncCallPtr ended = call.place.leave();
        if (call.ready) {
            call.place.join(ready_, ended);
            return nullptr;
        }
        return ended;
    }
    bool hasReady() const noexcept { return !ready_.empty(); }
    // The next one whose completion is to be run, or null.
    AsyncCallPtr takeReady() noexcept { return takeFirst(ready_); }
    // Whether it is to be let go of: not where it is over, or its completion has been taken.
    static bool cancel(AsyncCall &call) noexcept {
        const bool open = !call.over.exchange(true) || call.ready;
        if (open) {
            call.ready = false;
            call.place.leave();
        }
        return open;
    }
    // One of all, or null.
    AsyncCallPtr takeAny() noexcept {
        AsyncCallPtr call = takeFirst(under_way_.empty() ? ready_ : under_way_);
        if (call) {
            call->over = true;
        }
        return call;
    }

private:
    static AsyncCallPtr takeFirst(const AsyncCalls &calls) noexcept {
        if (calls.empty()) {
            return nullptr;
        }
        AsyncCallPtr call = calls.front().leave();
        call->ready = false;
        return call;
    }

    AsyncCalls under_way_;
    AsyncCalls ready_; // answered, their completions not yet run
};

} // namespace zelvo::detail

#endif
