// Nodes that come, go, publish, call, subscribe and set timers at random, from many threads, while
// the bus comes and goes too. At the end of each phase every message and call is accounted for,
// the bus works, and no block of memory is left behind. One of
//   --seconds N     phases of every kind, for N seconds (10)
//   --deliveries N  one phase of nothing but N deliveries, of which none may be lost
//   --refused SPAN  phases in which the library is refused SPAN allocations in a row, from the
//                   first on, then from the second on, until phases end before that
// and any of
//   --seed S        repeats what each thread chooses, not how the threads meet
//   --from N        begins with phase N of the seed
//   --every N       runs each Nth phase only
//   --resident K    fails where resident memory grows by more than K kB after the first tenth of
//                   the deliveries
#include "ledger.h"

#include <algorithm>
#include <cinttypes>
#include <map>

using memory::lib;

namespace stress {
namespace {

// ---- what a phase is like ----

Plan anyPlan(std::uint64_t seed) {
    std::mt19937_64 choice{seed};
    constexpr int kTimeouts[] = {0, 0, 0, 1, 10, 100};
    Plan plan;
    plan.seed = seed;
    plan.call_timeout = kTimeouts[below(choice, std::size(kTimeouts))];
    plan.level = oneIn(choice, 8) ? 1 : 4;
    plan.workers = 2 + below(choice, 4);
    plan.slots = plan.workers + below(choice, 12);
    plan.steps = 200 + below(choice, 1500);
    plan.restarts = oneIn(choice, 2);
    plan.unspun = oneIn(choice, 2);
    plan.rejoins = oneIn(choice, 3);
    plan.floods = oneIn(choice, 3);
    // Only a thread that is inside the loop for sure may be met by the deletion.
    plan.delete_while = !plan.restarts && oneIn(choice, 2);
    plan.flushes = oneIn(choice, 2);
    return plan;
}

// Short, and with something of everything.
Plan shortPlan(std::uint64_t seed, std::uint64_t first, std::uint64_t span) {
    return {.seed = seed,
            .level = 0,
            .workers = 2,
            .slots = 4,
            .steps = 14,
            .unspun = true,
            .rejoins = seed % 2 == 0,
            .first_refused = static_cast<long>(first),
            .refused = static_cast<long>(span)};
}

std::string configOf(const World &world) {
    // To empty a file over and over would take most of the time of short phases.
    const std::string log = world.plan.refused > 0 ? "/dev/null" : world.home + "/bus.log";
    return R"({"stats":true,"size":1,"level":)" + std::to_string(world.plan.level) +
           R"(,"callTimeout":)" + std::to_string(world.plan.call_timeout) + R"(,"path":")" + log +
           R"(","homePath":")" + world.home + R"(","persistSync":)" +
           (world.plan.flushes ? "true}" : "false}");
}

// ---- the threads ----

// A slot of the worker's own is filled, or emptied.
void changeSlot(World &world, Actor &actor, std::size_t slot) {
    const auto kind = oneIn(actor.choice, 2) ? Node::kOpen : Node::kPrivate;
    std::shared_ptr<Node> node = world.at(slot);
    if (node) {
        node->close();
    } else {
        node = std::make_shared<Node>(world, "n" + std::to_string(slot), kind, actor.choice());
    }
    const std::lock_guard lock{world.mutex};
    world.slots[slot] = node->exists() ? node : nullptr;
}

// A node that is never run, under a name that may be taken or is odd, and is called while it goes.
void passBy(World &world, Actor &actor) {
    const std::string names[] = {"same", "same", "n0", "bus",
                                 "b",    "x/y",  "",   std::string(300, 'l')};
    const std::string &name = names[below(actor.choice, std::size(names))];
    Node node{world, name, Node::kUnspun, actor.choice()};
    for (unsigned step = below(actor.choice, 6); step > 0; --step) {
        node.with([&] { node.act(actor, true); });
    }
    const auto other = world.at(below(actor.choice, world.plan.slots));
    std::thread caller{[&] {
        if (other && other->isOpen()) {
            other->with([&] { other->call("/" + name + "/end"); });
        }
    }};
    node.close();
    caller.join();
}

