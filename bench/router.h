// The in-process router that many programs write for themselves: named nodes, each with a queue and
// a thread, and one thread that takes every message and looks its target up. Queue decides how the
// threads wait for each other: it has push(MessageRef) and MessageRef pop(), which blocks.
#ifndef BENCH_ROUTER_H
#define BENCH_ROUTER_H

#include "scenario.h"

#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace bench {

struct Message {
    enum class Action { publication, request, answer };
    Action action;
    std::string from;
    std::string to; // a node's name, or a topic
    std::string payload;
};
// Null asks a thread to end.
using MessageRef = std::shared_ptr<const Message>;

enum class Lookup { kIndex, kScan };

template <typename Queue>
class Router {
public:
    struct Node {
        std::string name;
        std::vector<std::string> topics;
        Queue inbox;
        std::function<void(const Message &)> handler;
        std::thread thread;
    };

    explicit Router(Lookup lookup) : lookup_{lookup} {
        thread_ = std::thread([this] { route(); });
    }
    Router(const Router &) = delete;
    Router &operator=(const Router &) = delete;
    ~Router() {
        queue_.push(nullptr);
        thread_.join();
        for (const auto &node : nodes_) {
            if (node->thread.joinable()) {
                node->inbox.push(nullptr);
                node->thread.join();
            }
        }
    }

    // A node without a handler has no thread: its owner takes from its inbox.
    Node &join(std::string name, std::vector<std::string> topics,
               std::function<void(const Message &)> handler = nullptr) {
        const std::lock_guard lock{mutex_};
        Node &node = *nodes_.emplace_back(std::make_unique<Node>());
        node.name = std::move(name);
        node.topics = std::move(topics);
        node.handler = std::move(handler);
        if (!byName_.emplace(node.name, &node).second) {
            throw std::runtime_error("the name is taken");
        }
        for (const std::string &topic : node.topics) {
            byTopic_[topic].push_back(&node);
        }
        if (node.handler) {
            node.thread = std::thread([&node] {
                while (const MessageRef message = node.inbox.pop()) {
                    node.handler(*message);
                }
            });
        }
        return node;
    }

    void post(Message::Action action, const Node &from, std::string_view to,
              std::string_view payload) {
        queue_.push(std::make_shared<Message>(
            Message{action, from.name, std::string{to}, std::string{payload}}));
    }

private:
    void route() {
        while (const MessageRef message = queue_.pop()) {
            const std::lock_guard lock{mutex_};
            const bool publication = message->action == Message::Action::publication;
            if (lookup_ == Lookup::kScan) {
                publication ? publishByScan(message) : sendByScan(message);
            } else {
                publication ? publishByIndex(message) : sendByIndex(message);
            }
        }
    }
    void publishByIndex(const MessageRef &message) {
        if (const auto found = byTopic_.find(message->to); found != byTopic_.end()) {
            for (Node *const node : found->second) {
                node->inbox.push(message);
            }
        }
    }
    void sendByIndex(const MessageRef &message) {
        if (const auto found = byName_.find(message->to); found != byName_.end()) {
            found->second->inbox.push(message);
        }
    }
    void publishByScan(const MessageRef &message) {
        for (const auto &node : nodes_) {
            for (const std::string &topic : node->topics) {
                if (topic == message->to) {
                    node->inbox.push(message);
                    break;
                }
            }
        }
    }
    void sendByScan(const MessageRef &message) {
        for (const auto &node : nodes_) {
            if (node->name == message->to) {
                node->inbox.push(message);
                return;
            }
        }
    }

    const Lookup lookup_;
    Queue queue_;
    std::mutex mutex_; // of the nodes and the indexes
    std::vector<std::unique_ptr<Node>> nodes_;
    std::unordered_map<std::string, Node *> byName_;
    std::unordered_map<std::string, std::vector<Node *>> byTopic_;
    std::thread thread_;
};

template <typename Queue>
void joinOthers(Router<Queue> &router, const Shape &shape) {
    for (int i = 0; i < shape.others; ++i) {
        std::vector<std::string> topics;
        for (int topic = 0; topic < shape.otherTopics; ++topic) {
            topics.push_back(std::to_string(i) + "." + std::to_string(topic));
        }
        router.join("other-" + std::to_string(i), std::move(topics));
    }
}

template <typename Queue, Lookup lookup = Lookup::kIndex>
class RouterCaller final : public Caller {
public:
    explicit RouterCaller(const Shape &shape) {
        joinOthers(router_, shape);
        auto &callee = router_.join("node-b", {}, [this](const Message &request) {
            router_.post(Message::Action::answer, *callee_, request.from, kAnswer);
        });
        callee_ = &callee;
    }
    std::size_t call() override {
        router_.post(Message::Action::request, caller_, "node-b", kRequest);
        return caller_.inbox.pop()->payload.size();
    }

private:
    using Node = typename Router<Queue>::Node;
    Node *callee_ = nullptr;
    Router<Queue> router_{lookup};
    Node &caller_ = router_.join("node-a", {});
};

template <typename Queue, Lookup lookup = Lookup::kIndex>
class RouterPublisher final : public Publisher {
public:
    RouterPublisher(const Shape &shape, Sink &sink) {
        joinOthers(router_, shape);
        for (int i = 0; i < shape.publishers; ++i) {
            publishers_.push_back(
                {router_.join("publisher-" + std::to_string(i), {}), Topic{i % shape.topics}});
        }
        int number = 0;
        for (int topic = 0; topic < shape.topics; ++topic) {
            for (int i = 0; i < shape.subscribers; ++i) {
                router_.join("subscriber-" + std::to_string(number++), {Topic{topic}.text()},
                             [&sink, i](const Message &message) {
                                 sink.receive(i, message.payload.data(), message.payload.size());
                             });
            }
        }
    }
    void publish(int publisher, std::string_view payload) override {
        const Outlet &outlet = publishers_[static_cast<std::size_t>(publisher)];
        router_.post(Message::Action::publication, outlet.node, outlet.topic.name(), payload);
    }

private:
    struct Outlet {
        typename Router<Queue>::Node &node;
        Topic topic;
    };

    Router<Queue> router_{lookup};
    std::vector<Outlet> publishers_;
};

template <typename Queue, Lookup lookup = Lookup::kIndex>
std::unique_ptr<Caller> routerCaller(const Shape &shape) {
    return std::make_unique<RouterCaller<Queue, lookup>>(shape);
}

template <typename Queue, Lookup lookup = Lookup::kIndex>
std::unique_ptr<Publisher> routerPublisher(const Shape &shape, Sink &sink) {
    return std::make_unique<RouterPublisher<Queue, lookup>>(shape, sink);
}

} // namespace bench

#endif
