#include "program.h"

#include "disk.h"
#include "model.h"
#include "scheduler.h"

#include <bus_client.h>

#include <algorithm>
#include <cstring>
#include <list>

namespace simulation {
namespace {

using std::string;
using std::to_string;

Zelvo_t *bus = nullptr;
const Program *program = nullptr;
std::list<Node> nodes; // all that there have been
long published = 0;

// Calls into the library.
template <typename Function, typename... Arguments>
auto enter(const string &what, Function function, Arguments... arguments) {
    note(what);
    world.current->doing = what;
    const InLibrary yes{true};
    return function(arguments...);
}

// The same for what waits for an answer: no longer than it may, where nothing else keeps it.
template <typename Function, typename... Arguments>
auto await(const string &what, Function function, Arguments... arguments) {
    const std::uint64_t latest = world.now() + (program->timeLimit + 5) * kMillisecond;
    const auto result = enter(what, function, arguments...);
    if (program->timeLimit > 0 && world.isPrompt() && world.now() > latest) {
        fail("waits for longer than its time limit");
    }
    return result;
}

// A thread that makes a node and uses it, once and again.
struct Actor {
    unsigned number;
    std::vector<Operation> operations[kPlaces]{};
    std::size_t handled = 0; // operations that handlers have carried out
    client_t *client = nullptr;
    Node *node = nullptr;
    Thread *spin = nullptr;

