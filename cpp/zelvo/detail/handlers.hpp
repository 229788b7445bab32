// What users give the face to run, and the handlers of a node by topic and by path.
#ifndef ZELVO_DETAIL_HANDLERS_HPP
#define ZELVO_DETAIL_HANDLERS_HPP

#include "chain.hpp"
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

class NodeState;

// ---- how a handler may look ----

using View = std::string_view;
using Text = std::string;

// Asked in the order in which takes() does, and no further than it does: what is generic may be
// wrong for strings.
template <class Run>
inline constexpr bool kIsHandler =
    std::disjunction_v<std::is_invocable<Run &, View, View>, std::is_invocable<Run &, View, Text>,
                       std::is_invocable<Run &, Text, View>, std::is_invocable<Run &, Text, Text>,
                       std::is_invocable<Run &, View>, std::is_invocable<Run &, Text>,
                       std::is_invocable<Run &>>;

template <class Run, class = void>
inline constexpr bool kMayBeNull = false;
template <class Run>
inline constexpr bool
    kMayBeNull<Run, std::void_t<decltype(std::declval<const Run &>() == nullptr)>> = true;

// Refuses what can't be run: a pointer to no function, a std::function that holds none, and the
// like.
template <class Run>
void require(const Run &run) {
    if constexpr (kMayBeNull<Run>) {
        if (run == nullptr) {
            throw std::invalid_argument("zelvo: a function is missing");
        }
    }
}

// What a handler that takes strings gets; it may give a view of them.
struct Copies {
    Text name;
    Text data;
};
struct NoCopies {};
// What std::bind gives takes more than it passes on, so it would get a name for its data.
template <class Run>
using TakesName = std::negation<std::conjunction<
    std::is_bind_expression<Run>,
    std::disjunction<std::is_invocable<Run &, View>, std::is_invocable<Run &, Text>>>>;
enum class Takes { views, viewAndText, textAndView, texts, view, text, nothing };
// A topic or a path and data, or data alone, or nothing; as views or as strings.
template <class Run>
constexpr Takes takes() {
    using Named = TakesName<Run>;
    if constexpr (std::conjunction_v<Named, std::is_invocable<Run &, View, View>>) {
        return Takes::views;
    } else if constexpr (std::conjunction_v<Named, std::is_invocable<Run &, View, Text>>) {
        return Takes::viewAndText;
    } else if constexpr (std::conjunction_v<Named, std::is_invocable<Run &, Text, View>>) {
        return Takes::textAndView;
    } else if constexpr (std::conjunction_v<Named, std::is_invocable<Run &, Text, Text>>) {
        return Takes::texts;
    } else if constexpr (std::is_invocable_v<Run &, View>) {
        return Takes::view;
    } else if constexpr (std::is_invocable_v<Run &, Text>) {
        return Takes::text;
    } else {
        return Takes::nothing;
    }
}
// Two strings that nobody looks at cost each message some instructions.
template <class Run>
using CopiesFor = std::conditional_t<takes<Run>() == Takes::views || takes<Run>() == Takes::view ||
                                         takes<Run>() == Takes::nothing,
                                     NoCopies, Copies>;
template <class Run>
decltype(auto) runWith(Run &run, View name, View data, CopiesFor<Run> &copies) {
    constexpr Takes kTakes = takes<Run>();
    if constexpr (kTakes == Takes::views) {
        return run(name, data);
    } else if constexpr (kTakes == Takes::viewAndText) {
        return run(name, std::move(copies.data = data));
    } else if constexpr (kTakes == Takes::textAndView) {
        return run(std::move(copies.name = name), data);
    } else if constexpr (kTakes == Takes::texts) {
        return run(std::move(copies.name = name), std::move(copies.data = data));
    } else if constexpr (kTakes == Takes::view) {
        return run(data);
    } else if constexpr (kTakes == Takes::text) {
        return run(std::move(copies.data = data));
    } else {
        return run();
    }
}
template <class Run>
using ResultOf = std::decay_t<decltype(runWith(std::declval<Run &>(), {}, {},
                                               std::declval<CopiesFor<Run> &>()))>;

template <class Run>
constexpr bool answers() {
    if constexpr (kIsHandler<Run>) {
        return isAnswer<ResultOf<Run>>();
    } else {
        return false;
    }
}

// ---- handlers ----

// A user's handler: of topics, or of a path.
class Handler {
public:
    Handler() = default;
    Handler(const Handler &) = delete;
    Handler &operator=(const Handler &) = delete;
    ZELVO_RARE virtual ~Handler() = default; // out of line, as each user's handler has it
    // The answer to a call; null: none.
    virtual char *run(View name, View data) = 0;
    // Told of what does not decode.
    void cannotRead(View name, std::size_t size, std::size_t expected) const;

    std::atomic<bool> cancelled{false}; // it is not run any more
    // Set once, before the node gets it.
    std::weak_ptr<NodeState> node;
    std::vector<std::string> names; // its topics, each once, or its path
};
using HandlerPtr = std::shared_ptr<Handler>;

// All are held by one kind of pointer, and moved once from where the user has given them: both cost
// time to compile, for each handler.
inline HandlerPtr held(Handler *handler) {
    return HandlerPtr{handler};
}

template <class Run>
class TopicHandler final : public Handler {
public:
    explicit TopicHandler(Run &run) : run_{std::move(run)} {}
    char *run(View topic, View data) override {
        CopiesFor<Run> copies;
        static_cast<void>(runWith(run_, topic, data, copies));
        return nullptr;
    }

private:
    Run run_;
};

