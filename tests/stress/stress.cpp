// Nodes that come, go, publish, call, subscribe and set timers at random, from many threads, while
// the bus comes and goes too. At the end of each phase every message and call is accounted for,
// the bus works, and no block of memory is left behind. One of
//   --seconds N     phases of every kind, for N seconds (10)
//   --deliveries N  one phase of little but N deliveries, of which none may be lost
//   --refused SPAN  phases in which the library is refused SPAN allocations in a row, from the
//                   first on, then from the second on, until phases end before that
// and any of
//   --seed S        repeats what each thread chooses, not how the threads meet
//   --from N        begins with phase N of the seed
//   --every N       runs each Nth phase only
//   --resident K    fails where resident memory grows by more than K kB after the first tenth of
//                   the deliveries
#include "node.h"

#include <sys/resource.h>

#include <deque>

namespace stress {
namespace {

// A thread that chooses what to do with the nodes.
void work(World &world, int number) {
    Actor actor{world.by.id + 1 + static_cast<unsigned>(number)};
    for (unsigned step = 0; step < world.steps; ++step) {
        const unsigned chosen = actor.below(1000);
        const unsigned slot = actor.below(world.slots.size());
        const auto node = world.at(slot);
        if (!node || chosen < 100) {
            const auto kind = actor.oneIn(2) ? Node::kShared : Node::kPrivate;
            const std::string name = "n" + std::to_string(slot);
            auto next =
                node ? nullptr : std::make_shared<Node>(world, name, kind, actor.generator());
            const std::lock_guard lock{world.mutex};
            world.slots[slot].swap(next);
        } else if (chosen < 200 && world.unspun) { // under a name that may be taken or is odd
            const std::string names[] = {"same", "same", "same", "same", "n0",
                                         "bus",  "b",    "x/y",  "",     std::string(300, 'l')};
            Node passing{world, names[actor.below(std::size(names))], Node::kUnspun, 0};
            for (unsigned left = 1 + actor.below(6); left > 0; --left) {
                passing.act(actor);
            }
        } else if (chosen < 210 && world.restarts) {
            lib(busClientServerExit, world.bus);
        } else if (chosen < 212) {
            node->end();
        } else if (node->isShared()) {
            node->act(actor);
        }
    }
}

// ---- the end of a phase ----

// What does not balance in the answer of "/bus/stats" to the only node on the bus.
std::string imbalance(const World &world, const std::string &stats) {
    const auto number = [&stats](const char *group, const std::string &name) {
        const std::size_t at = stats.find('"' + name + "\":", stats.find(group));
        return at == stats.npos ? 0 : std::strtoll(&stats[at + name.size() + 3], nullptr, 10);
    };
    const auto bus = [&](const char *name) { return number("\"server\":", name); };
    const auto left = [&](const char *name) { return number("\"left\":", name); };
    std::string found = count(stats, "\"timers\":") == 1 ? "" : "no answer or another node, ";
    const auto check = [&found](const char *what, std::int64_t value, std::int64_t most = 0) {
        found += value < 0 || value > most ? std::to_string(value) + what : "";
    };
    const auto failed = left("refused") + left("timedOut");
    // The node's own request is counted as sent before or after it has been taken.
    const auto sent = left("sent") + number("\"nodes\":", "made") + bus("posted");
    check(" messages lost by the bus, ", sent - bus("taken") - bus("depth"));
    const auto taken = left("taken") + left("unread") + number("\"nodes\":", "depth");
    check(" messages lost by nodes, ", bus("sent") - taken);
    check(" calls without an end, ", left("made") - left("answered") - left("givenUp") - failed);
    // Closing a node that does not run, or that gets no answer, answers what waits for it.
    const auto unhandled = left("taken") - world.handled;
    check(" messages not handled, ", unhandled, world.calm ? 0 : left("taken"));
    const auto made = left("sent") + left("busFull") + left("noMemory") + failed;
    const auto most = failed + world.maybe + unhandled;
    check(" messages too many or too few, ", made - world.posted, most);
    return found;
}

// Asks for the statistics until they balance; what they still lack when the time is up is a fault.
void settle(World &world) {
    const auto limit = std::chrono::steady_clock::now() + kLimit;
    std::string found = "no statistics";
    while (!found.empty() && std::chrono::steady_clock::now() < limit) {
        Node observer{world, "observer", Node::kUnspun, 0};
        found = imbalance(world, observer.call("/bus/stats"));
    }
    expect(found.empty(), "the ledger", found.c_str());
}

// What must not fail where no call times out: deliveries, of which none is lost, answers, and the
// value that the store has held since the start.
void prove(World &world) {
    Actor actor{0};
    Node publisher{world, "publisher", Node::kPrivate, 0};
    std::deque<Node> listeners;
    std::string all;
    for (const char *const name : {"a", "e", "i", "o", "u", "w", "x", "y"}) {
        listeners.emplace_back(world, name, Node::kPrivate, 0).change(busClientSubscribe, "proof");
        all += std::string{"/"} + name;
    }
    const std::int64_t batch = world.deliveries > 0 ? 500 : 1; // a queue has 1,024 places
    const std::int64_t before = world.heard;
    rusage first{};
    for (std::int64_t done = 0; done <= world.deliveries && faults == 0; done += 8 * batch) {
        for (std::int64_t i = 0; i < batch; ++i) {
            publisher.publish(actor, "proof");
        }
        // At each of them it comes behind the publications.
        const bool answered = publisher.call(all + "/end", "here") == "here";
        expect(answered && world.heard == before + done + 8 * batch, all, "miss a message");
        rusage now{};
        getrusage(RUSAGE_SELF, &now);
        first = done < world.deliveries / 10 ? now : first;
        const bool grows = now.ru_maxrss > first.ru_maxrss + options["--resident"];
        expect(options["--resident"] == 0 || !grows, "resident memory", "grows");
    }
    const std::string kept = publisher.call("/localKeys/kept", R"({"operation":"get"})");
    expect(kept == R"("kept")", "the store", "has lost a value");
}

// ---- phases ----

void runPhase(std::uint64_t seed, const std::string &home) {
    World world{Actor{seed}};
    // To empty a file over and over would take most of the time of short phases.
    const std::string log = world.any ? home + "/bus.log" : "/dev/null";
    const std::string config = R"({"stats":true,"size":1,"level":)" + std::to_string(world.level) +
                               R"(,"callTimeout":)" + std::to_string(world.call_timeout) +
                               R"(,"path":")" + log + R"(","homePath":")" + home + "\"}";
    world.bus = lib(busClientNew, config.c_str());
    // One that was made while memory was short need not work.
    const bool whole = memory::asked < memory::firstRefused || world.refused == 0;
    std::atomic<bool> ended{false};
    std::thread loop{[&] {
        do { // again until it is to end, after a pause
            lib(busClientBindServer, world.bus);
            std::this_thread::sleep_for(std::chrono::microseconds{world.by.below(300)});
        } while (world.restarts && !ended);
    }};
    inThreads(static_cast<int>(world.workers), [&](int number) { work(world, number); });
    world.quiet = true;
    std::ranges::fill(world.slots, nullptr); // handlers may still ask how many there are
    if (whole && memory::asked >= memory::endRefused) {
        settle(world);
        if (world.call_timeout == 0) {
            prove(world);
        }
    }
    ended = true;
    lib(world.delete_while ? busClientDelete : busClientServerExit, world.bus);
    loop.join();
    lib(busClientDelete, world.delete_while ? nullptr : world.bus);
}

} // namespace
} // namespace stress

