// ZeroMQ over inproc: a ROUTER in a thread of its own between named DEALERs, and an XSUB/XPUB
// proxy; and both jobs without a broker, REQ/REP and PUB/SUB.
#include "scenario.h"

#include <zmq.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace {

using namespace bench;

// With less, ZeroMQ drops publications in silence while 512 are under way; a system of its own
// shows that.
constexpr int kHighWaterMark = 100'000;
constexpr int kLowWaterMark = 1024;
constexpr int kSockets = 5000;

void require(bool fine) {
    if (!fine) {
        throw std::runtime_error(zmq_strerror(zmq_errno()));
    }
}

class Context {
public:
    Context() { require(zmq_ctx_set(context_, ZMQ_MAX_SOCKETS, kSockets) == 0); }
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;
    ~Context() { zmq_ctx_term(context_); }
    void *get() const noexcept { return context_; }
    // Ends every wait in every thread.
    void shutdown() noexcept { zmq_ctx_shutdown(context_); }

private:
    void *context_ = zmq_ctx_new();
};

class Socket {
public:
    Socket(const Context &context, int type, int waterMark = kHighWaterMark)
        : socket_{zmq_socket(context.get(), type)} {
        require(socket_ != nullptr);
        set(ZMQ_SNDHWM, waterMark);
        set(ZMQ_RCVHWM, waterMark);
        set(ZMQ_LINGER, 0);
    }
    Socket(Socket &&other) noexcept : socket_{std::exchange(other.socket_, nullptr)} {}
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    Socket &operator=(Socket &&) = delete;
    ~Socket() {
        if (socket_) {
            zmq_close(socket_);
        }
    }
    void set(int option, int value) { require(zmq_setsockopt(socket_, option, &value, 4) == 0); }
    void set(int option, std::string_view value) {
        require(zmq_setsockopt(socket_, option, value.data(), value.size()) == 0);
    }
    void bind(const std::string &address) { require(zmq_bind(socket_, address.c_str()) == 0); }
    void connect(const std::string &address) {
        require(zmq_connect(socket_, address.c_str()) == 0);
    }
    void *get() const noexcept { return socket_; }

private:
    void *socket_;
};

// A message, or a part of one.
class Part {
public:
    Part() noexcept { zmq_msg_init(&message_); }
    explicit Part(std::string_view text) {
        require(zmq_msg_init_size(&message_, text.size()) == 0);
        std::memcpy(zmq_msg_data(&message_), text.data(), text.size());
    }
    Part(const Part &) = delete;
    Part &operator=(const Part &) = delete;
    ~Part() { zmq_msg_close(&message_); }
    // False when the context has been shut down.
    bool receive(const Socket &from) noexcept {
        return zmq_msg_recv(&message_, from.get(), 0) >= 0;
    }
    bool send(const Socket &to, int flags = 0) noexcept {
        return zmq_msg_send(&message_, to.get(), flags) >= 0;
    }
    std::string_view text() noexcept {
        return {static_cast<const char *>(zmq_msg_data(&message_)), zmq_msg_size(&message_)};
    }

private:
    zmq_msg_t message_{};
};

class Threads {
public:
    explicit Threads(Context &context) : context_{context} {}
    Threads(const Threads &) = delete;
    Threads &operator=(const Threads &) = delete;
    ~Threads() {
        context_.shutdown();
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }
    template <typename Body>
    void start(Body body) {
        threads_.emplace_back(std::move(body));
    }

private:
    Context &context_;
    std::vector<std::thread> threads_;
};

// ---- calls ----

Socket dealer(const Context &context, const std::string &name) {
    Socket socket{context, ZMQ_DEALER};
    socket.set(ZMQ_ROUTING_ID, name);
    socket.connect("inproc://broker");
    return socket;
}

// The ROUTER tells the sender and finds the target by its name.
void broke(const Socket &router) {
    for (;;) {
        Part sender;
        Part target;
        Part payload;
        if (!sender.receive(router) || !target.receive(router) || !payload.receive(router) ||
            !target.send(router, ZMQ_SNDMORE) || !sender.send(router, ZMQ_SNDMORE) ||
            !payload.send(router)) {
            return;
        }
    }
}

void answerByName(const Socket &callee) {
    for (;;) {
        Part sender;
        Part request;
        if (!sender.receive(callee) || !request.receive(callee) ||
            !sender.send(callee, ZMQ_SNDMORE) || !Part{kAnswer}.send(callee)) {
            return;
        }
    }
}

class BrokerCaller final : public Caller {
public:
    explicit BrokerCaller(const Shape &shape) {
        Socket router{context_, ZMQ_ROUTER};
        router.bind("inproc://broker");
        for (int i = 0; i < shape.others; ++i) {
            others_.push_back(dealer(context_, "other-" + std::to_string(i)));
        }
        caller_ = std::make_unique<Socket>(dealer(context_, "node-a"));
        threads_.start([socket = dealer(context_, "node-b")] { answerByName(socket); });
        threads_.start([socket = std::move(router)] { broke(socket); });
    }
    std::size_t call() override {
        Part sender;
        Part answer;
        require(Part{"node-b"}.send(*caller_, ZMQ_SNDMORE) && Part{kRequest}.send(*caller_));
        require(sender.receive(*caller_) && answer.receive(*caller_));
        return answer.text().size();
    }

private:
    Context context_;
    std::vector<Socket> others_;
    std::unique_ptr<Socket> caller_;
    Threads threads_{context_};
};

