// A bus that runs: what zelvo::Bus and each node hold on to.
#ifndef ZELVO_DETAIL_BUS_HPP
#define ZELVO_DETAIL_BUS_HPP

#include "call.hpp"
#include "loop.hpp"

#include <cstdio>

namespace zelvo::detail {

inline void addPath(std::string &json, const char *member, const std::filesystem::path &path) {
    const auto text = path.generic_u8string(); // of bytes or of char8_t
    const std::string bytes(text.begin(), text.end());
    json += member;
    appendJson(json, CText{bytes}.c_str());
}

inline std::string jsonOf(const Config &config) {
    if (config.log_megabytes < 0 || config.call_timeout.count() < 0) {
        throw std::invalid_argument("zelvo: a negative size or time in the configuration");
    }
    const long long timeout =
        config.call_timeout.count() < INT_MAX ? config.call_timeout.count() : INT_MAX;
    std::string json = "{\"level\":" + std::to_string(static_cast<int>(config.level)) +
                       ",\"mode\":" + (config.append ? "1" : "0") +
                       ",\"size\":" + std::to_string(config.log_megabytes) +
                       ",\"callTimeout\":" + std::to_string(timeout) +
                       ",\"stats\":" + (config.stats ? "true" : "false");
    if (!config.log.empty()) {
        addPath(json, ",\"path\":", config.log);
    }
    if (!config.home.empty()) {
        addPath(json, ",\"homePath\":", config.home);
    }
    return json + '}';
}

class BusState {
public:
    explicit BusState(const Config &config)
        : bus_{busClientNew(jsonOf(config).c_str())},
          helpers_{bus_, config.helpers},
          on_error_{config.on_error} {
        if (!bus_) {
            throw Error("zelvo: no memory for a bus");
        }
        try {
            loop_.start([](void *bus) { busClientBindServer(static_cast<Zelvo_t *>(bus)); }, bus_,
                        nullptr);
        } catch (...) {
            busClientDelete(bus_);
            throw;
        }
    }
    BusState(const BusState &) = delete;
    BusState &operator=(const BusState &) = delete;
    ~BusState() {
        helpers_.end();
        loop_.end([](void *bus) { busClientServerExit(static_cast<Zelvo_t *>(bus)); });
        busClientDelete(bus_);
    }

    Zelvo_t *native() const noexcept { return bus_; }
    Helpers &helpers() noexcept { return helpers_; }
    // Whether zelvo::Bus has gone, and the last node is to end the bus.
    bool isLeftToNodes() const noexcept { return left_; }
    void leaveToNodes() noexcept { left_ = true; }

    // What a handler has thrown.
    void report(const std::string &node, const std::exception_ptr &error) const noexcept {
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
    static void print(const std::string &node, const std::exception_ptr &error) noexcept {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception &failure) {
            std::fprintf(stderr, "zelvo: a handler of node %s has thrown: %s\n", node.c_str(),
                         failure.what());
        } catch (...) {
            std::fprintf(stderr, "zelvo: a handler of node %s has thrown\n", node.c_str());
        }
    }

    Zelvo_t *const bus_;
    Helpers helpers_;
    const std::function<void(std::string_view, std::exception_ptr)> on_error_;
    std::atomic<bool> left_{false};
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
