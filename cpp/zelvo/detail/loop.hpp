// The threads that run the loops of the C functions.
#ifndef ZELVO_DETAIL_LOOP_HPP
#define ZELVO_DETAIL_LOOP_HPP

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace zelvo::detail {

// What a thread does with an object. All threads are of one kind, and plain functions are passed
// around inside: each std::function and each lambda in a thread costs every user time to compile.
using Step = void (*)(void *object);

// A thread that runs a loop until it is asked to end.
class Loop {
public:
    // keep lives as long as the thread. Throws std::system_error when there is no thread.
    void start(Step body, void *object, std::shared_ptr<void> keep) {
        body_ = body;
        object_ = object;
        keep_ = std::move(keep);
        try {
            thread_ = std::thread{static_cast<Step>(run), this};
        } catch (...) {
            keep_.reset(); // a ring, where it holds this object
            throw;
        }
    }
    bool isThisThread() const noexcept { return thread_.get_id() == std::this_thread::get_id(); }

    // Asks until the loop has ended, less and less often: a full queue or a shortage of memory may
    // have lost a request.
    void end(Step ask) {
        std::chrono::milliseconds pause{20};
        ask(object_);
        std::unique_lock lock{mutex_};
        while (!changed_.wait_for(lock, pause, [this] { return ended_; })) {
            lock.unlock();
            ask(object_);
            lock.lock();
            pause = std::min(2 * pause, std::chrono::milliseconds{1000});
        }
        lock.unlock();
        thread_.join();
    }
    // The thread, for somebody else to join.
    std::thread release() noexcept { return std::move(thread_); }

private:
    static void run(void *self) {
        Loop &loop = *static_cast<Loop *>(self);
        const std::shared_ptr<void> keep = std::move(loop.keep_);
        loop.body_(loop.object_);
        const std::lock_guard lock{loop.mutex_};
        loop.ended_ = true;
        loop.changed_.notify_all();
    }

    Step body_ = nullptr;
    void *object_ = nullptr;
    std::shared_ptr<void> keep_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;
    std::thread thread_;
};

// Whether this thread is a node's: it must not wait for threads of nodes that have left.
inline bool &insideNode() noexcept {
    thread_local bool inside = false;
    return inside;
}

// The threads of nodes that have been destroyed in one of their own handlers, where they can't be
// waited for. Whoever lets go of the bus does, and the end of the process at the latest.
class Retired {
public:
    static Retired &instance() {
        static Retired retired;
        return retired;
    }
    ~Retired() { join(nullptr); }
    Retired() = default;
    Retired(const Retired &) = delete;
    Retired &operator=(const Retired &) = delete;

    void add(const void *bus, std::thread thread) {
        auto *const entry = new Entry{bus, std::move(thread), nullptr};
        const std::lock_guard lock{mutex_};
        entry->next = first_;
        first_ = entry;
    }
    // The calling thread has nothing left to do.
    void finish() {
        join(&done_);
        const std::lock_guard lock{mutex_};
        for (Entry *entry = first_; entry; entry = entry->next) {
            if (entry->thread.get_id() == std::this_thread::get_id()) {
                entry->bus = &done_;
            }
        }
    }
    // Those of the bus, or of every bus.
    void join(const void *bus) {
        while (Entry *const entry = take(bus)) {
            entry->thread.join();
            delete entry;
        }
    }

private:
    struct Entry {
        const void *bus; // &done_: the thread has ended, or is about to
        std::thread thread;
        Entry *next;
    };
    Entry *take(const void *bus) {
        const std::lock_guard lock{mutex_};
        for (Entry **link = &first_; *link; link = &(*link)->next) {
            if (!bus || (*link)->bus == bus) {
                return std::exchange(*link, (*link)->next);
            }
        }
        return nullptr;
    }

    std::mutex mutex_;
    Entry *first_ = nullptr;
    const char done_ = 0;
};

} // namespace zelvo::detail

#endif
