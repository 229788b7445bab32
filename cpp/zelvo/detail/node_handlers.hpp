// What a node hears and answers: its handlers, and what the bus knows of them.
#ifndef ZELVO_DETAIL_NODE_HANDLERS_HPP
#define ZELVO_DETAIL_NODE_HANDLERS_HPP

#include "node_state.hpp"

namespace zelvo::detail {

inline void NodeState::change(Change::Kind kind, const std::vector<std::string> &names,
                              HandlerPtr handler) {
    constexpr std::size_t kMany = 16;
    auto *const made = new Change{{}, kind, names, std::move(handler)};
    const std::lock_guard lock{mutex_};
    changes_.append(*made);
    attention_ = true;
    if (++change_count_ >= kMany) {
        wake();
    }
}

// What the node does and what the bus does change in one turn, so that they do not come apart
// where several threads make changes.
inline void NodeState::subscribe(const std::vector<std::string> &topics,
                                 const HandlerPtr &handler) {
    constexpr const char *url = "/bus/subscribe";
    const auto keep = shared_from_this();
    const Deadline deadline = deadlineAfter(timeout_);
    const Turn turn{turns_, url, deadline};
    if (!turn.owned()) {
        throw noAnswerError(url, noTurn());
    }
    const std::vector<std::string> fresh = subscriptions_.notIn(topics);
    const std::string json = jsonArray(fresh);
    try {
        subscriptions_.add(topics, *handler);
        change(Change::Kind::add, topics, handler); // it is there before the first message
        const Cause cause = gone_           ? Cause::left
                            : fresh.empty() ? Cause::answered
                                            : askInTurn(url, json, deadline).cause;
        if (cause != Cause::answered) {
            throw noAnswerError(url, cause);
        }
    } catch (...) {
        handler->cancelled = true;
        subscriptions_.remove(topics, *handler);
        change(Change::Kind::remove, topics, handler);
        throw;
    }
}

inline void NodeState::unsubscribe(const std::vector<std::string> &topics) {
    constexpr const char *url = "/bus/unsubscribe";
    const std::string json = jsonArray(topics);
    const auto keep = shared_from_this();
    const Deadline deadline = deadlineAfter(timeout_);
    const Turn turn{turns_, url, deadline};
    change(Change::Kind::remove, topics, nullptr);
    if (turn.owned()) {
        subscriptions_.removeAll(topics);
    }
    const Cause cause = turn.owned() ? askInTurn(url, json, deadline).cause : noTurn();
    if (cause != Cause::answered) {
        throw noAnswerError(url, cause);
    }
}

inline bool NodeState::cancel(const HandlerPtr &handler, const std::vector<std::string> &topics) {
    if (handler->cancelled.exchange(true)) {
        return false;
    }
    constexpr const char *url = "/bus/unsubscribe";
    const auto keep = shared_from_this();
    const Deadline deadline = deadlineAfter(timeout_);
    const Turn turn{turns_, url, deadline};
    std::vector<std::string> last;
    std::string json;
    try { // of memory that is short
        if (turn.owned()) {
            last = subscriptions_.onlyOf(topics, *handler);
            json = jsonArray(last);
        }
        change(Change::Kind::remove, topics, handler);
    } catch (...) {
        handler->cancelled = false;
        throw;
    }
    if (!turn.owned()) {
        return !leaving_;
    }
    const bool was = subscriptions_.remove(topics, *handler);
    if (!last.empty()) {
        askInTurn(url, json, deadline); // or what comes has no handler
    }
    return was && !leaving_;
}

inline void NodeState::setPath(const std::string &path, HandlerPtr handler) {
    change(Change::Kind::set, {path}, std::move(handler));
}

// NOLINTNEXTLINE(readability-non-const-parameter): the type is given
inline int NodeState::onMessage(void *userdata, client_t * /*client*/, char *topic, char *data,
                                int length) noexcept {
    of(userdata).guarded<const char *>(&NodeState::hear, topic, viewOf(data, length));
    return 0;
}

inline void NodeState::hear(const char *topic, std::string_view data) noexcept {
    if (const Handlers::Entry *const only = handlers_.onlyOfTopic(topic)) {
        tell(*only, data);
    } else {
        hearAll(topic, data);
    }
}

ZELVO_RARE inline void NodeState::hearAll(const char *topic, std::string_view data) noexcept {
    Handlers::Row row = handlers_.ofTopic(topic);
    for (; row.count != 0; --row.count) {
        tell(*row.first++, data);
    }
}

inline void NodeState::tell(const Handlers::Entry &entry, std::string_view data) noexcept {
    Handler &handler = *entry.second;
    if (!handler.cancelled.load(std::memory_order_relaxed) && !leaving_) {
        reported([&] { handler.run(entry.first, data); });
    }
}

inline char *NodeState::onCall(void *userdata, client_t * /*client*/, char *url, char *data,
                               int length) noexcept {
    char *answer = nullptr;
    of(userdata).guarded<const char *>(&NodeState::answer, url, viewOf(data, length), &answer);
    return answer;
}

inline void NodeState::answer(const char *url, std::string_view data, char **answer) noexcept {
    const std::string_view path = std::string_view{url}.substr(1 + name_.size());
    if (Handler *const handler = handlers_.ofPath(path)) {
        reported([&] { *answer = handler->run(path, data); });
    }
}

// Hears a topic whose messages are values.
template <class Value, class Run>
class ValueHandler final : public Handler {
public:
    ValueHandler(NodeState &node, Run &run) : node_{node}, run_{std::move(run)} {}
    char *run(View topic, View data) override {
        if (!runDecoded<Value>(data, run_)) {
            node_.noteUnreadable(topic, data.size(), SizeOf<Value>::value);
        }
        return nullptr;
    }

private:
    NodeState &node_;
    Run run_;
};

// Whether what a handler gives is a value of the type, or would become one as an argument does.
template <class Given, class Reply>
inline constexpr bool kKeeps = !std::is_arithmetic_v<Reply> || !kLoses<Given, Reply>;
template <class Given, class Reply>
inline constexpr bool kKeeps<std::optional<Given>, Reply> = kKeeps<Given, Reply>;
template <class Reply, class Run, class Question>
constexpr bool gives() {
    if constexpr (std::is_invocable_r_v<std::optional<Reply>, Run &, Question>) {
        return takesWhole<Run, Question>() &&
               kKeeps<std::decay_t<std::invoke_result_t<Run &, Question>>, Reply>;
    } else {
        return false;
    }
}

// Answers the calls of a service.
template <class Question, class Reply, class Run>
class ServiceHandler final : public Handler {
public:
    ServiceHandler(NodeState &node, Run &run) : node_{node}, run_{std::move(run)} {}
    char *run(View path, View data) override {
        auto question = decoded<Question>(data);
        if (!question) {
            node_.noteUnreadable(path, data.size(), SizeOf<Question>::value);
            return nullptr;
        }
        const std::optional<Reply> reply = run_(std::move(*question));
        if (!reply) {
            return nullptr;
        }
        std::string space;
        const View bytes = Codec<Reply>::encode(*reply, space);
        return answerText(withoutNul(bytes, isRefusal(bytes)));
    }

private:
    NodeState &node_;
    Run run_;
};

} // namespace zelvo::detail

#endif
