// The router on GLib's asynchronous queues; and a node that is a GLib main loop, for its timers.
#include "router.h"

#include <glib.h>

#include <array>

namespace {

using namespace bench;

struct Unref {
    void operator()(GAsyncQueue *queue) const noexcept { g_async_queue_unref(queue); }
    void operator()(GMainContext *context) const noexcept { g_main_context_unref(context); }
    void operator()(GMainLoop *loop) const noexcept { g_main_loop_unref(loop); }
};

// GLib's queues hold pointers, so each holds a reference of its own.
class AsyncQueue {
public:
    void push(MessageRef message) {
        g_async_queue_push(queue_.get(), new MessageRef{std::move(message)});
    }
    MessageRef pop() {
        const std::unique_ptr<MessageRef> held{
            static_cast<MessageRef *>(g_async_queue_pop(queue_.get()))};
        return std::move(*held);
    }
    AsyncQueue() = default;
    AsyncQueue(const AsyncQueue &) = delete;
    AsyncQueue &operator=(const AsyncQueue &) = delete;
    ~AsyncQueue() {
        while (void *const left = g_async_queue_try_pop(queue_.get())) {
            delete static_cast<MessageRef *>(left);
        }
    }

private:
    std::unique_ptr<GAsyncQueue, Unref> queue_{g_async_queue_new()};
};

// Calls go straight into the loop's thread: a main loop has no names.
class LoopCaller final : public Caller {
public:
    explicit LoopCaller(const Shape &shape) {
        for (int i = 0; i < shape.timers; ++i) {
            GSource *const timer = g_timeout_source_new_seconds(3600);
            g_source_set_callback(
                timer, [](void *) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
            g_source_attach(timer, context_.get());
            g_source_unref(timer);
        }
        thread_ = std::thread([this] { g_main_loop_run(loop_.get()); });
        call(); // the loop runs
    }
    LoopCaller(const LoopCaller &) = delete;
    LoopCaller &operator=(const LoopCaller &) = delete;
    ~LoopCaller() override {
        g_main_loop_quit(loop_.get());
        thread_.join();
    }
    std::size_t call() override {
        request_ = kRequest;
        g_main_context_invoke(context_.get(), answer, this);
        const std::unique_ptr<std::string> text{
            static_cast<std::string *>(g_async_queue_pop(answers_.get()))};
        return text->size();
    }

private:
    static int answer(void *self) {
        auto &caller = *static_cast<LoopCaller *>(self);
        g_async_queue_push(caller.answers_.get(), new std::string{kAnswer});
        return G_SOURCE_REMOVE;
    }

    std::unique_ptr<GMainContext, Unref> context_{g_main_context_new()};
    std::unique_ptr<GMainLoop, Unref> loop_{g_main_loop_new(context_.get(), FALSE)};
    std::unique_ptr<GAsyncQueue, Unref> answers_{g_async_queue_new()};
    std::string request_;
    std::thread thread_;
};

std::unique_ptr<Caller> loopCaller(const Shape &shape) {
    return std::make_unique<LoopCaller>(shape);
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"GLib queues",
               routerCaller<AsyncQueue>,
               routerPublisher<AsyncQueue>,
               {"call-2", "call-2000", "publish-64", "publish-1M", "latency-1k", "fanout-8",
                "fanout-64", "fanout-256", "publish-4-to-1", "publish-4-pairs"},
               {}},
        System{"GLib main loop",
               loopCaller,
               nullptr,
               {"call-timers-0", "call-timers-1", "call-timers-1000", "idle-timers-0",
                "idle-timers-1", "idle-timers-1000"},
               {}}};
    return bench::run(argc, argv, systems);
}