template <class Run>
class PathHandler final : public Handler {
public:
    explicit PathHandler(Run &run) : run_{std::move(run)} {}
    char *run(View path, View data) override {
        CopiesFor<Run> copies;
        using Value = ResultOf<Run>;
        if constexpr (std::is_void_v<Value>) {
            runWith(run_, path, data, copies);
            return answerText({});
        } else {
            return answerOf<Value>(runWith(run_, path, data, copies));
        }
    }

private:
    Run run_;
};

// ---- the handlers of a node ----

// Those of one name in the order in which they have been added. All that hold handlers by name are
// of this one type: each further one costs every user time to compile.
using HandlersByName = std::multimap<std::string, HandlerPtr, std::less<>>;

// Without those that come again; to sort them costs every user more time to compile.
inline std::vector<std::string> eachOnce(const std::vector<std::string> &names) {
    HandlersByName seen;
    std::vector<std::string> once;
    for (const std::string &name : names) {
        if (seen.find(name) == seen.end()) {
            seen.emplace(name, nullptr);
            once.push_back(std::string{name});
        }
    }
    return once;
}

// A step from one set of handlers to another.
struct Change : Link {
    enum class Kind { add, remove, set };
    Kind kind;
    // To be added to its topics, removed from them, or set for its path. Null: all of the names go.
    HandlerPtr handler;
    std::vector<std::string> names;
    std::size_t made = 0; // of its names
};

// Only the node's own thread looks at them, and changes them between two messages: so a handler
// that runs stays whole, and finding one takes no lock.
class Handlers {
public:
    using Entry = HandlersByName::value_type;
    // So many from the first on.
    struct Row {
        HandlersByName::const_iterator first;
        std::size_t count;
    };

    Handlers() = default;
    Handlers(const Handlers &) = delete;
    Handlers &operator=(const Handlers &) = delete;
    ~Handlers() = default;

    // Can be gone on with where memory was short.
    ZELVO_RARE void make(Change &change) {
        forgetLatest();
        const auto &names = change.handler ? change.handler->names : change.names;
        for (; change.made != names.size(); ++change.made) {
            const std::string &name = names[change.made];
            switch (change.kind) {
            case Change::Kind::add:
                topics_.emplace(name, change.handler);
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

    Row ofTopic(View topic) {
        if (latest_.count == 0 || latest_.first->first != topic) {
            const auto [first, last] = topics_.equal_range(topic);
            latest_ = {first, static_cast<std::size_t>(std::distance(first, last))};
            only_ = latest_.count == 1 ? &*first : nullptr;
        }
        return latest_;
    }
    // Where the topic is that of the message before, as mostly, and has one handler. Null: ask
    // further.
    const Entry *onlyOfTopic(const char *topic) const noexcept {
        return only_ && std::strcmp(only_->first.c_str(), topic) == 0 ? only_ : nullptr;
    }
    // Null: there is none.
    Handler *ofPath(View path) const {
        auto found = paths_.find(path);
        found = found == paths_.end() ? paths_.find(View{}) : found;
        return found == paths_.end() ? nullptr : found->second.get();
    }
    std::pair<HandlersByName, HandlersByName> takeAll() noexcept {
        forgetLatest();
        return {std::move(topics_), std::move(paths_)};
    }

private:
    void forgetLatest() noexcept {
        latest_ = {};
        only_ = nullptr;
    }
    void remove(const std::string &topic, const HandlerPtr &handler) {
        auto [entry, end] = topics_.equal_range(topic);
        while (entry != end) {
            entry = !handler || entry->second == handler ? topics_.erase(entry) : std::next(entry);
        }
    }
    void set(const std::string &path, const HandlerPtr &handler) {
        const auto found = paths_.find(path);
        if (!handler) {
            paths_.erase(path);
        } else if (found == paths_.end()) {
            paths_.emplace(path, handler);
        } else {
            found->second = handler;
        }
    }

    HandlersByName topics_;
    Row latest_{};                // that has been asked for
    const Entry *only_ = nullptr; // its entry, where there is one
    HandlersByName paths_;        // "": of every other path
};

// What a node has subscribed to with the bus, and for which handlers. It keeps none of them.
class Subscriptions {
public:
    // Those of the handler's topics that no handler has yet, as JSON; "" for none.
    std::string freshOf(const Handler &handler) const {
        std::string fresh;
        for (const std::string &topic : handler.names) {
            if (handlers_.find(topic) == handlers_.end()) {
                appendItem(fresh, topic);
            }
        }
        return fresh;
    }
    void add(Handler &handler) {
        for (const std::string &topic : handler.names) {
            handlers_.emplace(topic, HandlerPtr{HandlerPtr{}, &handler});
        }
    }
    void removeAll(const std::vector<std::string> &topics) {
        for (const std::string &topic : topics) {
            handlers_.erase(topic);
        }
    }
    // The same of those that this one has and no other.
    std::string onlyOf(const Handler &handler) const {
        std::string only;
        for (const std::string &topic : handler.names) {
            const auto [entry, end] = handlers_.equal_range(topic);
            if (entry != end && entry->second.get() == &handler && std::next(entry) == end) {
                appendItem(only, topic);
            }
        }
        return only;
    }
    // Whether the handler was there.
    bool remove(const Handler &handler) {
        bool was = false;
        for (const std::string &topic : handler.names) {
            auto [entry, end] = handlers_.equal_range(topic);
            while (entry != end && entry->second.get() != &handler) {
                ++entry;
            }
            if (entry != end) {
                was = true;
                handlers_.erase(entry);
            }
        }
        return was;
    }

private:
    HandlersByName handlers_;
};

} // namespace zelvo::detail

#endif
