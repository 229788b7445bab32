// A bus that runs: what zelvo::Bus and each node hold on to.
#ifndef ZELVO_DETAIL_BUS_HPP
#define ZELVO_DETAIL_BUS_HPP

#include "helpers.hpp"

#include <cstdio>

namespace zelvo::detail {

inline void addPath(std::string &json, const char *member, const std::string &path) {
    if (!path.empty()) {
        json += member;
        appendJson(json, CText{path}.c_str());
    }
}

inline std::string jsonOf(const Config &config) {
    if (config.log_megabytes < 0 || config.call_timeout.count() < 0) {
        throw std::invalid_argument("zelvo: a negative size or time in the configuration");
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
    return json + '}';
}

class BusState {
public:
    explicit BusState(const Config &config)
        : on_error_{config.on_error},
          timeout_{config.call_timeout},
          helpers_{config.helpers, config.waiting_calls, config.call_timeout},
          bus_{busClientNew(jsonOf(config).c_str())} {
        if (!bus_) {
            throw Error("zelvo: no memory for a bus");
        }
        helpers_.begin(bus_);
        Retired::instance(); // made while there is memory
        try {
            loop_.start("zelvo bus", serve, bus_, nullptr);
        } catch (...) {
            busClientDelete(bus_);
            throw;
        }
    }
    BusState(const BusState &) = delete;
    BusState &operator=(const BusState &) = delete;
    ~BusState() {
        helpers_.end();
        loop_.end([](void *bus) { busClientServerExit(static_cast<Zelvo_t *>(bus)); }, nullptr);
        busClientDelete(bus_);
    }

    Zelvo_t *native() const noexcept { return bus_; }
    Helpers &helpers() noexcept { return helpers_; }
    std::chrono::milliseconds timeout() const noexcept { return timeout_; }
    // Whether zelvo::Bus has gone, and the last node is to end the bus.
    bool isLeftToNodes() const noexcept { return left_; }
    void leaveToNodes() noexcept { left_ = true; }

    // ---- who waits for whom ----

    // A node whose calls are looked at, from now on until it is taken out. There are 2,048 at
    // most, looked at only where a node comes or goes.
    struct Caller : Link {
        Caller(const std::string &its, Turns &calls) noexcept : name{its}, turns{calls} {}
        const std::string &name;
        Turns &turns;
    };
    void enter(Caller &caller) noexcept {
        const std::lock_guard lock{nodes_mutex_};
        nodes_.append(caller);
    }
    void takeOut(Caller &caller) noexcept {
        const std::lock_guard lock{nodes_mutex_};
        caller.unlink();
    }
    // Whether the node waits for the answer of the other, or of one that waits for it.
    bool waitsFor(std::string node, const std::string &other) {
        const std::lock_guard lock{nodes_mutex_};
        for (auto *step = nodes_.first(); step; step = nodes_.after(*step)) {
            node = calleeOf(node);
            if (node == other) {
                return true;
            }
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
    // With nodes_mutex_. Of two with the name the later: the other has just left.
    std::string calleeOf(const std::string &node) const {
        const Caller *found = nullptr;
        for (const Caller *caller = nodes_.first(); caller; caller = nodes_.after(*caller)) {
            found = caller->name == node ? caller : found;
        }
        return found ? found->turns.callee() : std::string{};
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
    Helpers helpers_;
    Zelvo_t *const bus_;
    std::atomic<bool> left_{false};
    std::mutex nodes_mutex_;
    Chain<Caller> nodes_;
    Loop loop_;
};
using BusPtr = std::shared_ptr<BusState>;

// Lets go of a bus. The last one to do so stops it; nodes that were destroyed in their own handlers
// have left it before, except where it is a handler that lets go.
inline void release(BusPtr &bus) noexcept {
    if (bus && !insideNode()) {
        Retired::instance().join(bus.get());
    }
    bus.reset();
}

} // namespace zelvo::detail

#endif
