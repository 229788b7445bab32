// Nodes that come, go, publish, call, subscribe and set timers at random, from many threads, while
// the bus comes and goes too. At the end of each phase all messages have to be accounted for.
//   zelvo_stress [--seconds N] [--seed S]
// A seed repeats what each thread chooses, not how the threads meet.
#include "ledger.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>

namespace stress {
namespace {

constexpr std::chrono::seconds kPhase{200}; // the longest, far beyond the usual
constexpr std::chrono::seconds kSettle{30}; // until all that goes on has ended

// Numbers of generators: of workers from 1 on, of the bus's thread, and of nodes.
constexpr std::uint64_t kBusThread = 1000;
constexpr std::uint64_t kNodes = 1000000;

// ---- the bus ----

class Bus {
public:
    explicit Bus(World &world) : world_{world} {
        const Plan &plan = world.plan;
        const std::string config =
            R"({"stats":true,"size":1,"level":)" + std::to_string(plan.level) +
            R"(,"callTimeout":)" + std::to_string(plan.call_timeout) + R"(,"path":")" +
            dir_.file("bus.log") + R"(","homePath":")" + dir_.path() + R"("})";
        world.bus = busClientNew(config.c_str());
        thread_ = std::thread{[this] { run(); }};
    }
    ~Bus() {
        ended_ = true;
        (world_.plan.delete_while ? busClientDelete : busClientServerExit)(world_.bus);
        thread_.join();
        if (!world_.plan.delete_while) {
            busClientDelete(world_.bus);
        }
    }

private:
    // Run again until it is to end, now and then with a pause.
    void run() {
        Choice choice{world_.plan.seed, kBusThread};
        while (!ended_) {
            busClientBindServer(world_.bus);
            for (unsigned pause = choice.oneIn(3) ? choice.below(2000) : 0; pause > 0; --pause) {
                std::this_thread::yield();
            }
        }
    }

    World &world_;
    TempDir dir_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

// ---- the workers ----

class Worker {
public:
    Worker(World &world, unsigned number)
        : world_{world},
          number_{number},
          actor_{world, 1 + number} {}

    void run() {
        for (unsigned step = 0; step < world_.plan.steps; ++step) {
            const unsigned chosen = actor_.choice.below(1000);
            const auto node = world_.at(actor_.choice.below(world_.plan.slots));
            if (chosen < 800 && node) {
                node->use(actor_);
            } else if (chosen >= 800 && chosen < 940) {
                changeSlot();
            } else if (chosen >= 940 && chosen < 943 && node) {
                node->askToEnd();
            } else if (chosen >= 970 && chosen < 990) {
                passBy();
            } else if (chosen >= 990 && world_.plan.restarts) {
                busClientServerExit(world_.bus);
            }
        }
    }

private:
    std::uint64_t nextNode() { return kNodes * (1 + number_) + nodes_++; }

    // The slots are shared out among the workers: one of its own is filled or emptied.
    void changeSlot() {
        const unsigned workers = world_.plan.workers;
        const unsigned own = (world_.plan.slots - number_ + workers - 1) / workers;
        const std::size_t slot = number_ + workers * actor_.choice.below(own);
        const bool open = actor_.choice.oneIn(2);
        const bool closes = actor_.choice.oneIn(2);
        const std::uint64_t number = nextNode();
        std::shared_ptr<Node> node = world_.at(slot);
        if (!node) {
            node = std::make_shared<Node>(world_, "n" + std::to_string(slot),
                                          open ? Node::Kind::kOpen : Node::Kind::kPrivate, number);
        } else if (closes) {
            node->close();
        }
        const std::lock_guard lock{world_.mutex};
        world_.slots[slot] = node->exists() ? node : nullptr;
    }

    // A node that is never run, under a name that may be taken, or is odd.
    void passBy() {
        static const std::string kLong(300, 'l');
        static const char *const kNames[] = {"same", "same",      "same", "n0", "n1",         "bus",
                                             "b",    "localKeys", "x/y",  "",   kLong.c_str()};
        const char *const name = kNames[actor_.choice.below(std::size(kNames))];
        const unsigned steps = actor_.choice.below(10);
        const std::uint64_t number = nextNode();
        if (!world_.plan.unspun) {
            return;
        }
        Node node{world_, name, Node::Kind::kUnspun, number};
        for (unsigned step = 0; step < steps; ++step) {
            node.use(actor_);
        }
    }

    World &world_;
    const unsigned number_;
    Actor actor_;
    std::uint64_t nodes_ = 0;
};

// ---- the end of a phase ----

// The node that asks what has been counted. Where the bus gives it no answer it is made anew.
class Observer {
public:
    explicit Observer(World &world) : world_{world} {}
    ~Observer() { close(); }
    Observer(const Observer &) = delete;
    Observer &operator=(const Observer &) = delete;

