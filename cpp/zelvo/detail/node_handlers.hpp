// What a node hears and answers: its handlers, and what the bus knows of them.
#ifndef ZELVO_DETAIL_NODE_HANDLERS_HPP
#define ZELVO_DETAIL_NODE_HANDLERS_HPP

#include "node_state.hpp"

namespace zelvo::detail {

inline void NodeState::change(Change::Kind kind, const HandlerPtr &handler,
                              std::vector<std::string> names) {
    constexpr std::size_t kMany = 16;
    auto *const made = new Change{{}, kind, handler, std::move(names)};
    const std::lock_guard lock{mutex_};
    changes_.append(*made);
    attention_ = true;
    if (++change_count_ >= kMany) {
        wake();
    }
}

// What the node does and what the bus does change in one turn, so that they do not come apart
// where several threads make changes.
inline void NodeState::subscribe(const HandlerPtr &handler) {
    constexpr const char *url = "/bus/subscribe";
    handler->node = weak_from_this();
    const Turn turn{*this, url};
    if (!turn.owned()) {
        throw noAnswerError(url, noTurn());
    }
    const std::string fresh = subscriptions_.freshOf(*handler);
    try {
        subscriptions_.add(*handler);
        change(Change::Kind::add, handler); // it is there before the first message
        const Cause cause = gone_           ? Cause::left
                            : fresh.empty() ? Cause::answered
                                            : askIn(turn, url, fresh).cause;
        if (cause != Cause::answered) {
            throw noAnswerError(url, cause);
        }
    } catch (...) {
        handler->cancelled = true;
        subscriptions_.remove(*handler);
        change(Change::Kind::remove, handler);
        throw;
    }
}

inline void NodeState::unsubscribe(const std::vector<std::string> &topics) {
    constexpr const char *url = "/bus/unsubscribe";
    const std::string json = jsonArray(topics);
    const Turn turn{*this, url};
    change(Change::Kind::remove, nullptr, topics);
    if (turn.owned()) {
        subscriptions_.removeAll(topics);
    }
    const Cause cause = turn.owned() ? askIn(turn, url, json).cause : noTurn();
    if (cause != Cause::answered) {
        throw noAnswerError(url, cause);
    }
}

inline bool NodeState::cancel(const HandlerPtr &handler) {
    if (handler->cancelled.exchange(true)) {
        return false;
    }
    constexpr const char *url = "/bus/unsubscribe";
    const Turn turn{*this, url};
    std::string last;
    try { // of memory that is short
        if (turn.owned()) {
            last = subscriptions_.onlyOf(*handler);
        }
        change(Change::Kind::remove, handler);
    } catch (...) {
        handler->cancelled = false;
        throw;
    }
    if (!turn.owned()) {
        return !leaving_;
    }
    const bool was = subscriptions_.remove(*handler);
    if (!last.empty()) {
        askIn(turn, url, last); // or what comes has no handler
    }
    return was && !leaving_;
}

inline void NodeState::setPath(const char *path, const HandlerPtr &handler) {
    std::vector<std::string> names;
    names.push_back(path);
    if (handler) {
        handler->node = weak_from_this();
        handler->names.swap(names);
    }
    change(Change::Kind::set, handler, std::move(names));
}

// NOLINTNEXTLINE(readability-non-const-parameter): the type is given
inline int NodeState::onMessage(void *userdata, client_t * /*client*/, char *topic, char *data,
                                int length) noexcept {
    of(userdata).guarded<const char *>(&NodeState::hear, topic, viewOf(data, length));
    return 0;
}

inline void NodeState::hear(const char *topic, std::string_view data) noexcept {
    if (const NamedHandler *const only = handlers_.onlyOfTopic(topic)) {
        tell(*only, data);
    } else {
        hearAll(topic, data);
    }
}

ZELVO_RARE inline void NodeState::hearAll(const char *topic, std::string_view data) noexcept {
    Row row = handlers_.ofTopic(topic);
    for (; row.count != 0; --row.count) {
        tell(*row.first++, data);
    }
}

inline void NodeState::tell(const NamedHandler &named, std::string_view data) noexcept {
    Handler &handler = *named.handler;
    if (!handler.cancelled.load(std::memory_order_relaxed) && !leaving_) {
        reported([&] { handler.run(named.name, data); });
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
    explicit ValueHandler(Run &run) : run_{std::move(run)} {}
    char *run(View topic, View data) override {
        if (!runDecoded<Value>(data, run_)) {
            cannotRead(topic, data.size(), SizeOf<Value>::value);
        }
        return nullptr;
    }

private:
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
    explicit ServiceHandler(Run &run) : run_{std::move(run)} {}
    char *run(View path, View data) override {
        auto question = decoded<Question>(data);
        if (!question) {
            cannotRead(path, data.size(), SizeOf<Question>::value);
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
    Run run_;
};

} // namespace zelvo::detail

#endif
