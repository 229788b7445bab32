// The scenario: nodes that do what is chosen at random, and the program's own count of it.
#ifndef ZELVO_STRESS_NODE_H
#define ZELVO_STRESS_NODE_H

#include "../test_support.h"

#include "memory_faults.h"

#include <zelvo/bus_client.h>

#include <algorithm>
#include <map>
#include <memory>

namespace stress {

using Count = std::atomic<std::int64_t>;
using memory::lib;

inline Count faults{0};

// Where it does not hold it is a fault: of whom, and what.
inline void expect(bool holds, const std::string &name, const char *what) {
    if (!holds) {
        ++faults;
        std::fprintf(stderr, "fault: %s, %s\n", name.c_str(), what);
    }
}

// A thread that chooses, independently of all others. Its publications are numbered, so that their
// order can be checked.
struct Actor {
    explicit Actor(std::uint64_t seed) : id{seed}, generator{seed} {}

    unsigned below(std::size_t limit) { return static_cast<unsigned>(generator() % limit); }
    bool oneIn(unsigned times) { return below(times) == 0; }
    std::string topic() { return "topic" + std::to_string(below(6)); }
    unsigned size() { return below(oneIn(50) ? 65536 : 100); }

    const std::uint64_t id;
    std::mt19937_64 generator;
    std::uint64_t published = 0;
};

// Of the program; the head of stress.cpp describes them.
inline std::map<std::string, std::int64_t> options{{"--seconds", 10},
                                                   {"--deliveries", 0},
                                                   {"--refused", 0},
                                                   {"--resident", 0},
                                                   {"--from", 1},
                                                   {"--every", 1},
                                                   {"--seed", std::random_device{}()}};

class Node;

// A phase: what it is like, of any kind or short and with something of everything, what its threads
// share, and what all nodes together have done.
struct World {
    std::shared_ptr<Node> at(unsigned slot) {
        const std::lock_guard lock{mutex};
        return slots[slot];
    }

    Actor by; // that chooses all this
    const std::int64_t refused = options["--refused"];
    const std::int64_t deliveries = options["--deliveries"]; // of the proof at the end
    const bool any = refused == 0 && deliveries == 0;
    const int call_timeout = any && by.oneIn(2) ? 1 << by.below(8) : 0; // 0: none
    const int level = refused > 0 ? 0 : any &&by.oneIn(8) ? 1 : 4;      // of the log
    const unsigned workers = any ? 2 + by.below(4) : 2;     // threads that choose what to do
    const unsigned steps = any ? 200 + by.below(1500) : 40; // of each worker
    const bool restarts = any && by.oneIn(2);               // the bus ends and is run again
    const bool unspun = !any || by.oneIn(2);                // nodes that are never run come and go
    const bool floods = any && by.oneIn(3);                 // queues get full
    // The bus is deleted while it runs. Only a loop that is entered for sure may be met by that.
    const bool delete_while = any && !restarts && by.oneIn(2);
    const bool calm = any && call_timeout == 0 && !restarts && !unspun;

    std::vector<std::shared_ptr<Node>> slots{any ? 2 + by.below(14) : 4};
    std::mutex mutex{}; // of the slots
    Zelvo_t *bus = nullptr;
    std::atomic<bool> quiet{false}; // handlers do nothing any more
    Count posted{0}, maybe{0};      // messages for the bus, and what may have been one more
    Count handled{0}, heard{0};     // messages and calls, and actors' publications among them
};

// Closed by its last user. Where the bus has not taken it, it does nothing.
class Node {
public:
    // Any thread calls through it, so none may read its answers; or one does: its own thread, or in
    // quiet its maker's; or it is never run, and its maker's alone.
    enum Kind { kShared, kPrivate, kUnspun };

    Node(World &world, std::string name, Kind kind, std::uint64_t seed)
        : world_{world},
          name_{std::move(name)},
          kind_{kind},
          self_{seed},
          client_{lib(busClientConnect, world.bus, name_.c_str(),
                      onmessage_callback{handler<&Node::hear>},
                      oncall_callback{handler<&Node::answer>}, this)} {
        world.posted += client_ ? 2 : 0; // the join and a subscription
        world.maybe += 2; // a join in vain; or a leave, which may have to wake the bus
        if (client_ && kind != kUnspun) {
            thread_ = std::thread{[this] {
                lib(busClientSpin, client_);
                ended_.set();
            }};
        }
    }
    ~Node() {
        using namespace std::chrono_literals;
        if (thread_.joinable()) {
            setTimer(isShared() ? 2 : kNever);
            // In quiet every timer fires, and the last of them has to wake the node.
            while (world_.quiet && !world_.floods && timers_ != 0 && !ended_.wait(1ms)) {}
            // Again where the request finds a full queue, and only there.
            for (end(); !ended_.wait(world_.floods ? 20ms : kLimit); end()) {}
            thread_.join();
        }
        lib(busClientClose, client_);
    }

    bool isShared() const { return kind_ == kShared; }
    void end() { lib(busClientSpinExit, client_); }

