// The threads that run the loops of the C functions.
#ifndef ZELVO_DETAIL_LOOP_HPP
#define ZELVO_DETAIL_LOOP_HPP

#include "chain.hpp"
#include "system.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace zelvo::detail {

using Clock = std::chrono::steady_clock;

// What a thread does with an object. All threads are of one kind, and plain functions are passed
// around inside: each std::function and each further kind of thread costs every user time to
// compile.
using Step = void (*)(void *object);

inline std::thread threadOf(Step body, void *object) {
    return std::thread{[body, object] { body(object); }};
}

class NodeState;

// A thread that runs a loop until it is asked to end.
class Loop {
public:
    // The node, or null, lives as long as the thread. Throws std::system_error when there is no
    // thread.
    ZELVO_APART void start(const std::string &name, Step body, void *object,
                           std::shared_ptr<NodeState> node) {
        name_ = name;
        body_ = body;
        object_ = object;
        node_ = std::move(node);
        try {
            thread_ = threadOf(run, this);
        } catch (...) {
            node_.reset(); // a ring: this object is the node's
            throw;
        }
    }
    std::thread::id id() const noexcept { return thread_.get_id(); }
    bool isThisThread() const noexcept { return id() == std::this_thread::get_id(); }

    // Asks until the loop has ended, less and less often: a full queue or a shortage of memory may
    // have lost a request. False: giveUp has said that it can't be waited for.
    bool end(Step ask, bool (*giveUp)(void *object)) {
        Clock::duration pause = std::chrono::milliseconds{20};
        ask(object_);
        while (!endsWithin(pause)) {
            if (giveUp && giveUp(object_)) {
                return false;
            }
            ask(object_);
            pause = std::min<Clock::duration>(2 * pause, std::chrono::seconds{1});
        }
        thread_.join();
        return true;
    }
    // The thread, for somebody else to join.
    std::thread release() noexcept { return std::move(thread_); }

private:
    bool endsWithin(Clock::duration pause) {
        const auto end = Clock::now() + pause;
        std::unique_lock lock{mutex_};
        while (!ended_ && changed_.wait_until(lock, end) == std::cv_status::no_timeout) {}
        return ended_;
    }
    static void run(void *self) {
        Loop &loop = *static_cast<Loop *>(self);
        nameThread(loop.name_);
        const std::shared_ptr<NodeState> node = std::move(loop.node_);
        loop.body_(loop.object_);
        const std::lock_guard lock{loop.mutex_};
        loop.ended_ = true;
        loop.changed_.notify_all();
    }

    std::string name_;
    Step body_ = nullptr;
    void *object_ = nullptr;
    std::shared_ptr<NodeState> node_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;
    std::thread thread_;
};

// Whether this thread runs a node's handlers. Such a thread must not wait for threads of nodes that
// have left.
inline bool &insideNode() noexcept {
    thread_local bool inside = false;
    return inside;
}

// The threads of nodes that could not be waited for where they were destroyed, as in one of their
// own handlers. Whoever lets go of the bus does, and the end of the process at the latest: unless
// that comes in a handler.
class Retired {
public:
    static Retired &instance() {
        static Retired &retired = *new Retired; // for threads that outlive the static objects
        static const struct AtExit {
            AtExit() = default;
            AtExit(const AtExit &) = delete;
            AtExit &operator=(const AtExit &) = delete;
            ~AtExit() {
                if (!insideNode()) {
                    instance().join(nullptr);
                }
            }
        } atExit;
        return retired;
    }
    Retired() = default;
    ~Retired() = default;
    Retired(const Retired &) = delete;
    Retired &operator=(const Retired &) = delete;

    struct Entry : Link {
        const void *bus = nullptr; // &done_: the thread has ended, or is about to
        std::thread thread;
    };

    // Takes the entry over, so that no memory is needed.
    void add(Entry &entry, const void *bus, std::thread thread) noexcept {
        const std::lock_guard lock{mutex_};
        entry.bus = bus;
        entry.thread = std::move(thread);
        entries_.append(entry);
    }
    // The calling thread has nothing left to do.
    void finish() {
        join(&done_);
        const std::lock_guard lock{mutex_};
        for (Entry *entry = entries_.first(); entry; entry = entries_.after(*entry)) {
            if (entry->thread.get_id() == std::this_thread::get_id()) {
                entry->bus = &done_;
            }
        }
    }
    // Those of the bus, or of every bus.
    void join(const void *bus) {
        for (std::thread thread = take(bus); thread.joinable(); thread = take(bus)) {
            thread.join();
        }
    }

private:
    std::thread take(const void *bus) {
        const std::lock_guard lock{mutex_};
        Entry *entry = entries_.first();
        while (entry && bus && entry->bus != bus) {
            entry = entries_.after(*entry);
        }
        std::thread thread;
        if (entry) {
            thread = std::move(entry->thread);
            delete entry;
        }
        return thread;
    }

    std::mutex mutex_;
    OwningChain<Entry> entries_;
    const char done_ = 0;
};

} // namespace zelvo::detail

#endif
