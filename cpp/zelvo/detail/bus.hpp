// A bus that runs: what zelvo::Bus and each node hold on to.
#ifndef ZELVO_DETAIL_BUS_HPP
#define ZELVO_DETAIL_BUS_HPP

#include "helpers.hpp"
#include "hop.hpp"

#include <cstdio>
#include <utility>

namespace zelvo::detail {

inline void addPath(std::string &json, const char *member, const std::string &path) {
    if (!path.empty()) {
        json += member;
        appendJson(json, CText{path}.c_str());
    }
}

inline std::string jsonOf(const Config &config) {
    if (config.log_megabytes < 0 || config.call_timeout.count() < 0) {
        refuse("zelvo: a negative size or time in the configuration");
    }
    const long long timeout =
        config.call_timeout.count() < INT_MAX ? config.call_timeout.count() : INT_MAX;
    char numbers[128]; // enough for the largest
    std::snprintf(numbers, sizeof numbers,
                  R"({"level":%d,"mode":%d,"size":%d,"callTimeout":%lld,"stats":%s)",
                  static_cast<int>(config.level), config.append ? 1 : 0, config.log_megabytes,
                  timeout, config.stats ? "true" : "false");
    std::string json = numbers;
    addPath(json, ",\"path\":", config.log);
    addPath(json, ",\"homePath\":", config.home);
    json += '}';
    return json;
}

// Owns a thing, or none. It gets to know how to destroy one with the thing: who makes none compiles
// none of it.
template <class Thing>
class Box {
public:
    Box() = default;
    Box(const Box &) = delete;
    Box &operator=(const Box &) = delete;
    ~Box() { clear(); }
    void hold(Thing *thing) noexcept { // where there is none
        destroy_ = [](Thing *its) { delete its; };
        thing_ = thing;
    }
    void clear() noexcept {
        if (thing_) {
            destroy_(std::exchange(thing_, nullptr));
        }
    }
    explicit operator bool() const noexcept { return thing_ != nullptr; }
    Thing &operator*() const noexcept { return *thing_; }
    Thing *operator->() const noexcept { return thing_; }

private:
    Thing *thing_ = nullptr;
    void (*destroy_)(Thing *) = nullptr;
};

class BusState {
public:
    // How a node has a helper make a call that has to end at that time.
    using HandOver = Answer (*)(NodeState &node, Clock::time_point end, const char *url,
                                std::string_view data);

    // handing: null for a bus without call_timeout, whose programs need not compile it.
    BusState(const Config &config, HandOver handing)
        : on_error_{config.on_error},
          timeout_{config.call_timeout},
          most_helpers_{config.helpers},
          most_waiting_{config.waiting_calls},
          hand_over_{config.helpers > 0 ? handing : nullptr},
          bus_{busClientNew(jsonOf(config).c_str())} {
        if (!bus_) {
            throw Error("zelvo: no memory for a bus");
        }
        try {
            Retired::instance(); // made while there is memory
            loop_.start("zelvo bus", serve, bus_, nullptr);
        } catch (...) {
            busClientDelete(bus_);
            throw;
        }
    }
    BusState(const BusState &) = delete;
    BusState &operator=(const BusState &) = delete;
    ZELVO_RARE ~BusState() {
        helpers_.clear();
        loop_.end([](void *bus) { busClientServerExit(static_cast<Zelvo_t *>(bus)); }, nullptr);
        busClientDelete(bus_);
    }

    Zelvo_t *native() const noexcept { return bus_; }
    // Made when they are first asked for.
    Helpers &helpers() {
        const std::lock_guard lock{helpers_mutex_};
        if (!helpers_) {
            helpers_.hold(new Helpers{bus_, names_, most_helpers_, most_waiting_, timeout_});
        }
        return *helpers_;
    }
    HelperNames &helperNames() noexcept { return names_; }
    HandOver handOver() const noexcept { return hand_over_; } // or null
    std::chrono::milliseconds timeout() const noexcept { return timeout_; }
    // Whether zelvo::Bus has gone, and the last node is to end the bus.
    bool isLeftToNodes() const noexcept { return left_; }
    void leaveToNodes() noexcept { left_ = true; }

