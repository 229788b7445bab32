// The scenario: nodes that do what is chosen at random, and the program's own count of it.
#ifndef ZELVO_STRESS_NODE_H
#define ZELVO_STRESS_NODE_H

#include "../test_support.h"

#include "memory_faults.h"

#include <zelvo/bus_client.h>

#include <atomic>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <unordered_map>

namespace stress {

using Count = std::atomic<std::int64_t>;

// A number below limit. Every thread has a generator of its own, so that what one of them chooses
// depends on no other.
inline unsigned below(std::mt19937_64 &choice, unsigned limit) {
    return static_cast<unsigned>(choice() % limit);
}
inline bool oneIn(std::mt19937_64 &choice, unsigned times) {
    return below(choice, times) == 0;
}

// What a phase is like.
struct Plan {
    std::uint64_t seed = 0;
    int call_timeout = 0;      // 0: none
    int level = 5;             // of the log
    unsigned workers = 0;      // threads that choose what to do with the nodes
    unsigned slots = 0;        // nodes that there may be at once
    unsigned steps = 0;        // of each worker
    bool restarts = false;     // the bus ends and is run again
    bool unspun = false;       // nodes that are never run come and go
    bool rejoins = false;      // nodes leave and join by calls
    bool floods = false;       // queues get full
    bool delete_while = false; // the bus is deleted while it runs
    bool flushes = true;       // the key store's file is on the disk before the answer
    long first_refused = 0;    // of the library's allocations, and how many in a row
    long refused = 0;
    long deliveries = 8; // of the proof at the end
    long resident = 0;   // kilobytes by which memory may grow meanwhile; 0: not looked at
};

class Node;

// What the threads of a phase share, and what has been done by all nodes together.
struct World {
    World(const Plan &chosen, std::string directory)
        : plan{chosen},
          home{std::move(directory)},
          slots(chosen.slots) {}

    std::shared_ptr<Node> at(std::size_t slot) {
        const std::lock_guard lock{mutex};
        return slots[slot];
    }

    const Plan plan;
    const std::string home; // of log and key store
    Zelvo_t *bus = nullptr;
    std::atomic<bool> quiet{false}; // handlers do nothing any more
    std::mutex mutex;               // of the slots
    std::vector<std::shared_ptr<Node>> slots;
    Count actors{0};
    Count not_connected{0};
    Count closed{0};
    Count published{0}; // all that does not wait: publications, removals
    Count calls{0};     // all that waits: calls, subscriptions, the join and its subscription
    Count joins{0};     // those that, where a node is off the bus, subscribe as well
    Count heard{0};     // message handler
    Count asked{0};     // call handler
};

inline Count faults{0};

// Where it does not hold it is a fault: of whom, and what.
inline void expect(bool holds, const std::string &name, const char *what) {
    if (!holds) {
        ++faults;
        std::fprintf(stderr, "fault: %s, %s\n", name.c_str(), what);
    }
}

// A thread that chooses. Its publications are numbered, so that their order can be checked.
struct Actor {
    Actor(World &world, std::uint64_t seed) : choice{seed}, id{++world.actors} {}

    std::mt19937_64 choice;
    const std::int64_t id;
    std::int64_t published = 0;
    unsigned turn = 0; // where everything is done in turn
};

class Node {
public:
    enum Kind {
        kOpen,    // any thread calls through it, so no thread may read its answers
        kPrivate, // only its own thread calls
        kOwned,   // only its maker uses it
        kUnspun,  // as kOwned, and never run
    };

    // seed: of its own thread. The node may turn out not to exist().
    Node(World &world, std::string name, Kind kind, std::uint64_t seed)
        : world_{world},
          name_{std::move(name)},
          kind_{kind},
          self_{world, seed},
          client_{memory::lib(busClientConnect, world.bus, name_.c_str(), hear, answer, this)} {
        (client_ ? world.calls : world.not_connected) += client_ ? 2 : 1;
        if (client_ && kind != kUnspun) {
            thread_ = std::thread{[this] {
                memory::lib(busClientSpin, client_);
                ended_.set();
            }};
        }
    }
    ~Node() { close(); }

    void close() {
        if (!client_) {
            return;
        }
        closing_ = true;
        if (thread_.joinable()) {
            do { // again where the request has found a full queue, and only there
                askToEnd();
            } while (!ended_.wait(world_.plan.floods ? std::chrono::milliseconds{20} : kLimit));
            thread_.join();
        }
        const std::unique_lock lock{in_use_};
        memory::lib(busClientClose, std::exchange(client_, nullptr));
        ++world_.closed;
    }

