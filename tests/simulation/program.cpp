#include "bus_mk_pool.h"
#include "bus_mk_queue.h"
#include "model.h"

#include <bus_client.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

namespace simulation {

using std::to_string;
using Text = std::optional<string>; // that the library is given; nothing: null

// A thread that makes a node and uses it, once and again.
struct Actor {
    unsigned number;
    client_t *client = nullptr;
    Node *node = nullptr;
    Thread *spin = nullptr;

    // Whether there are operations for a place, or for one that follows it.
    bool has(unsigned place) const {
        return std::ranges::any_of(program.operations, [&](const Operation &o) {
            return o.actor == number && o.place >= place;
        });
    }
    // Carries out the next operation that is meant for a place. False: there is none.
    bool goOn(unsigned place) {
        for (Operation &o : program.operations) {
            if (o.actor == number && o.place == place && !std::exchange(o.begun, true)) {
                o.act(*this, o);
                return true;
            }
        }
        return false;
    }
};

namespace {

Zelvo_t *bus = nullptr;
std::deque<Node> nodes; // all that there have been

// Calls into the library, for no longer than it may wait, where nothing else keeps it.
template <typename Function, typename... Arguments>
auto enter(const string &what, Function function, Arguments... arguments) {
    const bool isLimited = program.timeLimit > 0 && world.isPrompt(); // else only time-outs last
    const unsigned limit = isLimited ? program.timeLimit + 5 : 50'000;
    const std::uint64_t latest = world.now() + limit * kMillisecond;
    note(what);
    const InLibrary yes{true};
    const auto result = function(arguments...);
    expect(world.now() <= latest, "waits for longer than its time limit");
    if constexpr (std::is_integral_v<decltype(result)>) {
        expect(result >= -1 && result != 1, "is neither done nor refused, and no timer's number");
    }
    return result;
}

// The same with a text.
template <typename Function>
auto give(const Text &text, const string &what, Function function, client_t *client,
          const string &about) {
    return enter(what, function, client, about.c_str(), text ? text->data() : nullptr,
                 text ? static_cast<int>(text->size()) : 7);
}

// ---- handlers ----

int handle(Node &node) {
    node.isBusy = true;
    if (!node.actor->goOn(kHandler) && world.chance.oneIn(4)) {
        world.pause(world.chance.below(12));
    }
    node.isBusy = false;
    node.lookedUntil = world.now();
    return 0;
}

int hear(void *self, client_t * /*client*/, char *about, char *data, int length) {
    const InLibrary no{false};
    auto &node = *static_cast<Node *>(self);
    node.isHanded(about, data, length);
    handle(node);
    node.lookBegan = node.lookedUntil;
    return 0;
}

char *reply(void *self, client_t *client, char *url, char *data, int length) {
    hear(self, client, url, data, length);
    const InLibrary no{false};
    const string text = string{"re:"} + (data ? data : "");
    return std::strcpy(static_cast<char *>(allocate(text.size() + 1)), text.c_str());
}

int ring(void *self, client_t * /*client*/, int type) {
    const InLibrary no{false};
    auto &timer = *static_cast<Timer *>(self);
    expect(type == timer.type, "another timer's type");
    world.current->node->runs(timer);
    return handle(*world.current->node);
}

// ---- the node of an actor ----

void join(Actor &actor, bool spins) {
    do {
        actor.node = &nodes.emplace_back(Node{"n" + to_string(actor.number), &actor});
        world.current->node = actor.node;
        actor.client = enter("connects", busClientConnect, bus, actor.node->name.c_str(), hear,
                             reply, actor.node);
        expect(actor.client || program.loses(), "can't connect");
    } while (!actor.client && !world.chance.oneIn(8)); // or gives up
    const auto run = [&actor] {
        actor.node->isBusy = false;
        const InLibrary yes{true};
        expect(busClientSpin(actor.client) == 0, "spins and fails");
    };
    spins = spins && actor.client;
    actor.spin = spins ? world.spawn(actor.node->name + "'s", run, actor.node) : nullptr;
}

void leave(Actor &actor) {
    actor.node->leaves = true;
    while (actor.spin && !actor.spin->ended) { // again where memory was short
        enter("asks its thread to end", busClientSpinExit, actor.client);
        actor.node->mayTake = std::min(actor.node->mayTake, 1U);
        world.join(actor.spin, program.loses() ? world.now() + 100 * kMillisecond : kNever);
    }
    expect(!actor.spin ||
               !enter("calls once more", busClientCall, actor.client, "/bus/nodes", nullptr, 0),
           "is answered, and has left the bus");
    enter("closes", busClientClose, std::exchange(actor.client, nullptr));
}

// The answer, unless the call of another thread may have ended it.
string ask(const Actor &actor, const string &url, const Text &text = {}) {
    const char *const got = give(text, "calls " + url, busClientCall, actor.client, url);
    if (actor.has(kHandler)) {
        return "";
    }
    actor.node->getsAnswer(got, url[1] == 'n' && text ? text->c_str() : "");
    return got ? got : "";
}

// ---- operations ----

// Who and which, and more; or nothing. The log tells threads apart by it. Seven kinds, an odd
// number, so that each comes with each kind of call.
Text textOf(const Actor &actor, const Operation &o) {
    static long numbers = 0;
    const string who = to_string(actor.number * 3 + o.place) + "." + to_string(++numbers) + "|";
    const string x200(200 + 10 * o.place - who.size(), 'x'), x199(199 - who.size(), 'x');
    const Text texts[] = {who, who + x200, who + x199, who + string("\0y", 2), who, "1", {}};
    return texts[o.b % (o.place == kOwner ? 7 : 5)];
}

// What begins with another's name is another one. Nodes publish on the first of these.
constexpr const char *kTopics[] = {"t", "s", "bus.event", "s.", "T", "t.", "bus.error"};

void publish(Actor &actor, const Operation &o) {
    const string topic = kTopics[o.a % 4];
    give(textOf(actor, o), "publishes on " + topic,
         topic[0] == 's' ? busClientPublishSticky : busClientPublish, actor.client, topic);
}

void changeTopics(Actor &actor, const Operation &o) {
    constexpr decltype(&busClientSubscribe) kChanges[] = {
        busClientSubscribe, busClientUnsubscribe, busClientSubscribe, busClientRemoveSticky};
    const string topics = string{"[\""} + kTopics[o.a % 7] + "\",\"" + kTopics[o.b % 7] + "\",\"" +
                          to_string(o.place) + "\"]"; // and which thread it is
    const int result =
        enter("changes topics " + topics, kChanges[o.b % 4], actor.client, topics.c_str());
    expect(result == 0 || program.loses(), "is refused");
}

void call(Actor &actor, const Operation &o) {
    const string node = "/n" + to_string(o.a % (program.actors + 1));
    const string urls[] = {"/bus/nodes", "/bus/join", "/b/nodes/x", "/bus/joinx"};
    ask(actor, o.b % 2 == 0 ? node + "/ask" : urls[o.b / 2 % 4], textOf(actor, o));
}

void useKey(Actor &actor, const Operation &o) {
    const string set = R"({"operation":"set","persist":"true","data":)" + to_string(o.b) + "}";
    const string get = R"({"operation":"get"})";
    ask(actor, "/localKeys/k" + to_string(o.a % 3), o.b % 3 == 0 ? get : set);
}

void setTimer(Actor &actor, const Operation &o) {
    const unsigned delay = o.b % 3 == 0 ? 0 : o.b % 12;
    Timer &timer = actor.node->timers.emplace_back(Timer{static_cast<int>(o.a), delay});
    timer.id = enter("sets a timer of " + to_string(delay) + " ms", busClientSettimer, actor.client,
                     ring, static_cast<long>(delay), timer.type, &timer);
    timer.set = world.now();
    timer.gone |= timer.id < 0;
}

void killTimer(Actor &actor, const Operation &o) {
    std::deque<Timer> &timers = actor.node->timers;
    if (o.b % 2 == 0) { // one that is far off
        setTimer(actor, o);
    }
    if (!timers.empty() && timers.back().id > 0) {
        timers.back().killed = true;
        enter("kills a timer", busClientKilltimer, actor.client, timers.back().id);
    }
}

// A message that comes when a timer is due, or has just been.
void meetTimer(Actor &actor, const Operation &o) {
    setTimer(actor, o);
    world.pause(actor.node->timers.back().delay + o.a % 2);
    publish(actor, {nullptr, o.actor, o.place, 2, o.b});
}

void pause(Actor & /*actor*/, const Operation &o) {
    world.pause(o.b % (o.b % 2 == 0 ? 8 : 60));
}

void reopen(Actor &actor, const Operation &o) {
    if (o.place == kOwner && !actor.has(kHelper)) {
        leave(actor);
        join(actor, actor.spin);
    }
}

void stopBus(Actor & /*actor*/, const Operation & /*o*/) {
    if (!program.isExact()) {
        enter("stops the bus", busClientServerExit, bus);
    }
}

// Half of a world's operations are of a few kinds, which so come upon each other.
using Act = decltype(Operation::act);
constexpr Act kThemes[][4] = {
    {call, call, pause, setTimer},      {setTimer, meetTimer, pause, killTimer},
    {useKey, useKey, publish, stopBus}, {publish, changeTopics, reopen, stopBus},
    {reopen, call, call, call},         {publish, changeTopics, pause, publish}};

// ---- a world ----

void live(Actor &actor) {
    join(actor, actor.number % 3 != 2);
    if (!actor.client) {
        return;
    }
    const auto helpOut = [&] {
        while (actor.goOn(kHelper)) {}
    };
    const Thread *const helper = world.spawn(actor.node->name + " too", helpOut, actor.node);
    while (actor.goOn(kOwner)) {}
    world.join(helper);
    const auto waits = [](const Timer &t) { return t.isMissed(kNever, kNever); };
    while (actor.number % 2 == 0 && actor.spin && std::ranges::any_of(actor.node->timers, waits)) {
        world.pause(1);
    }
    leave(actor);
}

// What does not balance in the bus's statistics, once only the node that asks is left.
void expectBalance(const string &stats) {
    const auto number = [&](const char *group, const char *name) {
        const std::size_t in = stats.find('"' + string{group});
        const std::size_t at = stats.find('"' + string{name} + "\":", in);
        return std::stol(stats.substr(at + std::strlen(name) + 3));
    };
    const auto all = [&](const char *name) { return number("left", name) + number("nodes", name); };
    const auto own = [&](const char *name) { return number("server", name); };
    const long lost = all("sent") + own("posted") - own("taken") - own("depth");
    expect(lost == 0 || lost == -1, "messages to the bus are lost"); // the request itself
    const long drops = all("busFull") + all("ownFull") + all("noMemory");
    expect(drops >= losses[1] &&
               drops + own("noMemory") + all("queueFull") >= losses[0] + losses[1],
           "the log tells of more losses");
    expect(own("sent") == all("taken") + all("unread") + number("nodes", "depth"),
           "messages to nodes are lost");
    expect(all("made") == all("answered") + all("refused") + all("timedOut") + all("givenUp") + 1,
           "calls have no end"); // but for the one that asks
}

// A last node finds the bus empty, and may leave while it stops for good.
void lookAround(bool &over) {
    Actor last{99};
    for (; !last.client; join(last, false)) {}
    string seen, stats;
    while (seen.empty() || stats.empty()) { // again where the time was up
        seen = ask(last, "/bus/nodes");
        stats = ask(last, "/bus/stats");
    }
    expect(seen == "{\n\t\"data\":\t[\"n99\"]\n}", "the bus still knows " + seen);
    expectBalance(stats);
    over = true;
    stopBus(last, {});
    leave(last);
}

// Who waits for a limited time may destroy the queue that its sender has just been in.
void useQueue() {
    bus_mk_q_t *const q = enter("makes a queue", bus_mk_q_new, 2, nullptr);
    const Thread *const sender = world.spawn("s", [q] {
        world.pause(3);
        enter("sends", bus_mk_q_send, q, q, -1);
    });
    for (const InLibrary yes{true}; !bus_mk_q_recv(q, 1, 0, 1); bus_mk_q_wait(q, 3)) {}
    enter("destroys the queue", bus_mk_q_clear, q, nullptr, 0);
    world.join(sender);
}

} // namespace

void play() {
    const string configuration = "{\"level\":" + to_string(program.level) +
                                 R"(,"path":"/dev/null","size":0,"stats":true,"callTimeout":)" +
                                 to_string(program.timeLimit) + "}";
    shortage = {program.shortage.oneIn, program.shortage.nth}; // without a log there would be noise
    bus = enter("makes the bus", busClientNew, configuration.c_str());
    if (program.loses()) { // it may be none, or one that takes no node
        enter("deletes the bus", busClientDelete, bus);
        shortage = {};
        bus = enter("makes the bus", busClientNew, configuration.c_str());
    }
    expect(bus, "can't make the bus");
    bool over = false;
    Thread *const loop = world.spawn("bus", [&] {
        while (!over) {
            note("runs the bus");
            const InLibrary yes{true};
            expect(busClientBindServer(bus) == 0, "runs and fails");
            world.pause(world.chance.below(2) * 50);
        }
    });
    shortage = program.shortage;
    std::deque<Actor> actors;
    std::vector<Thread *> threads;
    for (unsigned number = 0; number < program.actors; ++number) {
        Actor &actor = actors.emplace_back(Actor{number});
        if (actor.has(kOwner)) {
            threads.push_back(world.spawn("n" + to_string(number), [&actor] { live(actor); }));
        }
    }
    std::ranges::for_each(threads, [](Thread *thread) { world.join(thread); });
    shortage = {};
    lookAround(over);
    for (; !program.isExact() && !loop->ended; world.pause(1)) { // else it may run to the last
        enter("stops the bus", busClientServerExit, bus);
    }
    enter("deletes the bus", busClientDelete, bus);
    world.join(loop);
    if (program.isExact()) { // that thread has ended since, and left blocks to others
        bus_mk_pool_clear();
    }
    expectAllTaken();
    for (int left = 4; left > 0; --left) {
        useQueue();
    }
    expect(blocks == 0, "leaves " + to_string(blocks) + " blocks of memory");
    for (const auto &entry : std::filesystem::directory_iterator{"."}) { // whatever the disk did
        std::ifstream file{entry.path()};
        const string text{std::istreambuf_iterator<char>{file}, {}};
        expect(text[0] == '{' && text.back() == '}', "a torn file: " + text);
    }
}

Program makeProgram(std::uint64_t seed) {
    constexpr unsigned kRates[] = {3, 6, 12, 40};
    Random random{~seed};
    Program made;
    const unsigned kind = random.below(10); // half of the worlds are exact, and lack nothing
    made.order = seed;
    made.actors = 2 + random.below(3);
    made.level = kind > 4 ? 1 : 2 + static_cast<int>(random.below(4));
    made.timeLimit = kind < 3 ? 1 + random.below(40) * random.below(2) : 0;
    made.shortage = {kind == 2 || kind == 3 ? kRates[random.below(4)] : 0,
                     kind == 4 && random.oneIn(2) ? 1 + random.below(400) : 0,
                     kind == 4 ? random.below(5) : 0};
    const auto &theme = kThemes[random.below(6)];
    const bool mixed = random.oneIn(2); // else only odd actors have handlers that do something
    for (unsigned left = 2 + random.below(random.oneIn(3) ? 40 : 16); left > 0; --left) {
        const unsigned actor = random.below(made.actors);
        const bool aside = (mixed || actor % 2 == 1) && random.oneIn(3);
        const unsigned place = aside ? 1 + random.below(2) : 0;
        const auto &acts = random.oneIn(2) ? theme : kThemes[random.below(6)];
        const Act act = place == kHandler && random.oneIn(2) ? pause : acts[random.below(4)];
        made.operations.push_back({act, actor, place, random.below(1000), random.below(1000)});
    }
    return made;
}

} // namespace simulation
