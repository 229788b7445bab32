// A node of the stress program: what it does, and its own count of it.
#ifndef ZELVO_STRESS_NODE_H
#define ZELVO_STRESS_NODE_H

#include "../running.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace stress {

// Every thread has a generator of its own, so that what one of them chooses depends on no other.
class Choice {
public:
    // The generator of one of the many that share a seed.
    Choice(std::uint64_t seed, std::uint64_t number)
        : generator_{seed + number * 0x9e3779b97f4a7c15U} {}
    std::uint64_t next() { return generator_(); }
    unsigned below(unsigned limit) { return static_cast<unsigned>(next() % limit); }
    bool oneIn(unsigned times) { return below(times) == 0; }

private:
    std::mt19937_64 generator_;
};

// What a phase is like.
struct Plan {
    std::uint64_t seed;
    int call_timeout;  // 0: none
    int level;         // of the log
    unsigned workers;  // threads that choose what to do with the nodes
    unsigned slots;    // nodes that there may be at once
    unsigned steps;    // of each worker
    bool restarts;     // the bus ends and is run again
    bool unspun;       // nodes that are never run come and go
    bool rejoins;      // nodes leave and join by calls
    bool floods;       // queues get full
    bool delete_while; // the bus is deleted while it runs
};
Plan choosePlan(std::uint64_t seed, unsigned phase);

using Count = std::atomic<std::uint64_t>;

// What has been done through a node, as the program sees it.
struct Tally {
    Count published{0}; // all that does not wait: publications, removals
    Count calls{0};     // all that waits: calls, subscriptions, the join and its subscription
    Count heard{0};     // message handler
    Count asked{0};     // call handler
    Count timers_set{0};
    Count timers_fired{0};
    Count kills{0};

    void add(const Tally &other);
};

class Node;

// What the threads of a phase share.
struct World {
    explicit World(const Plan &chosen) : plan{chosen}, slots(chosen.slots) {}

    // Counts a fault and prints it.
    void fault(const std::string &what);
    std::shared_ptr<Node> at(std::size_t slot);

    const Plan plan;
    Zelvo_t *bus = nullptr;
    std::atomic<bool> quiet{false}; // handlers do nothing any more
    std::mutex mutex;               // of the slots
    std::vector<std::shared_ptr<Node>> slots;
    Count actors{0};
    Count faults{0};
    Tally closed; // of the nodes that have been closed
    Count connected{0};
    Count not_connected{0};
};

// A thread that chooses. Its publications are numbered, so that their order can be checked.
struct Actor {
    Actor(World &world, std::uint64_t number)
        : choice{world.plan.seed, number},
          id{++world.actors} {}

    Choice choice;
    const std::uint64_t id;
    std::uint64_t published = 0;
};

class Node {
public:
    enum class Kind {
        kOpen,    // any thread calls through it, so no thread may read its answers
        kPrivate, // only its own thread calls
        kUnspun,  // never run; only its maker uses it
    };

    // number: of the node's generator. The node may turn out not to exist().
    Node(World &world, std::string name, Kind kind, std::uint64_t number);
    ~Node() { close(); }

    bool exists() const { return client() != nullptr; }
    const std::string &name() const { return name_; }
    const Tally &tally() const { return tally_; }
    client_t *client() const { return running_.get(); }

    // One thing chosen by actor, from any thread; nothing when the node is being closed.
    void use(Actor &actor);
    // Asks the node's thread to end before the node is closed.
    void askToEnd();
    // Ends the node's thread and closes the node.
    void close();

private:
    static int hear(void *userdata, client_t *, char *topic, char *data, int len);
    static char *answer(void *userdata, client_t *, char *url, char *data, int len);
    static int fire(void *userdata, client_t *, int type);

    void act(Actor &actor, bool mayCall);
    void actInHandler();
    void publish(Actor &actor);
    void removeSticky(Actor &actor);
    void call(Actor &actor);
    void callService(Actor &actor);
    void changeTopics(Actor &actor);
    void changeTimers(Actor &actor);
    void callUrl(const std::string &url, const std::string &data);
    void check(const char *topic, const char *data, int len);

    World &world_;
    const std::string name_;
    const Kind kind_;
    Tally tally_;
    Actor self_;                                                  // the node's own thread
    std::unordered_map<std::uint64_t, std::uint64_t> last_heard_; // of each actor
    std::shared_mutex in_use_;
    std::atomic<bool> closing_{false};
    RunningNode running_; // last: its thread uses the others
};

} // namespace stress

#endif
