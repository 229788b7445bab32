// What a bus is made with, and what calls on it give. Included by zelvo/bus.hpp.
#ifndef ZELVO_TYPES_HPP
#define ZELVO_TYPES_HPP

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Zelvo for C++ needs C++17 (-std=c++17); before that there is zelvo/bus_client.h"
#else

#include <chrono>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelvo {

// The bus has refused: a bus or node cannot be made, a subscription or a look at the bus has had no
// answer. The reason stands in the log. A mistake of the caller is a std::logic_error instead.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// How a call has ended.
enum class Outcome {
    // A handler, the bus or the key store has answered.
    answered,
    // There is no such node, its queue is full, the url is no address, or the node has no handler
    // for the path, or one that has thrown.
    not_implemented,
    // Refused at once, because it would have closed a ring of nodes that wait for each other; a
    // node that calls itself is the smallest. The topic "bus.error" tells of it.
    ring,
    // No answer: the node is leaving the bus, the bus's queue is full, memory is short, or
    // Config::call_timeout has passed. Of call_async also: its helper could not join the bus.
    none,
};

// What a call gives; a value of its own, independent of the node. The outcome is told from the
// text: a handler that answers {"data":""}, {"data":"not implement"} or {"msg":"not implement"}
// itself, the texts of the bus, looks like a refusal.
struct Answer {
    std::string text; // as it came, also of a refusal; empty for Outcome::none
    Outcome outcome = Outcome::none;

    explicit operator bool() const noexcept { return outcome == Outcome::answered; }
};

// The least level of the lines that the log takes.
enum class Level { everything = 0, verbose = 1, debug = 2, info = 3, warnings = 4, errors = 5 };

// How a bus is made. Each member may be left as it is.
struct Config {
    Level level = Level::warnings;
    // The log file. Empty, or where it cannot be opened: standard output. The log is one for the
    // process: with a second bus only its level changes.
    std::filesystem::path log;
    bool append = false;    // to the log file, instead of emptying it
    int log_megabytes = 20; // at which the log file is deleted and begun anew; 0: never
    // The directory of the key store. Empty: the working directory.
    std::filesystem::path home;
    // How long a call, a join and a subscription wait for an answer; 0: without a limit.
    std::chrono::milliseconds call_timeout{0};
    bool stats = false; // whether Node::stats() is answered
    // How many asynchronous calls can be under way at once; more of them wait for their turn. Each
    // is made by a helper: a thread and a node of its own, which is made when it is needed first
    // and stays with the bus.
    std::size_t helpers = 16;
    // Gets what a handler throws, with the name of the handler's node; runs in that node's thread.
    // Gets std::bad_alloc too, where the node itself finds no memory; its timers come late then.
    // Empty: a line on standard error. What it throws itself ends there too.
    std::function<void(std::string_view node, std::exception_ptr error)> on_error;
};

} // namespace zelvo

#endif // C++17

#endif
