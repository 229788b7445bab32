// nng over inproc: request and reply, directly and through a device in a thread of its own; publish
// and subscribe, directly. nng has no names.
#include "scenario.h"

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace bench;

constexpr int kBuffer = 8192; // messages; nng's largest

void require(int status) {
    if (status != 0) {
        throw std::runtime_error(nng_strerror(status));
    }
}

class Socket {
public:
    explicit Socket(int (*open)(nng_socket *)) { require(open(&socket_)); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    ~Socket() { close(); }
    void close() noexcept { nng_close(socket_); } // ends every wait on it; twice is harmless
    void listen(const char *address) { require(nng_listen(socket_, address, nullptr, 0)); }
    void dial(const char *address) { require(nng_dial(socket_, address, nullptr, 0)); }
    nng_socket get() const noexcept { return socket_; }

private:
    nng_socket socket_{};
};

nng_msg *messageOf(std::string_view first, std::string_view second) {
    nng_msg *message = nullptr;
    require(nng_msg_alloc(&message, 0));
    require(nng_msg_append(message, first.data(), first.size()));
    require(nng_msg_append(message, second.data(), second.size()));
    return message;
}

void answer(const Socket &callee) {
    for (nng_msg *request = nullptr; nng_recvmsg(callee.get(), &request, 0) == 0;) {
        nng_msg_free(request);
        nng_msg *const text = messageOf(kAnswer, {});
        if (nng_sendmsg(callee.get(), text, 0) != 0) {
            nng_msg_free(text);
            return;
        }
    }
}

template <bool Device>
class NngCaller final : public Caller {
public:
    explicit NngCaller(const Shape &) {
        if (Device) {
            front_.listen("inproc://front");
            back_.listen("inproc://back");
            device_ = std::thread([this] { nng_device(front_.get(), back_.get()); });
            callee_.dial("inproc://back");
            caller_.dial("inproc://front");
        } else {
            callee_.listen("inproc://callee");
            caller_.dial("inproc://callee");
        }
        thread_ = std::thread([this] { answer(callee_); });
    }
    NngCaller(const NngCaller &) = delete;
    NngCaller &operator=(const NngCaller &) = delete;
    ~NngCaller() override {
        caller_.close();
        callee_.close();
        front_.close();
        back_.close();
        thread_.join();
        if (device_.joinable()) {
            device_.join();
        }
    }
    std::size_t call() override {
        require(nng_sendmsg(caller_.get(), messageOf(kRequest, {}), 0));
        nng_msg *text = nullptr;
        require(nng_recvmsg(caller_.get(), &text, 0));
        const std::size_t length = nng_msg_len(text);
        nng_msg_free(text);
        return length;
    }

private:
    Socket front_{nng_rep0_open_raw};
    Socket back_{nng_req0_open_raw};
    Socket callee_{nng_rep0_open};
    Socket caller_{nng_req0_open};
    std::thread device_;
    std::thread thread_;
};

constexpr std::size_t kPrefix = Topic::kSize + 1;

class NngPublisher final : public Publisher {
public:
    NngPublisher(const Shape &shape, Sink &sink) {
        for (int i = 0; i < shape.publishers; ++i) {
            auto socket = std::make_unique<Socket>(nng_pub0_open);
            require(nng_socket_set_int(socket->get(), NNG_OPT_SENDBUF, kBuffer));
            socket->listen(addressOf(i).c_str());
            publishers_.push_back({std::move(socket), Topic{i % shape.topics}});
        }
        for (int topic = 0; topic < shape.topics; ++topic) {
            for (int i = 0; i < shape.subscribers; ++i) {
                subscribe(shape, topic, sink, i);
            }
        }
    }
    NngPublisher(const NngPublisher &) = delete;
    NngPublisher &operator=(const NngPublisher &) = delete;
    ~NngPublisher() override {
        for (const auto &socket : subscribers_) {
            socket->close();
        }
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }
    void publish(int publisher, std::string_view payload) override {
        const Outlet &outlet = publishers_[static_cast<std::size_t>(publisher)];
        require(nng_sendmsg(outlet.socket->get(), messageOf(outlet.topic.prefix(), payload), 0));
    }

private:
    struct Outlet {
        std::unique_ptr<Socket> socket;
        Topic topic;
    };

    static std::string addressOf(int publisher) {
        return "inproc://pub-" + std::to_string(publisher);
    }
    // To a topic, of whichever publishers have it.
    void subscribe(const Shape &shape, int topic, Sink &sink, int number) {
        Socket &socket = *subscribers_.emplace_back(
            std::make_unique<Socket>(static_cast<int (*)(nng_socket *)>(nng_sub0_open)));
        require(nng_socket_set_int(socket.get(), NNG_OPT_RECVBUF, kBuffer));
        require(nng_socket_set(socket.get(), NNG_OPT_SUB_SUBSCRIBE, Topic{topic}.text(), kPrefix));
        for (int i = topic; i < shape.publishers; i += shape.topics) {
            socket.dial(addressOf(i).c_str());
        }
        threads_.emplace_back([&socket, &sink, number] { hear(socket, sink, number); });
    }
    static void hear(const Socket &socket, Sink &sink, int number) {
        for (nng_msg *message = nullptr; nng_recvmsg(socket.get(), &message, 0) == 0;) {
            const auto *const data = static_cast<const char *>(nng_msg_body(message));
            sink.receive(number, data + kPrefix, nng_msg_len(message) - kPrefix);
            nng_msg_free(message);
        }
    }

    std::vector<Outlet> publishers_;
    std::vector<std::unique_ptr<Socket>> subscribers_;
    std::vector<std::thread> threads_;
};

template <bool Device>
std::unique_ptr<Caller> caller(const Shape &shape) {
    return std::make_unique<NngCaller<Device>>(shape);
}
std::unique_ptr<Publisher> publisher(const Shape &shape, Sink &sink) {
    return std::make_unique<NngPublisher>(shape, sink);
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"nng direct",
               caller<false>,
               publisher,
               {"call-2", "publish-64", "publish-1M", "latency-1k", "fanout-8", "fanout-64",
                "fanout-256", "publish-4-to-1", "publish-4-pairs"},
               {}},
        System{"nng device", caller<true>, nullptr, {"call-2"}, {}}};
    return bench::run(argc, argv, systems);
}
