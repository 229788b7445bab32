// Calls that are waited for: the turn to make one, and what came of it.
#ifndef ZELVO_DETAIL_CALL_HPP
#define ZELVO_DETAIL_CALL_HPP

#include "../types.hpp"
#include "loop.hpp"
#include "text.hpp"

#include <zelvo/bus_client.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace zelvo::detail {

using Deadline = Clock::time_point;
inline constexpr Deadline kNever = Deadline::max();

// Whatever the duration: one that is too long for nanoseconds is as long as they go.
template <class Rep, class Period>
Clock::duration saturated(std::chrono::duration<Rep, Period> wait) {
    using Exact = std::chrono::duration<long double, Clock::period>;
    const auto exact = std::chrono::duration_cast<Exact>(wait);
    if (exact > Exact{Clock::duration::min()}) {
        return exact < Exact{Clock::duration::max()}
                   ? std::chrono::duration_cast<Clock::duration>(wait)
                   : Clock::duration::max();
    }
    return Clock::duration::min(); // also for what is not a number
}
inline Clock::time_point later(Clock::time_point now, Clock::duration wait) noexcept {
    return now + std::clamp(wait, Clock::duration{0}, Clock::time_point::max() - now);
}
// Out of line where there is a limit, as it is wanted in many places.
ZELVO_RARE inline Deadline endOf(std::chrono::milliseconds timeout) {
    return later(Clock::now(), saturated(timeout));
}
inline Deadline deadlineAfter(std::chrono::milliseconds timeout) {
    return timeout.count() > 0 ? endOf(timeout) : kNever;
}
// Whether more than a small part of the time has gone.
ZELVO_RARE inline bool hasWaited(Deadline deadline, std::chrono::milliseconds timeout) {
    const auto all = saturated(timeout);
    return deadline - Clock::now() < all - all / 16;
}

// ---- addresses and answers ----

inline std::string_view hostOf(std::string_view url) noexcept {
    return url.empty() ? std::string_view{} : url.substr(1, url.find('/', 2) - 1);
}
// Whether the bus answers for this host itself; so it does for the first letters of its names.
inline bool isOfTheBus(std::string_view host) noexcept {
    return !host.empty() && (std::string_view{"bus"}.substr(0, host.size()) == host ||
                             std::string_view{"localKeys"}.substr(0, host.size()) == host);
}

inline constexpr std::string_view kNoNode = R"({"data":"not implement"})";
inline constexpr std::string_view kNoHandler = R"({"msg":"not implement"})";
inline constexpr std::string_view kRefusedRing = R"({"data":""})";

inline bool isRefusal(std::string_view text) noexcept {
    return text == kNoNode || text == kNoHandler || text == kRefusedRing;
}

inline Answer answerFrom(std::string_view url, const char *text) {
    Answer answer{text, Outcome::answered, Cause::answered};
    if (answer.text == kNoNode || answer.text == kNoHandler) {
        answer.outcome = Outcome::not_implemented;
        answer.cause = answer.text == kNoNode ? Cause::no_node : Cause::no_handler;
    } else if (answer.text == kRefusedRing && !isOfTheBus(hostOf(url))) {
        // What the bus answers for itself is never a ring: there it is the plain "done".
        answer.outcome = Outcome::ring;
        answer.cause = Cause::ring;
    }
    return answer;
}
ZELVO_APART inline Answer noAnswer(Cause cause) {
    return {{}, Outcome::none, cause};
}

ZELVO_RARE inline Error noAnswerError(const char *url, Cause cause) {
    return Error{concat({"zelvo: the bus does not answer ", url, ": ", reason(cause)}), cause};
}

// The client makes no other call until the answer is copied.
inline Answer ask(client_t *client, const char *url, std::string_view data, Deadline deadline) {
    const char *const text = busClientCall(client, url, data.data(), lengthOf(data));
    if (text) {
        return answerFrom(url, text);
    }
    return noAnswer(Clock::now() >= deadline ? Cause::timed_out : Cause::lost);
}

// ---- turns ----

// Threads that call through one node do so one after the other, in the order in which they came.
// The library has such an order too, but an answer must be copied before the next call is made.
class Turns {
public:
    // Waits for the turn to call url, which stays until pass(). False: the time is up, or turns are
    // kept for another thread.
    bool take(const char *url, Deadline deadline) {
        std::unique_lock lock{mutex_};
        if (isKept() && owner_ != std::this_thread::get_id()) {
            return false;
        }
        if (taken_) {
            Waiter waiter;
            waiting_.append(waiter);
            if (!await(lock, waiter, deadline)) {
                return false;
            }
        }
        taken_ = true;
        url_ = url;
        return true;
    }
    // From now on only that thread gets one. False: somebody has one.
    bool keepFor(std::thread::id thread) noexcept {
        const std::lock_guard lock{mutex_};
        if (!taken_) {
            owner_ = thread;
        }
        return isKept();
    }
    // Waits for one to call nobody.
    void takeLast() noexcept {
        std::unique_lock lock{mutex_};
        if (taken_) {
            Waiter waiter;
            waiting_.append(waiter);
            await(lock, waiter, kNever);
        }
        taken_ = true;
    }
    void pass() noexcept {
        const std::lock_guard lock{mutex_};
        url_ = nullptr;
        taken_ = !waiting_.empty();
        if (taken_) {
            Waiter &next = waiting_.front();
            next.unlink();
            next.its = true;
            next.changed.notify_one();
        }
    }
    // Whether that host is being called.
    bool areTo(std::string_view host) {
        const std::lock_guard lock{mutex_};
        return url_ && hostOf(url_) == host;
    }

private:
    struct Waiter : Link {
        std::condition_variable changed;
        bool its = false;
    };
    bool isKept() const noexcept { return owner_ != std::thread::id{}; }
    static bool await(std::unique_lock<std::mutex> &lock, Waiter &waiter, Deadline deadline) {
        while (!waiter.its) {
            if (deadline == kNever) {
                waiter.changed.wait(lock);
            } else if (waiter.changed.wait_until(lock, deadline) == std::cv_status::timeout &&
                       !waiter.its) {
                return false;
            }
        }
        return true;
    }

    std::mutex mutex_;
    Chain<Waiter> waiting_;
    bool taken_ = false;
    std::thread::id owner_; // that turns are kept for, or none
    const char *url_ = nullptr;
};

} // namespace zelvo::detail

#endif
