// The router on the bounded queues of oneTBB.
#include "router.h"

#include <tbb/concurrent_queue.h>

#include <array>

namespace {

using namespace bench;

class BoundedQueue {
public:
    void push(MessageRef message) { messages_.push(std::move(message)); }
    MessageRef pop() {
        MessageRef message;
        messages_.pop(message);
        return message;
    }

private:
    tbb::concurrent_bounded_queue<MessageRef> messages_;
};

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"TBB queues", routerCaller<BoundedQueue>, nullptr, {"call-2", "call-2000"}, {}}};
    return bench::run(argc, argv, systems);
}