    // Nothing: no answer this time.
    std::optional<Stats> ask() {
        if (!client_) {
            client_ = busClientConnect(world_.bus, kName, nullptr, nullptr, nullptr);
            ++(client_ ? world_.connected : world_.not_connected);
            calls_ = client_ ? 2 : 0;
        }
        calls_ += client_ ? 1 : 0;
        const char *const text = busClientCall(client_, "/bus/stats", nullptr, 0);
        if (!text) {
            close();
            return std::nullopt;
        }
        return readStats(text);
    }

    static constexpr char kName[] = "observer";

private:
    void close() {
        busClientClose(std::exchange(client_, nullptr));
        world_.closed.calls += std::exchange(calls_, 0);
    }

    World &world_;
    client_t *client_ = nullptr;
    std::uint64_t calls_ = 0;
};

// Asks until check finds nothing; what it still finds when the time is up is a fault.
template <typename Check>
void settle(World &world, const char *what, Check check) {
    Observer observer{world};
    const auto limit = std::chrono::steady_clock::now() + kSettle;
    std::string faults;
    do {
        std::this_thread::yield();
        faults = "no statistics\n";
        if (const std::optional<Stats> stats = observer.ask()) {
            Ledger ledger;
            check(ledger, *stats);
            faults = ledger.faults();
        }
    } while (!faults.empty() && std::chrono::steady_clock::now() < limit);
    if (!faults.empty()) {
        world.fault(std::string{what} + "\n" + faults);
    }
}

// While the nodes still run: each of them, and all messages where none has left too early.
void checkRunning(World &world) {
    settle(world, "compares the nodes that run", [&](Ledger &ledger, const Stats &stats) {
        std::size_t known = 0;
        std::size_t all = 0;
        for (const std::shared_ptr<Node> &node : world.slots) {
            all += node ? 1 : 0;
            for (const Counters &row : stats.nodes) {
                if (node && row.name == node->name()) {
                    checkNode(ledger, world.plan, row, node->tally());
                    ++known;
                }
            }
        }
        if (known == all && stats.nodes.size() == known + 1) {
            checkMessages(ledger, stats, Observer::kName);
        }
    });
}

void checkClosed(World &world) {
    settle(world, "compares the sums", [&](Ledger &ledger, const Stats &stats) {
        checkMessages(ledger, stats, Observer::kName);
        checkSums(ledger, world, stats);
    });
}

void runWorkers(World &world) {
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < world.plan.workers; ++number) {
        threads.emplace_back([&world, number] { Worker{world, number}.run(); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// The number of faults.
std::uint64_t runPhase(const Plan &plan) {
    const Deadline deadline{"the phase", kPhase};
    World world{plan};
    const Bus bus{world};
    runWorkers(world);
    world.quiet = true;
    checkRunning(world);
    for (std::shared_ptr<Node> &node : world.slots) {
        node.reset();
    }
    checkClosed(world);
    const Tally &tally = world.closed;
    std::printf("%" PRIu64 " nodes, %" PRIu64 " publications, %" PRIu64 " heard, %" PRIu64
                " calls, %" PRIu64 " asked, %" PRIu64 " timers\n",
                world.connected.load(), tally.published.load(), tally.heard.load(),
                tally.calls.load(), tally.asked.load(), tally.timers_fired.load());
    return world.faults;
}

// ---- the program ----

struct Options {
    std::uint64_t seconds = 10;
    std::uint64_t seed = std::random_device{}();
};

bool readOptions(int argc, char **argv, Options &options) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view name = argv[i];
        char *end = nullptr;
        const std::uint64_t value = std::strtoull(argv[i + 1], &end, 10);
        if ((name != "--seconds" && name != "--seed") || *end != '\0') {
            return false;
        }
        (name == "--seed" ? options.seed : options.seconds) = value;
    }
    return argc % 2 == 1;
}

int run(const Options &options) {
    std::printf("seed %" PRIu64 "\n", options.seed);
    const auto begin = std::chrono::steady_clock::now();
    std::uint64_t faults = 0;
    unsigned phases = 0;
    while (faults == 0 &&
           std::chrono::steady_clock::now() - begin < std::chrono::seconds{options.seconds}) {
        const Plan plan = choosePlan(options.seed, phases++);
        std::printf("phase %u: callTimeout %d, %u workers, %u nodes, %u steps%s%s%s%s: ", phases,
                    plan.call_timeout, plan.workers, plan.slots, plan.steps,
                    plan.restarts ? ", restarts" : "", plan.unspun ? ", unspun" : "",
                    plan.rejoins ? ", rejoins" : "", plan.floods ? ", floods" : "");
        std::fflush(stdout);
        faults += runPhase(plan);
    }
    std::printf("seed %" PRIu64 ": %u phases, %" PRIu64 " faults\n", options.seed, phases, faults);
    return faults == 0 ? 0 : 1;
}

} // namespace
} // namespace stress

int main(int argc, char **argv) {
    stress::Options options;
    if (!stress::readOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--seconds N] [--seed S]\n", argv[0]);
        return 2;
    }
    return stress::run(options);
}
