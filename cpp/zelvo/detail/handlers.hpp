// What users give the face to run, and the handlers of a node by topic and by path.
#ifndef ZELVO_DETAIL_HANDLERS_HPP
#define ZELVO_DETAIL_HANDLERS_HPP

#include "text.hpp"

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace zelvo::detail {

// ---- how a handler may look ----

using View = std::string_view;
using Text = std::string;

template <class Run>
constexpr bool takesData() {
    return std::is_invocable_v<Run &, View> || std::is_invocable_v<Run &, Text> ||
           std::is_invocable_v<Run &>;
}
template <class Run>
constexpr bool takesNameAndData() {
    return std::is_invocable_v<Run &, View, View> || std::is_invocable_v<Run &, View, Text> ||
           std::is_invocable_v<Run &, Text, View> || std::is_invocable_v<Run &, Text, Text>;
}
template <class Run>
inline constexpr bool kIsHandler = takesNameAndData<Run>() || takesData<Run>();

// Refuses what can't be run.
template <class Run>
void require(const Run &) noexcept {}
inline void requireThat(bool there) {
    if (!there) {
        throw std::invalid_argument("zelvo: a function is missing");
    }
}
template <class Signature>
void require(const std::function<Signature> &run) {
    requireThat(static_cast<bool>(run));
}
template <class Value, class... Arguments>
void require(Value (*const &run)(Arguments...)) {
    requireThat(run != nullptr);
}

// What a handler that takes strings gets; it may give a view of them.
struct Copies {
    Text name;
    Text data;
};
// Runs what takes a topic or a path and data, or data alone, or nothing; as views or as strings.
template <class Run>
decltype(auto) runWith(Run &run, View name, View data, Copies &copies) {
    const auto nameCopy = [&]() -> Text && { return std::move(copies.name = name); };
    const auto dataCopy = [&]() -> Text && { return std::move(copies.data = data); };
    if constexpr (std::is_invocable_v<Run &, View, View>) {
        return run(name, data);
    } else if constexpr (std::is_invocable_v<Run &, View, Text>) {
        return run(name, dataCopy());
    } else if constexpr (std::is_invocable_v<Run &, Text, View>) {
        return run(nameCopy(), data);
    } else if constexpr (std::is_invocable_v<Run &, Text, Text>) {
        return run(nameCopy(), dataCopy());
    } else if constexpr (std::is_invocable_v<Run &, View>) {
        return run(data);
    } else if constexpr (std::is_invocable_v<Run &, Text>) {
        return run(dataCopy());
    } else {
        return run();
    }
}
template <class Run>
using ResultOf =
    std::decay_t<decltype(runWith(std::declval<Run &>(), {}, {}, std::declval<Copies &>()))>;

template <class Run>
constexpr bool answers() {
    if constexpr (kIsHandler<Run>) {
        return isAnswer<ResultOf<Run>>();
    } else {
        return false;
    }
}

// ---- handlers ----

// A user's handler: of topics, or of a path, for which it sets the answer.
class Handler {
public:
    Handler() = default;
    Handler(const Handler &) = delete;
    Handler &operator=(const Handler &) = delete;
    virtual ~Handler() = default;
    virtual void run(View name, View data, char *&answer) = 0;

    std::atomic<bool> cancelled{false}; // it is not run any more
};
using HandlerPtr = std::shared_ptr<Handler>;

template <class Run>
class HandlerOf final : public Handler {
public:
    explicit HandlerOf(Run &&run) : run_{std::move(run)} {}
    void run(View name, View data, char *&answer) override { run_(name, data, answer); }

private:
    Run run_;
};
// run(name, data, answer)
template <class Run>
HandlerPtr handlerOf(Run run) {
    return std::make_shared<HandlerOf<Run>>(std::move(run));
}

template <class Run>
HandlerPtr subscriber(Run run) {
    return handlerOf([run = std::move(run)](View topic, View data, char *&) mutable {
        Copies copies;
        runWith(run, topic, data, copies);
    });
}
template <class Run>
HandlerPtr answerer(Run run) {
    return handlerOf([run = std::move(run)](View path, View data, char *&answer) mutable {
        Copies copies;
        using Value = ResultOf<Run>;
        if constexpr (std::is_void_v<Value>) {
            runWith(run, path, data, copies);
            answer = answerText({});
        } else {
            answer = answerOf<Value>(runWith(run, path, data, copies));
        }
    });
}

// ---- the handlers of a node ----

// A step from one set of handlers to another.
struct Change {
    enum class Kind { add, remove, set };
    Kind kind;
    std::vector<std::string> names;
    // To be added to the topics, or removed from them: all of theirs, where it is null. To be set
    // for a path: none any more, where it is null.
    HandlerPtr handler;
};

// Only the node's own thread looks at them, and changes them between two messages: so a handler
// that runs stays whole, and finding one takes no lock.
class Handlers {
public:
    void make(const Change &change) {
        latest_ = nullptr;
        for (const std::string &name : change.names) {
            switch (change.kind) {
            case Change::Kind::add:
                topics_[name].push_back(change.handler);
                break;
            case Change::Kind::remove:
                remove(name, change.handler);
                break;
            case Change::Kind::set:
                set(name, change.handler);
                break;
            }
        }
    }

    // In the order in which they have been added; null: there is none. Mostly the topic is that of
    // the message before.
    const std::vector<HandlerPtr> *ofTopic(View topic) {
        if (!latest_ || latest_->first != topic) {
            const auto found = topics_.find(topic);
            if (found == topics_.end()) {
                return nullptr;
            }
            latest_ = &*found;
        }
        return &latest_->second;
    }
    // Null: there is none.
    Handler *ofPath(View path) const {
        auto found = paths_.find(path);
        found = found == paths_.end() ? paths_.find(View{}) : found;
        return found == paths_.end() ? nullptr : found->second.get();
    }

private:
    void remove(const std::string &topic, const HandlerPtr &handler) {
        const auto found = topics_.find(topic);
        if (found == topics_.end()) {
            return;
        }
        auto &list = found->second;
        list.erase(handler ? std::remove(list.begin(), list.end(), handler) : list.begin(),
                   list.end());
        if (list.empty()) {
            topics_.erase(found);
        }
    }
    void set(const std::string &path, const HandlerPtr &handler) {
        if (handler) {
            paths_[path] = handler;
        } else {
            paths_.erase(path);
        }
    }

    using Topics = std::map<std::string, std::vector<HandlerPtr>, std::less<>>;
    Topics topics_;
    const Topics::value_type *latest_ = nullptr;           // that has been asked for
    std::map<std::string, HandlerPtr, std::less<>> paths_; // "": of every other path
};

// What a node has subscribed to with the bus, and for which handlers.
class Subscriptions {
public:
    std::vector<std::string> notIn(const std::vector<std::string> &topics) const {
        std::vector<std::string> missing;
        for (const std::string &topic : topics) {
            if (handlers_.find(topic) == handlers_.end()) {
                missing.push_back(topic);
            }
        }
        return missing;
    }
    void add(const std::vector<std::string> &topics, const Handler &handler) {
        for (const std::string &topic : topics) {
            handlers_[topic].push_back(&handler);
        }
    }
    void removeAll(const std::vector<std::string> &topics) {
        for (const std::string &topic : topics) {
            handlers_.erase(topic);
        }
    }
    // Whether the handler was there. last gets the topics that have none any more.
    bool remove(const std::vector<std::string> &topics, const Handler &handler,
                std::vector<std::string> &last) {
        bool was = false;
        for (const std::string &topic : topics) {
            const auto found = handlers_.find(topic);
            if (found == handlers_.end()) {
                continue;
            }
            auto &list = found->second;
            const auto place = std::find(list.begin(), list.end(), &handler);
            if (place == list.end()) {
                continue;
            }
            was = true;
            list.erase(place);
            if (list.empty()) {
                last.push_back(topic);
                handlers_.erase(found);
            }
        }
        return was;
    }

private:
    std::map<std::string, std::vector<const Handler *>> handlers_;
};

} // namespace zelvo::detail

#endif