// A thread that chooses. The slots are shared out among the workers, and filled first.
void work(World &world, unsigned number) {
    const Plan &plan = world.plan;
    Actor actor{world, plan.seed + 1 + number};
    actor.turn = number * plan.steps / 2;
    for (unsigned slot = number; slot < plan.slots; slot += plan.workers) {
        changeSlot(world, actor, slot);
    }
    for (unsigned step = 0; step < plan.steps; ++step) {
        const unsigned chosen = below(actor.choice, 1000);
        const unsigned slot = below(actor.choice, plan.slots);
        const auto node = world.at(slot);
        if (chosen == 999 && node) {
            node->with([&] { node->askToEnd(); });
        } else if (chosen < 400 && slot % plan.workers == number) {
            changeSlot(world, actor, slot);
        } else if (chosen < 430 && plan.unspun) {
            passBy(world, actor);
        } else if (chosen < 440 && plan.restarts) {
            lib(busClientServerExit, world.bus);
        } else if (node) {
            node->with([&] { node->act(actor, node->isOpen()); });
        }
    }
    if (plan.unspun) {
        passBy(world, actor);
    }
    // Timers for whose sake alone a node looks.
    for (unsigned slot = number; slot < plan.slots; slot += plan.workers) {
        if (const auto node = world.at(slot)) {
            node->with([&] { node->setTimer(actor, 10); });
        }
    }
}

// ---- the end of a phase ----

// Asks for the statistics until they balance; what they still lack when the time is up is a fault.
void settle(World &world) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds{20};
    std::string found = "no statistics";
    while (!found.empty() && std::chrono::steady_clock::now() < limit) {
        Node observer{world, "observer", Node::kUnspun, 0};
        const auto stats = observer.exists() ? observer.call("/bus/stats") : std::nullopt;
        found = stats ? imbalance(world, *stats) : "no statistics";
    }
    expect(found.empty(), "the ledger", found.c_str());
}

long residentKilobytes() {
    long size = 0;
    long pages = 0;
    std::ifstream{"/proc/self/statm"} >> size >> pages;
    return pages * 4;
}

// What must not fail: deliveries, of which none is lost, answers, a timer, and the value that the
// store has held since the start.
void prove(World &world) {
    constexpr long kListeners = 8;
    const Plan &plan = world.plan;
    Actor actor{world, 0};
    Node publisher{world, "publisher", Node::kOwned, 0};
    std::vector<std::unique_ptr<Node>> listeners;
    for (long i = 0; i < kListeners; ++i) {
        const std::string name = "listener" + std::to_string(i);
        listeners.push_back(std::make_unique<Node>(world, name, Node::kOwned, 0));
        listeners.back()->subscribe("proof");
    }
    const long batch = std::min(1000L, plan.deliveries / kListeners); // a queue has 1,024 places
    long resident = 0;
    for (long done = 0; done < plan.deliveries && faults == 0; done += batch * kListeners) {
        for (long i = 0; i < batch; ++i) {
            publisher.publish(actor, "proof", 1);
        }
        // An answer comes behind the publications: it tells that all have been heard.
        for (const auto &listener : listeners) {
            const auto heard = publisher.call("/" + listener->name() + "/heard");
            expect(heard == std::to_string(actor.published), listener->name(), "misses a message");
        }
        publisher.setTimer(actor, 1);
        publisher.waitForTimers();
        resident = done < plan.deliveries / 10 ? residentKilobytes() + plan.resident : resident;
        expect(plan.resident == 0 || residentKilobytes() <= resident, "resident memory", "grows");
    }
    expect(publisher.call("/localKeys/kept", R"({"operation":"get"})") == R"("since the start")",
           "the store", "has lost a value");
    const long before = memory::flushes;
    publisher.call("/localKeys/same", R"({"operation":"set","data":1,"persist":"true"})");
    expect(memory::flushes - before == (plan.flushes ? 2 : 0), // the file and its directory
           "the store", "does not follow persistSync");
}

// ---- phases ----

// Nothing is refused any more.
void checkAll(World &world) {
    memory::endRefused = 0;
    world.slots.clear();
    settle(world);
    if (world.plan.call_timeout == 0) {
        prove(world);
    }
}