    void open();
    void start() {
        spin = !client ? nullptr : world.spawn(node->name + "'s", [this] {
            model.workFor(node);
            enter("spins", busClientSpin, client);
        });
    }
    void close();
    string call(const string &url, const string *data = nullptr);
    void carryOut(const Operation &operation);
    void carryOutAll(Place place) {
        std::for_each(operations[place].begin(), operations[place].end(),
                      [&](auto &o) { carryOut(o); });
    }
    // A handler carries out the next operation that is meant for one.
    void goOn() {
        handled < operations[kHandler].size() ? carryOut(operations[kHandler][handled++]) : void();
    }
    bool isAlone() const { return operations[kHandler].empty() && operations[kSecond].empty(); }
};

struct TimerUse {
    Actor *actor;
    Node *node;
    Timer *timer;
    int type;
};

int hear(void *self, client_t * /*client*/, char *about, char *data, int length) {
    const InLibrary no{false};
    auto &actor = *static_cast<Actor *>(self);
    model.isHanded(*actor.node, about, data, length);
    actor.goOn();
    actor.node->lookBegan = actor.node->lookedUntil = world.now();
    return 0;
}

char *reply(void *self, client_t *client, char *url, char *data, int length) {
    hear(self, client, url, data, length);
    const InLibrary no{false};
    const string text = string{"re:"} + (data ? data : "");
    const bool silent = std::strstr(url, "/silent");
    return silent ? nullptr
                  : std::strcpy(static_cast<char *>(allocate(text.size() + 1)), text.c_str());
}

int ring(void *arg, client_t * /*client*/, int type) {
    const InLibrary no{false};
    const auto &[actor, node, timer, given] = *static_cast<TimerUse *>(arg);
    type == given ? model.runsTimer(*node, *timer) : fail("another timer's type");
    actor->goOn();
    node->lookedUntil = world.now();
    return 0;
}

void Actor::open() {
    client = nullptr;
    for (int tries = program->loses() ? 10 : 1; !client && tries > 0; --tries) {
        node = &nodes.emplace_back(Node{"n" + to_string(number)});
        model.workFor(node);
        client = await("connects", busClientConnect, bus, node->name.c_str(), hear, reply, this);
    }
    client || program->loses() ? void() : fail("can't connect");
}

void Actor::close() {
    node->leaves = true;
    for (int i = 0; spin && !spin->ended(); world.pause(1), ++i) { // again where memory was short
        const bool asks = i == 0 || (program->loses() && i % 100 == 0);
        asks ? enter("asks its thread to end", busClientSpinExit, client) : 0;
    }
    enter("closes", busClientClose, std::exchange(client, nullptr));
    spin = nullptr;
}

// The answer, unless the call of another thread may have ended it.
string Actor::call(const string &url, const string *data) {
    const char *const text =
        await("calls " + url, busClientCall, client, url.c_str(), data ? data->data() : nullptr,
              data ? static_cast<int>(data->size()) : 7);
    if (!isAlone()) {
        return "";
    }
    note(string{"gets "} + (text ? text : "none"));
    model.getsAnswer(*node, text, url[1] == 'n' ? data ? data->c_str() : "" : "");
    return text ? text : "";
}

// ---- operations ----

string topicOf(unsigned number) {
    return (number % 2 == 0 ? "t" : "s") + to_string(number / 2 % 2);
}

void publish(Actor &actor, const string *data, bool sticky) {
    ++published;
    enter("publishes " + (data ? *data : "null"),
          sticky ? busClientPublishSticky : busClientPublish, actor.client, sticky ? "s1" : "t0",
          data ? data->data() : nullptr, data ? static_cast<int>(data->size()) : 7);
}

void changeTopics(Actor &actor, const Operation &o, bool adds) {
    const string topics =
        "[\"" + topicOf(o.a) + "\",\"" + (o.b % 4 == 0 ? "bus.error" : topicOf(o.b)) + "\"]";
    await((adds ? "subscribes " : "unsubscribes ") + topics,
          adds ? busClientSubscribe : busClientUnsubscribe, actor.client, topics.c_str());
}

void setTimer(Actor &actor, const Operation &o) {
    const unsigned delay = o.b % 3 == 0 ? 0 : o.b % 30;
    Timer &timer = actor.node->timers.emplace_back(Timer{world.now(), delay, o.a % 8 != 0});
    auto *const use = new TimerUse{&actor, actor.node, &timer, static_cast<int>(o.a)};
    timer.id = enter("sets a timer of " + to_string(delay) + " ms", busClientSettimer, actor.client,
                     timer.hasFunction ? ring : nullptr, static_cast<long>(delay), use->type, use);
    timer.set = world.now();
    timer.gone |= timer.id < 0;
}

void killTimer(Actor &actor, const Operation &o) {
    std::deque<Timer> &timers = actor.node->timers;
    if (!timers.empty() && timers[o.a % timers.size()].id > 0) {
        timers[o.a % timers.size()].killed = true;
        enter("kills a timer", busClientKilltimer, actor.client, timers[o.a % timers.size()].id);
    }
}

void awaitTimers(Actor &actor, const Operation &o) {
    const auto waits = [](const Timer &timer) { return timer.waits(); };
    const std::deque<Timer> &timers = actor.node->timers;
    while (o.place != kHandler && actor.spin && std::any_of(timers.begin(), timers.end(), waits)) {
        world.pause(1);
    }
}

void useKey(Actor &actor, const Operation &o) {
    const string set = R"({"operation":"set","persist":"true","data":)" + to_string(o.b) + "}";
    const string get = R"({"operation":"get"})";
    actor.call("/localKeys/k" + to_string(o.a % 3), o.b % 3 == 0 ? &get : &set);
}

void rejoin(Actor &actor) {
    if (actor.isAlone() && !actor.spin) {
        actor.node->leaves = true;
        actor.call("/bus/disjoin");
        actor.call("/n0/ask");
        actor.call("/bus/join");
        actor.node->leaves = false;
    }
}

void reopen(Actor &actor, const Operation &o) {
    if (o.place == kOwner && actor.operations[kSecond].empty()) {
        actor.close();
        actor.open();
        actor.start();
    }
}

enum Kind {
    kPublish,
    kSticky,
    kRemoveSticky,
    kSubscribe,
    kUnsubscribe,
    kCall,
    kService,
    kKey,
    kTimer,
    kKill,
    kPause,
    kAwait,
    kRejoin,
    kReopen,
    kRefused,
    kStop,
    kKinds
};

void Actor::carryOut(const Operation &o) {
    constexpr const char *kUrls[] = {"/bus/nodes", "/bus/join", "/b/nodes/x",
                                     "/bus/",      "/bus",      "/bus/joinx"};
    static long numbers = 0;
    // Who and which, and more, of several kinds.
    const string who = to_string(number * kPlaces + o.place) + "." + to_string(++numbers);
    const string ends[] = {"", "", string(300 + 10 * o.place, 'x'), string("\0y", 2),
                           string(198 - who.size(), 'z')};
    const string text = who + "|" + ends[o.b % 5];
    const string *const data = o.place == kOwner && o.b % 7 == 6 ? nullptr : &text;
    if (!client) {
        return;
    }
    switch (o.kind) {
    case kPublish:
    case kSticky:
        return publish(*this, data, o.kind == kSticky);
    case kRemoveSticky:
        return void(enter("removes sticky", busClientRemoveSticky, client,
                          ("[\"s1\",\"" + who + "\"]").c_str()));
    case kSubscribe:
    case kUnsubscribe:
        return changeTopics(*this, o, o.kind == kSubscribe);
    case kCall:
        return void(call("/n" + to_string(o.a % (program->actors + 1)) +
                             (o.b % 5 == 0 ? "/silent" : "/ask"),
                         data));
    case kService:
        return void(call(kUrls[o.a % std::size(kUrls)]));
    case kKey:
        return useKey(*this, o);
    case kTimer:
        return setTimer(*this, o);
    case kKill:
        return killTimer(*this, o);
    case kPause:
        return world.pause(o.b % (o.b % 2 == 0 ? 8 : 60));
    case kAwait:
        return awaitTimers(*this, o);
    case kRejoin:
        return rejoin(*this);
    case kReopen:
        return reopen(*this, o);
    case kRefused:
        return enter("subscribes to nothing", busClientSubscribe, client, "{}") == -1
                   ? void()
                   : fail("is not refused");
    default:
        return program->level > 1 ? void(enter("stops the bus", busClientServerExit, bus)) : void();
    }
}

void run(Actor &actor) {
    actor.open();
    actor.number % 3 != 2 ? actor.start() : void();
    Thread *const second = world.spawn(actor.node->name + " too", [&] {
        model.workFor(actor.node);
        actor.carryOutAll(kSecond);
    });
    actor.carryOutAll(kOwner);
    world.join(second);
    actor.number % 2 == 0 ? awaitTimers(actor, {}) : void();
    actor.close();
}

// A last node finds the bus empty.
void lookAround() {
    Actor last{99};
    while (!last.client) {
        last.open();
    }
    string seen;
    while (seen.empty()) { // again where the time was up
        seen = last.call("/bus/nodes");
    }
    seen == "{\n\t\"data\":\t[\"n99\"]\n}" ? last.close() : fail("the bus still knows " + seen);
}

} // namespace

void play(const Program &played) {
    program = &played;
    model.exact = played.level <= 1;
    disk.onLine = [](const string &line) { model.readLine(line); };
    disk.cutAt = played.powerFailsAt;
    const string configuration = "{\"level\":" + to_string(played.level) + ",\"path\":\"" + kLog +
                                 "\",\"size\":0,\"callTimeout\":" + to_string(played.timeLimit) +
                                 "}";
    bus = enter("makes the bus", busClientNew, configuration.c_str());
    bool over = false;
    Thread *const loop = world.spawn("bus", [&] {
        model.workFor(nullptr);
        while (!over) {
            enter("runs the bus", busClientBindServer, bus);
        }
    });
    Actor listener{98}; // hears everything
    if (!model.exact && !played.loses()) {
        listener.open();
        enter("subscribes", busClientSubscribe, listener.client, R"(["t0","s1"])");
        listener.start();
    }
    shortage = played.shortage;
    std::list<Actor> actors;
    std::vector<Thread *> threads;
    for (unsigned number = 0; number < played.actors; ++number) {
        Actor &actor = actors.emplace_back(Actor{number});
        for (const Operation &operation : played.operations) {
            operation.actor == number ? actor.operations[operation.place].push_back(operation)
                                      : void();
        }
        threads.push_back(world.spawn("n" + to_string(number), [&actor] { run(actor); }));
    }
    std::for_each(threads.begin(), threads.end(), [](Thread *thread) { world.join(thread); });
    shortage = {};
    while (listener.client && listener.node->heard < published) {
        world.pause(1);
    }
    listener.client ? listener.close() : void();
    lookAround();
    for (over = true; !loop->ended(); world.pause(1)) {
        enter("stops the bus", busClientServerExit, bus);
    }
    enter("deletes the bus", busClientDelete, bus);
    model.expectNothingOnItsWay();
    expectNothingLeft();
}

// Half of a world's operations are of a few kinds, which so come upon each other.
Program makeProgram(std::uint64_t seed) {
    constexpr unsigned kThemes[][4] = {{kPublish, kSubscribe, kUnsubscribe, kSticky},
                                       {kCall, kCall, kService, kTimer},
                                       {kTimer, kTimer, kPause, kCall},
                                       {kKey, kKey, kSticky, kStop},
                                       {kReopen, kRejoin, kCall, kStop},
                                       {kSticky, kRemoveSticky, kSubscribe, kReopen}};
    constexpr unsigned kRates[] = {3, 4, 20, 100};
    Random random{~seed};
    Program made;
    made.actors = 2 + random.below(3);
    const unsigned kind = random.below(10); // most worlds are exact, and lack nothing
    made.level = kind > 4 ? 1 : static_cast<int>(random.below(4)) + 2;
    made.timeLimit = kind < 3 ? 5 + random.below(40) : 0;
    made.shortage = {kind == 2 || kind == 3 ? kRates[random.below(4)] : 0,
                     kind == 4 ? 1 + random.below(400) : 0};
    made.powerFailsAt = kind == 5 ? 1 + random.below(10) : 0;
    const unsigned likely = made.timeLimit > 0 ? 1 : made.shortage.oneIn > 0 ? 2 : random.below(6);
    const auto &theme = kThemes[random.oneIn(2) ? likely : random.below(6)];
    const bool mixed = made.timeLimit == 0 &&
                       random.oneIn(2); // else only odd actors have handlers that do something
    for (unsigned left = 2 + random.below(random.oneIn(3) ? 40 : 16); left > 0; --left) {
        const unsigned actor = random.below(made.actors), any = random.below(2 * kKinds);
        const unsigned place =
            (mixed || actor % 2 == 1) && random.oneIn(3) ? 1 + random.below(2) : 0;
        const bool disturbs =
            place == kHandler ? random.oneIn(2) : made.level > 1 && random.oneIn(8);
        const unsigned kinds[] = {any, theme[any % 4], place == kHandler ? kPause : kStop};
        made.operations.push_back({actor, place,
                                   kinds[disturbs       ? 2
                                         : any < kKinds ? 0
                                                        : 1],
                                   random.below(1000), random.below(1000)});
    }
    return made;
}

} // namespace simulation