    // Runs action, in any thread, unless the node is being closed.
    template <typename Action>
    void with(Action action) {
        const std::shared_lock lock{in_use_, std::try_to_lock};
        if (lock.owns_lock() && !closing_ && client_) {
            action();
        }
    }
    bool exists() const { return client_ != nullptr; }
    bool isOpen() const { return kind_ != kPrivate; }
    // Until every timer has fired that can; not known where some found the queue full.
    void waitForTimers() {
        while (timers_ != 0 && !world_.plan.floods && !ended_.wait(std::chrono::milliseconds{0})) {
            std::this_thread::yield();
        }
    }
    const std::string &name() const { return name_; }

    // One thing chosen by actor; mayCall: also what waits for an answer.
    void act(Actor &actor, bool mayCall);
    void askToEnd() { memory::lib(busClientSpinExit, client_); }

    // Nothing: no answer, or one that may not be read.
    std::optional<std::string> call(const std::string &url, const std::string &data = {}) {
        ++world_.calls;
        const char *const text = memory::lib(busClientCall, client_, url.c_str(),
                                             data.empty() ? nullptr : data.data(), length(data));
        return text && kind_ != kOpen ? std::optional<std::string>{text} : std::nullopt;
    }
    // size: 0: no data; otherwise at least what the stamp needs.
    void publish(Actor &actor, const std::string &topic, std::size_t size, bool sticky = false) {
        const Stamp stamp{actor.id, ++actor.published, sticky};
        std::string bytes(reinterpret_cast<const char *>(&stamp), sizeof stamp);
        bytes.resize(std::max(size, sizeof stamp), stamp.filler());
        ++world_.published;
        memory::lib(sticky ? busClientPublishSticky : busClientPublish, client_, topic.c_str(),
                    size == 0 ? nullptr : bytes.data(), length(bytes));
    }
    // These two may be refused for want of memory alone, and are no call and no message then.
    void subscribe(const std::string &topic, bool adds = true) {
        const std::string topics = "[\"" + topic + "\"]";
        const int result =
            memory::lib(adds ? busClientSubscribe : busClientUnsubscribe, client_, topics.c_str());
        world_.calls += result == 0 ? 1 : 0;
        expect(result == 0 || world_.plan.refused > 0, name_, "may not change its topics");
    }
    void removeSticky(const std::string &topic) {
        const std::string topics = "[\"" + topic + "\"]";
        const int result = memory::lib(busClientRemoveSticky, client_, topics.c_str());
        world_.published += result == 0 ? 1 : 0;
        expect(result == 0 || world_.plan.refused > 0, name_, "may not remove a sticky message");
    }
    // Due in less than milliseconds.
    void setTimer(Actor &actor, unsigned milliseconds) {
        ++timers_;
        timers_ -= setTimer(below(actor.choice, milliseconds)) == -1 ? 1 : 0;
    }

private:
    // In front of what is published.
    struct Stamp {
        std::int64_t actor;
        std::int64_t number;
        std::int64_t sticky; // may come again, and late

        char filler() const { return static_cast<char>(number); }
    };
    int setTimer(long milliseconds) {
        return memory::lib(busClientSettimer, client_, fire, milliseconds, 0, this);
    }
    void killTimer(int id) { memory::lib(busClientKilltimer, client_, id); }
    static int length(const std::string &text) { return static_cast<int>(text.size()); }

    static int hear(void *node, client_t *, char *topic, char *data, int len);
    static char *answer(void *node, client_t *, char *url, char *data, int len);
    static int fire(void *node, client_t *, int type);

    void actInHandler();
    void publishSome(Actor &actor);
    void callNodes(Actor &actor);
    void callKeys(Actor &actor);

    World &world_;
    const std::string name_;
    const Kind kind_;
    Actor self_;                                                // the node's own thread
    std::unordered_map<std::int64_t, std::int64_t> last_heard_; // of each actor
    std::int64_t heard_ = 0;                                    // numbered publications
    Count timers_{0};                                           // set and not fired
    std::shared_mutex in_use_;
    std::atomic<bool> closing_{false};
    client_t *client_;
    Signal ended_;
    std::thread thread_; // last: it uses the others
};

} // namespace stress

#endif
