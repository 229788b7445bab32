// The router on std::mutex, std::condition_variable and std::deque.
#include "router.h"

#include <array>
#include <condition_variable>
#include <deque>

namespace {

using namespace bench;

class LockedQueue {
public:
    void push(MessageRef message) {
        {
            const std::lock_guard lock{mutex_};
            messages_.push_back(std::move(message));
        }
        filled_.notify_one();
    }
    MessageRef pop() {
        std::unique_lock lock{mutex_};
        filled_.wait(lock, [this] { return !messages_.empty(); });
        MessageRef message = std::move(messages_.front());
        messages_.pop_front();
        return message;
    }

private:
    std::mutex mutex_;
    std::condition_variable filled_;
    std::deque<MessageRef> messages_;
};

// Two thousand nodes, each with its thread and one publication that all have handled.
Result crowd(int) {
    constexpr int kNodes = 2000;
    Result result;
    Sink sink{kNodes, 1};
    const std::int64_t begun = now();
    const Usage before = usage();
    RouterPublisher<LockedQueue> all{{.subscribers = kNodes}, sink};
    result.used = usage() - before;
    result.seconds = static_cast<double>(now() - begun) * 1e-9;
    result.operations = kNodes;
    std::vector<char> payload(64, 'x');
    if (!sink.stream(0).awaitReady(all, payload)) {
        throw std::runtime_error("some nodes hear nothing");
    }
    return result;
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"hand-written",
               routerCaller<LockedQueue>,
               routerPublisher<LockedQueue>,
               {"call-2", "call-2000", "call-1-core", "publish-64", "publish-1M", "publish-1-core",
                "latency-1k", "fanout-8", "fanout-64", "fanout-256", "growth-10", "growth-100",
                "growth-1000", "growth-2000", "publish-4-to-1", "publish-4-pairs"},
               {{"memory-2000", crowd}, {"memory-2000-quiet", crowd}}},
        System{"hand-written scan",
               routerCaller<LockedQueue, Lookup::kScan>,
               routerPublisher<LockedQueue, Lookup::kScan>,
               {"growth-10", "growth-100", "growth-1000", "growth-2000"},
               {}}};
    return bench::run(argc, argv, systems);
}