    // ---- who waits for whom ----

    // A node whose calls are looked at, from now on until it is taken out. There are 2,048 at
    // most, looked at only where a node comes or goes.
    struct Caller : Link {
        Caller(const std::string &its, Turns &calls, Hops *loop) noexcept
            : name{its},
              turns{calls},
              hops{loop} {}
        // Told by what all modules of a program share: where each has these functions, each has
        // its own thread_local variables.
        bool isHandledHere() const noexcept {
            return thread == std::this_thread::get_id() || (hops && hops->runsHere());
        }
        const std::string &name;
        Turns &turns;
        Hops *const hops;         // or null
        std::thread::id thread{}; // the node's, once that has begun
    };
    void enter(Caller &caller) noexcept {
        const std::lock_guard lock{nodes_mutex_};
        nodes_.append(caller);
    }
    void begin(Caller &caller) noexcept {
        const std::lock_guard lock{nodes_mutex_};
        caller.thread = std::this_thread::get_id();
    }
    void takeOut(Caller &caller) noexcept {
        const std::lock_guard lock{nodes_mutex_};
        caller.unlink();
    }
    // Whether the node waits for the answer of one whose handler this thread runs, or of one that
    // waits for it.
    ZELVO_RARE bool waitsForThisThread(const Caller &node) noexcept {
        const std::lock_guard lock{nodes_mutex_};
        const Caller *at = calleeOf(node);
        for (auto *step = nodes_.first(); step && at; step = nodes_.after(*step)) {
            if (at->isHandledHere()) {
                return true;
            }
            at = calleeOf(*at);
        }
        return false;
    }

    // What a handler has thrown.
    ZELVO_RARE void report(const std::string &node,
                           const std::exception_ptr &error) const noexcept {
        if (on_error_) {
            try {
                on_error_(node, error);
                return;
            } catch (...) { // there is nobody left to tell but the user
                print(node, std::current_exception());
                return;
            }
        }
        print(node, error);
    }

private:
    // With nodes_mutex_; or null. Of two with the name the later: the other has just left.
    const Caller *calleeOf(const Caller &node) const noexcept {
        const Caller *found = nullptr;
        for (const Caller *caller = nodes_.first(); caller; caller = nodes_.after(*caller)) {
            found = node.turns.areTo(caller->name) ? caller : found;
        }
        return found;
    }

    static void serve(void *bus) { busClientBindServer(static_cast<Zelvo_t *>(bus)); }
    static void print(const std::string &node, const std::exception_ptr &error) noexcept {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception &failure) {
            std::fprintf(stderr, "zelvo: node %s: %s\n", node.c_str(), failure.what());
        } catch (...) {
            std::fprintf(stderr, "zelvo: node %s: a handler has thrown\n", node.c_str());
        }
    }

    const std::function<void(std::string_view, std::exception_ptr)> on_error_;
    const std::chrono::milliseconds timeout_;
    const std::size_t most_helpers_;
    const std::size_t most_waiting_;
    const HandOver hand_over_;
    Zelvo_t *const bus_;
    HelperNames names_;
    std::atomic<bool> left_{false};
    std::mutex nodes_mutex_;
    Chain<Caller> nodes_;
    std::mutex helpers_mutex_;
    Box<Helpers> helpers_;
    Loop loop_;
};
using BusPtr = std::shared_ptr<BusState>;

// Lets go of a bus. The last one to do so stops it; nodes that were destroyed in their own handlers
// have left it before, except where it is a handler that lets go.
ZELVO_RARE inline void release(BusPtr &bus) noexcept {
    if (!insideNode()) {
        Retired::instance().join(bus.get());
    }
    bus.reset();
}

} // namespace zelvo::detail

#endif