class DirectCaller final : public Caller {
public:
    explicit DirectCaller(const Shape &) {
        Socket callee{context_, ZMQ_REP};
        callee.bind("inproc://callee");
        caller_.connect("inproc://callee");
        threads_.start([socket = std::move(callee)] {
            for (Part request; request.receive(socket) && Part{kAnswer}.send(socket);) {}
        });
    }
    std::size_t call() override {
        Part answer;
        require(Part{kRequest}.send(caller_) && answer.receive(caller_));
        return answer.text().size();
    }

private:
    Context context_;
    Socket caller_{context_, ZMQ_REQ};
    Threads threads_{context_};
};

// ---- publications ----

// Topic and payload are one message.
constexpr std::size_t kPrefix = Topic::kSize + 1;

void hear(const Socket &socket, Sink &sink, int number) {
    for (Part message; message.receive(socket);) {
        const std::string_view payload = message.text().substr(kPrefix);
        sink.receive(number, payload.data(), payload.size());
    }
}

template <bool Proxy, int WaterMark = kHighWaterMark>
class ZeroPublisher final : public Publisher {
public:
    ZeroPublisher(const Shape &shape, Sink &sink) {
        if (Proxy) {
            startProxy();
        }
        for (int i = 0; i < shape.publishers; ++i) {
            Outlet &outlet = publishers_.emplace_back(
                Outlet{{context_, ZMQ_PUB, WaterMark}, Topic{i % shape.topics}});
            Proxy ? outlet.socket.connect("inproc://xsub") : outlet.socket.bind(sourceOf(i));
        }
        joinOthers(shape);
        for (int topic = 0; topic < shape.topics; ++topic) {
            for (int i = 0; i < shape.subscribers; ++i) {
                subscribe(shape, topic, sink, i);
            }
        }
    }
    void publish(int publisher, std::string_view payload) override {
        const Outlet &outlet = publishers_[static_cast<std::size_t>(publisher)];
        const std::string_view prefix = outlet.topic.prefix();
        zmq_msg_t message;
        require(zmq_msg_init_size(&message, prefix.size() + payload.size()) == 0);
        char *const data = static_cast<char *>(zmq_msg_data(&message));
        std::memcpy(data, prefix.data(), prefix.size());
        std::memcpy(data + prefix.size(), payload.data(), payload.size());
        require(zmq_msg_send(&message, outlet.socket.get(), 0) >= 0);
    }

private:
    struct Outlet {
        Socket socket;
        Topic topic;
    };

    // Where the publications of this publisher can be had.
    static std::string sourceOf(int publisher) {
        return Proxy ? "inproc://xpub" : "inproc://pub-" + std::to_string(publisher);
    }
    void startProxy() {
        Socket front{context_, ZMQ_XSUB, WaterMark};
        Socket back{context_, ZMQ_XPUB, WaterMark};
        front.bind("inproc://xsub");
        back.bind(sourceOf(0));
        threads_.start([from = std::move(front), to = std::move(back)] {
            zmq_proxy(from.get(), to.get(), nullptr);
        });
    }
    // To a topic, of whichever publishers have it.
    void subscribe(const Shape &shape, int topic, Sink &sink, int number) {
        Socket subscriber{context_, ZMQ_SUB, WaterMark};
        subscriber.set(ZMQ_SUBSCRIBE, Topic{topic}.prefix());
        for (int i = topic; i < (Proxy ? topic + 1 : shape.publishers); i += shape.topics) {
            subscriber.connect(sourceOf(i));
        }
        threads_.start(
            [socket = std::move(subscriber), &sink, number] { hear(socket, sink, number); });
    }
    void joinOthers(const Shape &shape) {
        for (int i = 0; i < shape.others; ++i) {
            Socket &other = others_.emplace_back(context_, ZMQ_SUB);
            for (int topic = 0; topic < shape.otherTopics; ++topic) {
                other.set(ZMQ_SUBSCRIBE, std::to_string(i) + "." + std::to_string(topic) + '\0');
            }
            other.connect(sourceOf(0));
        }
    }

    Context context_;
    std::vector<Socket> others_;
    std::vector<Outlet> publishers_;
    Threads threads_{context_};
};

template <typename Made>
std::unique_ptr<Caller> caller(const Shape &shape) {
    return std::make_unique<Made>(shape);
}
template <bool Proxy, int WaterMark = kHighWaterMark>
std::unique_ptr<Publisher> publisher(const Shape &shape, Sink &sink) {
    return std::make_unique<ZeroPublisher<Proxy, WaterMark>>(shape, sink);
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"ZeroMQ broker",
               caller<BrokerCaller>,
               publisher<true>,
               {"call-2", "call-2000", "call-1-core", "publish-64", "publish-1M", "publish-1-core",
                "latency-1k", "fanout-8", "fanout-64", "fanout-256", "growth-10", "growth-100",
                "growth-1000", "growth-2000", "publish-4-to-1", "publish-4-pairs"},
               {}},
        System{"ZeroMQ direct",
               caller<DirectCaller>,
               publisher<false>,
               {"call-2", "call-1-core", "publish-64", "publish-1M", "publish-1-core", "latency-1k",
                "fanout-8", "fanout-64", "fanout-256", "publish-4-to-1", "publish-4-pairs"},
               {}},
        System{
            "ZeroMQ broker HWM 1024", nullptr, publisher<true, kLowWaterMark>, {"publish-64"}, {}}};
    return bench::run(argc, argv, systems);
}
