#include "node.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <pthread.h>

namespace zelvo_mqtt {

std::thread startThread(std::function<void()> body) {
    struct Blocked {
        sigset_t before{};
        Blocked() {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &before);
        }
        Blocked(const Blocked &) = delete;
        Blocked &operator=(const Blocked &) = delete;
        ~Blocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    };
    const Blocked blocked; // the new thread inherits it
    return std::thread{std::move(body)};
}

Node::Node(Common &common, const std::string &name, onmessage_callback onMessage,
           oncall_callback onCall, void *userdata)
    : client_{busClientConnect(common.bus, name.c_str(), onMessage, onCall, userdata)} {
    if (!client_) {
        throw OpenError{"the node " + name + " can't join the bus: its log says why"};
    }
    // A join that found the bus's queue full is lost without a word; such a node can't call.
    if (!busClientCall(client_.get(), "/bus/unsubscribe", R"(["bus.event"])", 13)) {
        throw OpenError{"the node " + name + " can't join the bus, which is overloaded"};
    }
    common.nodes.push_back(this);
    thread_ = startThread([this] {
        busClientSpin(client_.get());
        end_.set_value();
    });
}

Node::~Node() {
    leave(Clock::time_point::max());
}

// busClientSubscribe would not say that it was lost.
void Node::ask(const char *url, const std::string &topics) {
    if (!busClientCall(client_.get(), url, topics.data(), static_cast<int>(topics.size()))) {
        throw OpenError{"the bus takes no subscription: its log says why"};
    }
}

void Node::askToLeave() {
    if (thread_.joinable()) {
        busClientSpinExit(client_.get());
    }
}

bool Node::leave(Clock::time_point until) {
    constexpr std::chrono::milliseconds again{20}; // a full queue drops the request
    while (thread_.joinable()) {
        askToLeave();
        if (ended_.wait_until(std::min(until, Clock::now() + again)) == std::future_status::ready) {
            thread_.join();
        } else if (Clock::now() >= until) {
            return false;
        }
    }
    return true;
}

char *mallocText(std::string_view text) {
    auto *const copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy) {
        std::memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
    }
    return copy;
}

} // namespace zelvo_mqtt
