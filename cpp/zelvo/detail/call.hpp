// Calls, waited for and not.
#ifndef ZELVO_DETAIL_CALL_HPP
#define ZELVO_DETAIL_CALL_HPP

#include "../types.hpp"
#include "loop.hpp"
#include "text.hpp"

#include <zelvo/bus_client.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

namespace zelvo::detail {

// Whether the bus answers for this host itself; so it does for the first letters of its names.
inline bool isOfTheBus(std::string_view url) noexcept {
    if (url.size() < 2) {
        return false;
    }
    const std::string_view host = url.substr(1, url.find('/', 2) - 1);
    return std::string_view{"bus"}.substr(0, host.size()) == host ||
           std::string_view{"localKeys"}.substr(0, host.size()) == host;
}

inline Outcome outcomeOf(std::string_view url, std::string_view text) noexcept {
    if (text == R"({"data":"not implement"})" || text == R"({"msg":"not implement"})") {
        return Outcome::not_implemented;
    }
    // What the bus answers for itself is never a ring: there it is the plain "done".
    return text == R"({"data":""})" && !isOfTheBus(url) ? Outcome::ring : Outcome::answered;
}

// The client makes no other call until the answer is copied.
inline Answer ask(client_t *client, const char *url, std::string_view data) {
    const char *const text = busClientCall(client, url, data.data(), lengthOf(data));
    return text ? Answer{text, outcomeOf(url, text)} : Answer{};
}

// A node that makes calls for others, or null. It hears nothing: it has no loop.
inline client_t *connectSilently(Zelvo_t *bus, const char *name, onmessage_callback onMessage,
                                 oncall_callback onCall, void *userdata) {
    client_t *const client = busClientConnect(bus, name, onMessage, onCall, userdata);
    // A join that found the bus's queue full shows only here.
    if (client && !busClientCall(client, "/bus/unsubscribe", R"(["bus.event"])", 13)) {
        busClientClose(client);
        return nullptr;
    }
    return client;
}

// No other node can have such a name: it holds a "/", which zelvo::Node refuses and no url reaches.
inline constexpr char kHelperPrefix[] = "zelvo/helper/";

class NodeState;

// A call that somebody else makes for a node.
struct AsyncCall {
    std::string url;
    std::string data;
    bool has_data = false;
    std::weak_ptr<NodeState> caller;
    std::atomic<bool> over{false}; // nobody wants it (any more)
    // The caller's own.
    std::size_t place = 0;
    std::promise<Answer> promise;
    std::function<void(Answer)> completion;
    Answer answer;
    std::shared_ptr<AsyncCall> next; // whose completion runs after this one's
};
using AsyncCallPtr = std::shared_ptr<AsyncCall>;

class Helpers {
public:
    Helpers(Zelvo_t *bus, std::size_t most) noexcept : bus_{bus}, most_{most} {}
    Helpers(const Helpers &) = delete;
    Helpers &operator=(const Helpers &) = delete;
    ~Helpers() = default;
    // To be called while the bus runs, and when no node is left that somebody could call.
    void end() {
        {
            const std::lock_guard lock{mutex_};
            ending_ = true;
        }
        changed_.notify_all();
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }
    void add(AsyncCallPtr call) {
        const std::lock_guard lock{mutex_};
        if (idle_ <= waiting_.size() + turn_.size() && threads_.size() < most_) {
            grow();
        }
        if (threads_.empty()) {
            throw Error("zelvo: there are no helpers for asynchronous calls");
        }
        waiting_.push_back(std::move(call));
        changed_.notify_one();
    }

private:
    // A thread that cannot be had is no misfortune while there is another.
    void grow() {
        try {
            threads_.emplace_back(static_cast<Step>(serve), this);
            ++idle_;
        } catch (const std::exception &) {
            if (threads_.empty()) {
                throw;
            }
        }
    }
    AsyncCallPtr next() {
        std::unique_lock lock{mutex_};
        while (!ending_ && waiting_.empty() && turn_.empty()) {
            changed_.wait(lock);
        }
        if (ending_) {
            return nullptr;
        }
        if (turn_.empty()) {
            turn_.swap(waiting_);
            for (std::size_t i = 0, last = turn_.size() - 1; i < last; ++i, --last) {
                turn_[i].swap(turn_[last]);
            }
        }
        AsyncCallPtr call = std::move(turn_.back());
        turn_.pop_back();
        --idle_;
        return call;
    }
    static void finish(AsyncCall &call, Answer answer) noexcept;
    static Answer answerOf(client_t *client, const AsyncCall &call) noexcept {
        try {
            const std::string_view data{call.data};
            return client ? ask(client, call.url.c_str(), call.has_data ? data : std::string_view{})
                          : Answer{};
        } catch (const std::bad_alloc &) {
            return {};
        }
    }
    static void serve(void *self) { static_cast<Helpers *>(self)->serve(); }
    void serve() {
        const std::string name = kHelperPrefix + std::to_string(++names_);
        client_t *client = nullptr;
        while (const AsyncCallPtr call = next()) {
            if (!client) {
                client = connectSilently(bus_, name.c_str(), nullptr, nullptr, nullptr);
            }
            if (!call->over) {
                finish(*call, answerOf(client, *call));
            }
            const std::lock_guard lock{mutex_};
            ++idle_;
        }
        busClientClose(client);
    }

    Zelvo_t *const bus_;
    const std::size_t most_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<AsyncCallPtr> turn_;    // whose turn it is, the first one last
    std::vector<AsyncCallPtr> waiting_; // behind those, in order
    std::vector<std::thread> threads_;
    std::atomic<int> names_{0};
    std::size_t idle_ = 0; // helpers that no call keeps busy; some are about to be woken
    bool ending_ = false;
};

} // namespace zelvo::detail

#endif