void runBus(World &world) {
    const Plan &plan = world.plan;
    world.bus = lib(busClientNew, configOf(world).c_str());
    // One that was made while memory was short need not work.
    const bool whole = plan.refused == 0 || memory::asked < plan.first_refused;
    std::atomic<bool> ended{false};
    std::thread loop{[&] {
        std::mt19937_64 choice{plan.seed};
        do { // again until it is to end, after a pause
            lib(busClientBindServer, world.bus);
            std::this_thread::sleep_for(std::chrono::microseconds{below(choice, 300)});
        } while (plan.restarts && !ended);
    }};
    inThreads(static_cast<int>(plan.workers),
              [&world](int number) { work(world, static_cast<unsigned>(number)); });
    world.quiet = true;
    for (const auto &node : world.slots) {
        if (node) {
            node->waitForTimers();
        }
    }
    if (whole && memory::asked >= memory::endRefused) {
        checkAll(world);
    }
    world.slots.clear();
    ended = true;
    lib(plan.delete_while ? busClientDelete : busClientServerExit, world.bus);
    loop.join();
    if (!plan.delete_while) {
        lib(busClientDelete, world.bus);
    }
}

void runPhase(const Plan &plan, const std::string &home) {
    const long before = memory::blocks;
    memory::asked = 0;
    memory::firstRefused = plan.first_refused;
    memory::endRefused = plan.first_refused + plan.refused;
    {
        World world{plan, home};
        runBus(world);
    }
    memory::endRefused = 0;
    // Closes a log that was left open without a bus, and gives all free blocks back.
    busClientDelete(busClientNew(nullptr));
    const long left = memory::blocks - before;
    expect(left == 0, std::to_string(left), "blocks of memory are left behind");
}

using Options = std::map<std::string, std::uint64_t>;

Plan planOf(Options &options, std::uint64_t phase) {
    const std::uint64_t seed = options["--seed"] + phase;
    if (options["--deliveries"] > 0) {
        return {.deliveries = static_cast<long>(options["--deliveries"]),
                .resident = static_cast<long>(options["--resident"])};
    }
    return options["--refused"] > 0 ? shortPlan(seed, phase, options["--refused"]) : anyPlan(seed);
}

// Until the time, or the only phase, is over, or ten phases have ended before their refusal.
void run(Options &options) {
    const TempDir dir;
    std::ofstream{dir.file("keys.json")} << R"({"kept":"since the start"})";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{options["--seconds"]};
    int untouched = 0;
    bool goesOn = true;
    for (std::uint64_t phase = options["--from"]; goesOn; phase += options["--every"]) {
        const Plan plan = planOf(options, phase);
        const std::string name =
            "seed " + std::to_string(options["--seed"]) + ", phase " + std::to_string(phase);
        const Deadline deadline{name, kLimit + std::chrono::seconds{plan.deliveries / 100000}};
        runPhase(plan, dir.path());
        untouched = memory::asked < plan.first_refused ? untouched + 1 : 0;
        const bool more =
            plan.refused > 0 ? untouched < 10 : std::chrono::steady_clock::now() < end;
        goesOn = more && options["--deliveries"] == 0 && faults == 0;
        if (!goesOn) {
            std::fprintf(stderr, "%s: %s faults\n", name.c_str(), std::to_string(faults).c_str());
        }
    }
}

} // namespace
} // namespace stress

int main(int argc, char **argv) {
    stress::Options options = {{"--seconds", 10},
                               {"--deliveries", 0},
                               {"--refused", 0},
                               {"--from", 1},
                               {"--every", 1},
                               {"--resident", 0},
                               {"--seed", std::random_device{}()}};
    bool understood = argc % 2 == 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        understood = understood && options.contains(argv[i]);
        options[argv[i]] = std::strtoull(argv[i + 1], nullptr, 10);
    }
    // The log goes there where memory is short for its file.
    if (!understood || !std::freopen("/dev/null", "w", stdout)) {
        std::fprintf(stderr, "The options stand at the head of tests/stress/stress.cpp.\n");
        return 2;
    }
    // Also where a phase ends the program.
    std::fprintf(stderr, "seed %s\n", std::to_string(options["--seed"]).c_str());
    stress::run(options);
    return stress::faults == 0 ? 0 : 1;
}