// Until the time, or the only phase, is over, or ten phases have ended before their refusal.
int main(int argc, char **argv) {
    using namespace stress;
    bool understood = argc % 2 == 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        understood = understood && options.contains(argv[i]);
        options[argv[i]] = std::strtoll(argv[i + 1], nullptr, 10);
    }
    // The log goes there where memory is short for its file.
    if (!understood || !std::freopen("/dev/null", "w", stdout)) {
        std::fprintf(stderr, "The options stand at the head of tests/stress/stress.cpp.\n");
        return 2;
    }
    const TempDir dir;
    std::ofstream{dir.file("keys.json")} << R"({"kept":"kept"})";
    const std::int64_t deliveries = options["--deliveries"];
    const std::chrono::seconds time{deliveries > 0 ? 0 : options["--seconds"]};
    const auto end = std::chrono::steady_clock::now() + time;
    std::int64_t phase = options["--from"];
    int untouched = 0;
    do {
        const std::string name =
            "seed " + std::to_string(options["--seed"]) + ", phase " + std::to_string(phase);
        if (phase % 100 == 1 || phase == options["--from"]) { // where to begin after a crash
            std::fprintf(stderr, "%s\n", name.c_str());
        }
        const Deadline deadline{name, 5 * kLimit + std::chrono::seconds{deliveries / 100000}};
        const std::int64_t before = memory::blocks;
        memory::asked = 0;
        memory::firstRefused = phase;
        memory::endRefused = phase + options["--refused"];
        runPhase(static_cast<std::uint64_t>(options["--seed"] + phase), dir.path());
        untouched = memory::asked < phase ? untouched + 1 : 0;
        phase += options["--every"];
        // Closes a log that was left open without a bus, and gives all free blocks back.
        busClientDelete(busClientNew(nullptr));
        expect(memory::blocks == before, name, "blocks of memory are left behind");
    } while (faults == 0 && untouched < 10 &&
             (options["--refused"] > 0 || std::chrono::steady_clock::now() < end));
    std::fprintf(stderr, "%s faults\n", std::to_string(faults).c_str());
    return faults == 0 ? 0 : 1;
}
