// What users give the face to run, and the handlers of a node by topic and by path.
#ifndef ZELVO_DETAIL_HANDLERS_HPP
#define ZELVO_DETAIL_HANDLERS_HPP

#include "chain.hpp"
#include "text.hpp"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <set>
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

// A topic or a path and data, or data alone, or nothing; as views or as strings. Asked in this
// order, and no further than to the first: what is generic may be wrong for strings.
enum class Takes { views, viewAndText, textAndView, texts, view, text, nothing, other };
template <class Run>
constexpr Takes takesOfData() {
    if constexpr (std::is_invocable_v<Run &, View>) {
        return Takes::view;
    } else if constexpr (std::is_invocable_v<Run &, Text>) {
        return Takes::text;
    } else {
        return std::is_invocable_v<Run &> ? Takes::nothing : Takes::other;
    }
}
// What std::bind gives takes more than it passes on, so it would get a name for its data.
template <class Run>
constexpr bool takesNoName() {
    if constexpr (std::is_bind_expression_v<Run>) {
        return takesOfData<Run>() == Takes::view || takesOfData<Run>() == Takes::text;
    } else {
        return false;
    }
}
template <class Run>
constexpr Takes takesOfAll() {
    if constexpr (std::is_invocable_v<Run &, View, View>) {
        return Takes::views;
    } else if constexpr (std::is_invocable_v<Run &, View, Text>) {
        return Takes::viewAndText;
    } else if constexpr (std::is_invocable_v<Run &, Text, View>) {
        return Takes::textAndView;
    } else if constexpr (std::is_invocable_v<Run &, Text, Text>) {
        return Takes::texts;
    } else {
        return takesOfData<Run>();
    }
}
template <class Run>
constexpr Takes takes() {
    if constexpr (takesNoName<Run>()) {
        return takesOfData<Run>();
    } else {
        return takesOfAll<Run>();
    }
}
template <class Run>
inline constexpr bool kIsHandler = takes<Run>() != Takes::other;

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
            refuse("zelvo: a function is missing");
        }
    }
}

// What a handler that takes strings gets; it may give a view of them.
struct Copies {
    Text name;
    Text data;
};
struct NoCopies {};
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

struct NamedHandler {
    std::string name; // what they are ordered by
    mutable HandlerPtr handler;
};
struct ByName {
    using is_transparent = void;
    bool operator()(const NamedHandler &one, const NamedHandler &other) const noexcept {
        return one.name < other.name;
    }
    bool operator()(const NamedHandler &one, View name) const noexcept { return one.name < name; }
};
// Those of one name in the order in which they have been added. All that hold handlers by name are
// of this one type, and used by the few functions below: each further one costs every user time
// to compile.
using HandlersByName = std::multiset<NamedHandler, ByName>;

// The first of the name; where there is none, what comes after it.
ZELVO_APART inline HandlersByName::const_iterator firstOf(const HandlersByName &handlers,
                                                          View name) noexcept {
    return handlers.lower_bound(name);
}
// So many from the first on.
struct Row {
    HandlersByName::const_iterator first;
    std::size_t count;
};
// Counts no further than most.
inline Row rowOf(const HandlersByName &handlers, View name, std::size_t most) noexcept {
    Row row{firstOf(handlers, name), 0};
    for (auto at = row.first; row.count != most && at != handlers.end() && at->name == name; ++at) {
        ++row.count;
    }
    return row;
}
inline void addTo(HandlersByName &handlers, const std::string &name, const HandlerPtr &handler) {
    handlers.insert(NamedHandler{name, handler});
}
// handler: null for all of the name; it stands there once. Whether there was one.
inline bool removeFrom(HandlersByName &handlers, View name, const Handler *handler) noexcept {
    bool was = false;
    auto at = firstOf(handlers, name);
    while (at != handlers.end() && at->name == name && !(was && handler)) {
        const auto its = at++;
        if (!handler || its->handler.get() == handler) {
            handlers.erase(its);
            was = true;
        }
    }
    return was;
}

// Without those that come again; to sort them costs every user more time to compile.
inline std::vector<std::string> eachOnce(const std::vector<std::string> &names) {
    HandlersByName seen;
    std::vector<std::string> once;
    for (const std::string &name : names) {
        if (rowOf(seen, name, 1).count == 0) {
            addTo(seen, name, nullptr);
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
                addTo(topics_, name, change.handler);
                break;
            case Change::Kind::remove:
                removeFrom(topics_, name, change.handler.get());
                break;
            case Change::Kind::set:
                set(name, change.handler);
                break;
            }
        }
    }

    Row ofTopic(View topic) noexcept {
        if (latest_.count == 0 || latest_.first->name != topic) {
            latest_ = rowOf(topics_, topic, topics_.size());
            only_ = latest_.count == 1 ? &*latest_.first : nullptr;
        }
        return latest_;
    }
    // Where the topic is that of the message before, as mostly, and has one handler. Null: ask
    // further.
    const NamedHandler *onlyOfTopic(const char *topic) const noexcept {
        return only_ && std::strcmp(only_->name.c_str(), topic) == 0 ? only_ : nullptr;
    }
    // Null: there is none.
    Handler *ofPath(View path) const noexcept {
        Row row = rowOf(paths_, path, 1);
        if (row.count == 0) {
            row = rowOf(paths_, {}, 1);
        }
        return row.count == 0 ? nullptr : row.first->handler.get();
    }
    void takeAll(HandlersByName &topics, HandlersByName &paths) noexcept { // which are empty
        forgetLatest();
        topics.swap(topics_);
        paths.swap(paths_);
    }

private:
    void forgetLatest() noexcept {
        latest_ = {};
        only_ = nullptr;
    }
    void set(const std::string &path, const HandlerPtr &handler) {
        const Row former = rowOf(paths_, path, 1);
        if (!handler) {
            removeFrom(paths_, path, nullptr);
        } else if (former.count == 0) {
            addTo(paths_, path, handler);
        } else {
            former.first->handler = handler;
        }
    }

    HandlersByName topics_;
    Row latest_{};                       // that has been asked for
    const NamedHandler *only_ = nullptr; // where there is one
    HandlersByName paths_;               // "": of every other path
};

// What a node has subscribed to with the bus, and for which handlers. It keeps none of them.
class Subscriptions {
public:
    // Those of the handler's topics that no handler has yet, as JSON; "" for none.
    std::string freshOf(const Handler &handler) const {
        std::string fresh;
        for (const std::string &topic : handler.names) {
            if (rowOf(handlers_, topic, 1).count == 0) {
                appendItem(fresh, topic);
            }
        }
        return fresh;
    }
    void add(Handler &handler) {
        for (const std::string &topic : handler.names) {
            addTo(handlers_, topic, HandlerPtr{HandlerPtr{}, &handler});
        }
    }
    void removeAll(const std::vector<std::string> &topics) noexcept {
        for (const std::string &topic : topics) {
            removeFrom(handlers_, topic, nullptr);
        }
    }
    // The same of those that this one has and no other.
    std::string onlyOf(const Handler &handler) const {
        std::string only;
        for (const std::string &topic : handler.names) {
            const Row row = rowOf(handlers_, topic, 2);
            if (row.count == 1 && row.first->handler.get() == &handler) {
                appendItem(only, topic);
            }
        }
        return only;
    }
    // Whether the handler was there.
    bool remove(const Handler &handler) noexcept {
        bool was = false;
        for (const std::string &topic : handler.names) {
            was = removeFrom(handlers_, topic, &handler) || was;
        }
        return was;
    }

private:
    HandlersByName handlers_;
};

} // namespace zelvo::detail

#endif
