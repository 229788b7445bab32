// What a bus is made with, and what calls on it give. Included by zelvo/bus.hpp.
#ifndef ZELVO_TYPES_HPP
#define ZELVO_TYPES_HPP
#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Zelvo for C++ needs C++17 (-std=c++17); before that there is zelvo/bus_client.h"
#else

#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelvo {

namespace detail {

// One function for all texts of several parts: each + of strings is another one, or is inlined.
inline std::string concat(std::initializer_list<std::string_view> parts) {
    std::string text;
    for (const std::string_view part : parts) {
        text.append(part);
    }
    return text;
}

} // namespace detail

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
    // No answer; Cause tells why.
    none,
};

// Why a call has ended so.
enum class Cause {
    answered,   // it has been answered
    no_node,    // there is no such node, its queue is full, or the url is no address
    no_handler, // the node has no handler for the path, or one that has thrown
    ring,       // the call would have closed a ring
    timed_out,  // Config::call_timeout, or the time given to call_for, has passed
    left,       // the calling node is leaving the bus, or has left
    // The bus's queue is full or memory is short; of call_async also: its helper could not join.
    lost,
    too_many,   // Config::waiting_calls others wait for a helper, to the same node
    cancelled,  // the caller has let go of it
    unreadable, // what it was answered with is no value of the type that was asked for
    // Of a node that could not be made:
    name_taken, // there is one of that name
    bus_full,   // 2,048 nodes are on the bus, or memory is short
};

[[nodiscard]] inline const char *reason(Cause cause) noexcept {
    switch (cause) {
    case Cause::answered:
        return "answered";
    case Cause::no_node:
        return "no such node, or its queue is full";
    case Cause::no_handler:
        return "no handler for it, or one that has thrown";
    case Cause::ring:
        return "it would have closed a ring";
    case Cause::timed_out:
        return "the time is up";
    case Cause::left:
        return "the calling node has left";
    case Cause::lost:
        return "the bus's queue is full, or memory is short";
    case Cause::too_many:
        return "too many calls wait for the node";
    case Cause::cancelled:
        return "cancelled";
    case Cause::unreadable:
        return "the answer does not decode";
    case Cause::name_taken:
        return "the name is taken";
    case Cause::bus_full:
        return "there are 2,048 nodes, or memory is short";
    }
    return "unknown";
}

// The bus has refused: a bus or node cannot be made, a subscription or a look at the bus has had no
// answer. The reason stands in the log. A mistake of the caller is a std::logic_error instead.
class Error : public std::runtime_error {
public:
    explicit Error(const std::string &what, Cause cause = Cause::lost)
        : std::runtime_error{what},
          cause_{cause} {}
    // What is known about it: timed_out, left, name_taken, bus_full, or lost, for anything else.
    [[nodiscard]] Cause cause() const noexcept { return cause_; }

private:
    Cause cause_;
};

// A message, or the question of a call, that is not a value of the type that its handler takes.
class Unreadable : public Error {
public:
    Unreadable(const std::string &name, std::size_t has, std::size_t wants)
        : Error{detail::concat({"zelvo: ", name, " has ", std::to_string(has),
                                " bytes that are no such value",
                                wants ? ", which has " + std::to_string(wants) : ""}),
                Cause::unreadable},
          topic_{name},
          size_{has},
          expected_{wants} {}
    const std::string &topic() const noexcept { return topic_; } // or the path
    std::size_t size() const noexcept { return size_; }
    std::size_t expected() const noexcept { return expected_; } // 0: there is no one size

private:
    std::string topic_;
    std::size_t size_;
    std::size_t expected_;
};

// What a call gives; a value of its own, independent of the node. The outcome is told from the
// text: a handler that answers {"data":""}, {"data":"not implement"} or {"msg":"not implement"}
// itself, the texts of the bus, looks like a refusal.
struct Answer {
    std::string text; // as it came, also of a refusal; empty for Outcome::none
    Outcome outcome = Outcome::none;
    Cause cause = Cause::lost;

    explicit operator bool() const noexcept { return outcome == Outcome::answered; }
};

// The least level of the lines that the log takes.
enum class Level { everything = 0, verbose = 1, debug = 2, info = 3, warnings = 4, errors = 5 };

// How a bus is made. Each member may be left as it is.
struct Config {
    Level level = Level::warnings;
    // The log file. Empty, or where it cannot be opened: standard output. The log is one for the
    // process: with a second bus only its level changes, and the first bus to end closes it for
    // both, so no line of the other is kept any more. This and home are UTF-8 on Windows; where
    // the text of a std::filesystem::path is a std::string, one can be assigned.
    std::string log{};
    bool append = false;    // to the log file, instead of emptying it
    int log_megabytes = 20; // at which the log file is deleted and begun anew; 0: never
    // The directory of the key store. Empty: the working directory.
    std::string home{};
    // How long a call, a join and a subscription wait for an answer, and for their turn where
    // several threads use one node; 0: without a limit.
    std::chrono::milliseconds call_timeout{0};
    bool stats = false; // whether Node::stats() is answered
    // How many asynchronous calls can be under way at once, and a quarter of them, but one at
    // least, to one node, so that a node which never answers leaves helpers for the others; more
    // wait for their turn. Each is made by a helper: a thread, with a node that is named for the
    // calling one and leaves with it, or when its call has ended. "bus.event" tells of it, too;
    // where more nodes call than there are helpers, they join again and again.
    std::size_t helpers = 16;
    // How many calls to one node may wait for a helper; one more ends at once, with
    // Cause::too_many.
    std::size_t waiting_calls = 1024;
    // Gets what a handler throws, and Unreadable for what reaches none, with the name of the
    // handler's node; runs in that node's thread, so that several may be in it at once. Gets
    // std::bad_alloc too, where the node itself finds no memory; its timers come late then. Empty:
    // a line on standard error. What it throws itself ends there too.
    std::function<void(std::string_view node, std::exception_ptr error)> on_error{};
};

} // namespace zelvo

#endif // C++17

#endif
