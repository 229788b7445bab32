// Zelvo through its C++ header: the cells that show what that costs, and asynchronous calls.
#include "scenario.h"

#include <zelvo/bus.hpp>

#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <thread>

#include <poll.h>

namespace {

using namespace bench;

// As in zelvo.cpp.
zelvo::Config config() {
    zelvo::Config config;
    config.level = zelvo::Level::info;
    config.log = "zelvo.log";
    return config;
}

class FaceCaller final : public Caller {
public:
    explicit FaceCaller(const Shape & /*shape*/) {
        callee_.on_call("/answer", [](std::string_view) { return std::string{kAnswer}; });
    }
    std::size_t call() override { return caller_.call("/node-b/answer", kRequest).text.size(); }

private:
    zelvo::Bus bus_{config()};
    zelvo::Node callee_{bus_, "node-b"};
    zelvo::Node caller_{bus_, "node-a"};
};

class FacePublisher final : public Publisher {
public:
    FacePublisher(const Shape &shape, Sink &sink) {
        for (int i = 0; i < shape.publishers; ++i) {
            publishers_.push_back(
                {zelvo::Node{bus_, "publisher-" + std::to_string(i)}, Topic{i % shape.topics}});
        }
        for (int topic = 0; topic < shape.topics; ++topic) {
            for (int i = 0; i < shape.subscribers; ++i) {
                const std::string name = "subscriber-" + std::to_string(subscribers_.size());
                subscribers_.emplace_back(bus_, name)
                    .subscribe(Topic{topic}.text(), [&sink, i](std::string_view data) {
                        sink.receive(i, data.data(), data.size());
                    });
            }
        }
    }
    void publish(int publisher, std::string_view payload) override {
        const Outlet &outlet = publishers_[static_cast<std::size_t>(publisher)];
        outlet.node.publish(outlet.topic.text(), payload);
    }

private:
    struct Outlet {
        zelvo::Node node;
        Topic topic;
    };

    zelvo::Bus bus_{config()};
    std::vector<Outlet> publishers_;
    std::deque<zelvo::Node> subscribers_;
};

std::unique_ptr<Caller> caller(const Shape &shape) {
    return std::make_unique<FaceCaller>(shape);
}
std::unique_ptr<Publisher> publisher(const Shape &shape, Sink &sink) {
    return std::make_unique<FacePublisher>(shape, sink);
}

// As FacePublisher, but what travels is a struct: by a typed topic, or as bytes that the handler
// copies into one itself.
template <bool kTyped>
class StructPublisher final : public Publisher {
public:
    StructPublisher(const Shape & /*shape*/, Sink &sink) {
        const auto receive = [&sink](const Payload &payload) {
            sink.receive(0, payload.data, sizeof payload.data);
        };
        if constexpr (kTyped) {
            subscriber_.subscribe(kTopic, receive);
        } else {
            subscriber_.subscribe(kTopic.name(), [receive](std::string_view data) {
                Payload payload;
                if (data.size() == sizeof payload) {
                    std::memcpy(&payload, data.data(), sizeof payload);
                    receive(payload);
                }
            });
        }
    }
    void publish(int /*publisher*/, std::string_view payload) override {
        if constexpr (kTyped) { // both are bytes, and as many
            publisher_.publish(kTopic, *reinterpret_cast<const Payload *>(payload.data()));
        } else {
            publisher_.publish(kTopic.name(), payload);
        }
    }

private:
    struct Payload {
        char data[64];
    };
    static constexpr zelvo::Topic<Payload> kTopic{"measured0"};

    zelvo::Bus bus_{config()};
    zelvo::Node publisher_{bus_, "publisher-0"};
    zelvo::Node subscriber_{bus_, "subscriber-0"};
};
template <bool kTyped>
std::unique_ptr<Publisher> structPublisher(const Shape &shape, Sink &sink) {
    return std::make_unique<StructPublisher<kTyped>>(shape, sink);
}

// Calls to a node whose handlers run in another thread's loop.
Result callHop(int milliseconds) {
    const zelvo::Bus bus{config()};
    zelvo::PolledNode called{bus, "called"};
    called.on_call("/answer", [] { return kAnswer; });
    const zelvo::Node caller{bus, "caller"};
    std::atomic<bool> over{false};
    std::thread loop{[&] {
        pollfd wait{called.fd(), POLLIN, 0};
        while (!over) {
            poll(&wait, 1, 100);
            called.dispatch();
        }
    }};
    const Result result =
        repeat(milliseconds, [&] { requireAnswer(caller.call("/called/answer").text.size()); });
    over = true;
    loop.join();
    return result;
}

// Calls from one node to 16 others at once, each of which takes a millisecond.
Result async16(int milliseconds) {
    constexpr std::size_t count = 16;
    const zelvo::Bus bus{config()};
    const zelvo::Node caller{bus, "caller"};
    std::deque<zelvo::Node> called;
    std::vector<std::string> urls;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = "called-" + std::to_string(i);
        called.emplace_back(bus, name).on_call("/answer", [](std::string_view) {
            std::this_thread::sleep_for(std::chrono::milliseconds{1});
            return std::string{kAnswer};
        });
        urls.push_back("/" + name + "/answer");
    }
    return repeat(milliseconds, [&] {
        std::array<std::future<zelvo::Answer>, count> answers;
        for (std::size_t i = 0; i < count; ++i) {
            answers[i] = caller.call_async(urls[i], kRequest);
        }
        for (auto &answer : answers) {
            requireAnswer(answer.get().text.size());
        }
    });
}

} // namespace

int main(int argc, char **argv) {
    const std::array systems{
        System{"Zelvo C++",
               caller,
               publisher,
               {"call-2", "publish-64", "publish-4-to-1", "publish-4-pairs"},
               {{"async-16", async16}, {"call-hop", callHop}}},
        System{"Zelvo C++ typed", nullptr, structPublisher<true>, {"publish-64"}, {}},
        System{"Zelvo C++ bytes", nullptr, structPublisher<false>, {"publish-64"}, {}}};
    return bench::run(argc, argv, systems);
}
