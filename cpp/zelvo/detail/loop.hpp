// The threads that run the loops of the C functions.
#ifndef ZELVO_DETAIL_LOOP_HPP
#define ZELVO_DETAIL_LOOP_HPP

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace zelvo::detail {

// One kind of thread body is enough, and quicker to compile than one for each lambda.
inline std::thread startThread(std::function<void()> body) {
    return std::thread{std::move(body)};
}

// A thread that runs a loop until it is asked to end.
class Loop {
public:
    void start(std::function<void()> body) {
        thread_ = startThread([this, body = std::move(body)] {
            body();
            const std::lock_guard lock{mutex_};
            ended_ = true;
            changed_.notify_all();
        });
    }
    bool isThisThread() const noexcept { return thread_.get_id() == std::this_thread::get_id(); }

    // Asks until the loop has ended, less and less often: a full queue or a shortage of memory may
    // have lost a request.
    void end(const std::function<void()> &ask) {
        std::chrono::milliseconds pause{20};
        ask();
        std::unique_lock lock{mutex_};
        while (!changed_.wait_for(lock, pause, [this] { return ended_; })) {
            lock.unlock();
            ask();
            lock.lock();
            pause = std::min(2 * pause, std::chrono::milliseconds{1000});
        }
        lock.unlock();
        thread_.join();
    }
    // The thread, for somebody else to join.
    std::thread release() noexcept { return std::move(thread_); }

private:
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
        const std::lock_guard lock{mutex_};
        entries_.push_back({bus, std::move(thread)});
    }
    // The calling thread has nothing left to do.
    void finish() {
        join(&done_);
        const std::lock_guard lock{mutex_};
        for (Entry &entry : entries_) {
            if (entry.thread.get_id() == std::this_thread::get_id()) {
                entry.bus = &done_;
            }
        }
    }
    // Those of the bus, or of every bus.
    void join(const void *bus) {
        std::vector<Entry> joined;
        {
            const std::lock_guard lock{mutex_};
            for (std::size_t i = 0; i < entries_.size();) {
                if (bus && entries_[i].bus != bus) {
                    ++i;
                    continue;
                }
                joined.push_back(std::move(entries_[i]));
                std::swap(entries_[i], entries_.back());
                entries_.pop_back();
            }
        }
        for (Entry &entry : joined) {
            entry.thread.join();
        }
    }

private:
    struct Entry {
        const void *bus; // &done_: the thread has ended, or is about to
        std::thread thread;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    const char done_ = 0;
};

} // namespace zelvo::detail

#endif