    // Something that actor chooses.
    void act(Actor &actor) {
        // Half of the time one of the first four, and of these two flood.
        constexpr void (*kOperations[])(Node &, Actor &) = {
            [](Node &node, Actor &by) { node.publish(by, by.topic(), by.oneIn(10)); },
            [](Node &node, Actor &by) { node.setTimer(by.below(5)); },
            [](Node &node, Actor &by) { node.callNodes(by); },
            [](Node &node, Actor &by) { node.change(busClientSubscribe, by.topic()); },
            [](Node &node, Actor &by) { node.change(busClientUnsubscribe, by.topic()); },
            [](Node &node, Actor &by) { node.change(busClientRemoveSticky, by.topic()); },
            [](Node &node, Actor &) { node.killTimer(); },
            [](Node &node, Actor &) { node.call("/localKeys/kept", kKept); },
            [](Node &node, Actor &) { node.call("/bus/nodes"); },
            [](Node &node, Actor &) { node.call("/bus/stats"); },
            [](Node &node, Actor &) { node.call("no address"); },
            [](Node &node, Actor &by) { node.call(by.oneIn(8) ? "/bus/disjoin" : "/bus/join"); },
        };
        const unsigned chosen = actor.below(actor.oneIn(2) ? 4 : std::size(kOperations));
        const bool floods = world_.floods && chosen < 2 && actor.oneIn(60);
        for (unsigned left = client_ ? (floods ? 3000 : 1) : 0; left > 0; --left) {
            kOperations[chosen](*this, actor);
        }
    }
    // Empty: no answer, or one that may not be read.
    std::string call(const std::string &url, const std::string &data = {}) {
        world_.posted += client_ ? 1 : 0;
        world_.maybe += url == "/bus/join" ? 1 : 0; // a node that is off the bus subscribes as well
        const char *const answer =
            lib(busClientCall, client_, url.c_str(), data.c_str(), static_cast<int>(data.size()));
        return answer && !isShared() ? answer : "";
    }
    // A sticky message may come again, and late, so it has no number.
    void publish(Actor &by, const std::string &topic, bool sticky = false) {
        const unsigned size = by.size();
        std::vector<std::uint64_t> words(2 + size / 8, sticky ? 0 : ++by.published);
        words[0] = by.id;
        ++world_.posted;
        lib(sticky ? busClientPublishSticky : busClientPublish, client_, topic.c_str(),
            reinterpret_cast<const char *>(words.data()), static_cast<int>(words.size() * 8));
    }
    // By one of three functions. May be refused for want of memory alone, and posts nothing then.
    void change(int (*topics)(client_t *, const char *), const std::string &topic) {
        const bool done = lib(topics, client_, ("[\"" + topic + "\"]").c_str()) == 0;
        world_.posted += done ? 1 : 0;
        expect(done || world_.refused > 0, name_, "may not change its topics");
    }

private:
    static constexpr long kNever = 1000000; // milliseconds; no phase lives to see that
    static constexpr const char *kKept = R"({"operation":"set","data":"kept","persist":"true"})";

    // A handler of the library's: runs one of those below.
    template <auto kHandler, typename Result, typename... Args>
    static Result handler(void *node, client_t * /*client*/, Args... args) {
        const memory::Side own{std::exchange(memory::inLibrary, false)};
        auto &self = *static_cast<Node *>(node);
        const Result result = (self.*kHandler)(args...);
        if (!self.world_.quiet && self.self_.oneIn(8)) {
            self.act(self.self_);
        }
        return result;
    }
    int hear(char *topic, char *data, int len) {
        ++world_.handled;
        if (!says(topic, "bus.")) {
            ++world_.heard;
            std::vector<std::uint64_t> words(static_cast<unsigned>(len) / 8);
            std::memcpy(words.data(), data, words.size() * 8);
            const auto same = std::count(words.begin() + 1, words.end(), words[1]);
            auto &last = last_heard_[words[0]];
            const bool later = words[1] == 0 || std::exchange(last, words[1]) < words[1];
            expect(later && same + 1 == std::ssize(words), name_, "a message is late or spoilt");
        }
        return 0;
    }
    // The path is the rest of the way: names, then "end". The answer is what has been said.
    char *answer(char *url, char *data, int len) {
        ++world_.handled;
        ++world_.posted;
        const std::string rest = std::strchr(url + 1, '/');
        if (rest != "/end") {
            call(rest);
        }
        return mallocText({data, static_cast<unsigned>(len)});
    }
    int fire(int /*type*/) {
        --timers_;
        return 0;
    }

    // Along one to five nodes: chains, rings, itself, nobody.
    void callNodes(Actor &by) {
        std::string url;
        for (unsigned left = 1 + by.below(5); left > 0; --left) {
            const std::string slot = "n" + std::to_string(by.below(std::size(world_.slots)));
            const std::string names[] = {name_, "same", slot, slot, slot};
            url += "/" + names[by.below(std::size(names))];
        }
        const std::string none = R"({"data":""} {"data":"not implement"} {"msg":"not implement"})";
        const std::string data(by.size(), 'x');
        const std::string answer = call(url + "/end", data);
        expect(answer == data || says(none, answer), url, "has a wrong answer");
    }
    // Counted where it is to fire.
    int setTimer(long milliseconds) {
        const int id = lib(busClientSettimer, client_, timer_callback{handler<&Node::fire>},
                           milliseconds, 0, this);
        timers_ += id != -1 && milliseconds < kNever ? 1 : 0;
        return id;
    }
    void killTimer() { lib(busClientKilltimer, client_, setTimer(kNever)); }

    World &world_;
    const std::string name_;
    const Kind kind_;
    Actor self_;                                        // the node's own thread
    std::map<std::uint64_t, std::uint64_t> last_heard_; // of each actor
    Count timers_{0};                                   // set and not fired
    client_t *const client_;
    Signal ended_;
    std::thread thread_; // last: it uses the others
};

} // namespace stress

#endif
