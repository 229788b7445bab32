#include "program.h"

#include "bus_mk_queue.h"
#include "model.h"

#include <bus_client.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <optional>

namespace simulation {

using std::string;
using std::to_string;
using Text = std::optional<string>; // that the library is given; nothing: null

// A thread that makes a node and uses it, once and again.
struct Actor {
    unsigned number;
    std::deque<Operation> left[kPlaces]{}; // to be carried out
    bool has[kPlaces]{};                   // there have been any
    client_t *client = nullptr;
    Node *node = nullptr;
    Thread *spin = nullptr;

    explicit Actor(unsigned which) : number{which} {
        for (const Operation &operation : program.operations) {
            if (operation.actor == number) {
                left[operation.place].push_back(operation);
                has[operation.place] = true;
            }
        }
    }
    // Carries out the next operation that is meant for a place. False: there is none.
    bool goOn(Place place) {
        if (left[place].empty()) {
            return false;
        }
        const Operation next = left[place].front();
        left[place].pop_front();
        next.act(*this, next);
        return true;
    }
    void open(bool spins);
    void close();
    string call(const string &url, const Text &text = {});
};

namespace {

Zelvo_t *bus = nullptr;
constexpr unsigned kLong = 50'000; // milliseconds; nothing but time-outs takes as long
std::list<Node> nodes;             // all that there have been

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
    const unsigned limit =
        program.timeLimit > 0 && world.isPrompt() ? program.timeLimit + 5 : kLong;
    const std::uint64_t latest = world.now() + limit * kMillisecond;
    const auto result = enter(what, function, arguments...);
    expect(world.now() <= latest, "waits for longer than its time limit");
    return result;
}

// The text in a block that is no larger and does not outlast the call.
std::unique_ptr<char, void (*)(void *)> given(const Text &text) {
    char *const block = text ? static_cast<char *>(allocate(text->size())) : nullptr;
    if (text) {
        text->copy(block, text->size());
    }
    return {block, std::free};
}
int lengthOf(const Text &text) {
    return text ? static_cast<int>(text->size()) : 7;
}

// ---- handlers ----

int handle(Node &node) {
    node.handles = true;
    if (!node.actor->goOn(kHandler) && world.chance.oneIn(4)) {
        world.pause(world.chance.below(12));
    }
    node.handles = false;
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
    return std::strstr(url, "/silent")
               ? nullptr
               : std::strcpy(static_cast<char *>(allocate(text.size() + 1)), text.c_str());
}

int ring(void *self, client_t * /*client*/, int type) {
    const InLibrary no{false};
    auto &timer = *static_cast<Timer *>(self);
    expect(type == timer.type, "another timer's type");
    timer.node->runs(timer);
    return handle(*timer.node);
}

} // namespace

// ---- the node of an actor ----

void Actor::open(bool spins) {
    client = nullptr;
    for (int tries = program.loses() ? 10 : 1; !client && tries > 0; --tries) {
        world.current->node = node = &nodes.emplace_back(Node{"n" + to_string(number), this});
        client = await("connects", busClientConnect, bus, node->name.c_str(), hear, reply, node);
    }
    expect(client || program.loses(), "can't connect");
    const auto run = [this] {
        node->spins = true;
        enter("spins", busClientSpin, client);
    };
    spin = client && spins ? world.spawn(node->name + "'s", run, node) : nullptr;
}

void Actor::close() {
    node->leaves = true;
    for (int i = 0; spin && !spin->ended; world.pause(1), ++i) { // again where memory was short
        if (i == 0 || (program.loses() && i % 100 == 0)) {
            enter("asks its thread to end", busClientSpinExit, client);
            node->told = true;
        }
    }
    expect(!spin || !enter("calls once more", busClientCall, client, "/bus/nodes", nullptr, 0),
           "is answered, and has left the bus");
    for (int i = 0; program.closesShort && i < 200 && true; ++i) {
        world.yield(); // to meet a call that is on its way
    }
    shortage.next = program.closesShort ? 2 : 0; // to leave, and to be taken off
    enter("closes", busClientClose, std::exchange(client, nullptr));
    if (program.closesShort) {
        shortage.next = 0;
        world.pause(2 * kLong); // who waits for it now is not helped by what it does next
    }
}

// The answer, unless the call of another thread may have ended it.
string Actor::call(const string &url, const Text &text) {
    const char *const got = await("calls " + url, busClientCall, client, url.c_str(),
                                  given(text).get(), lengthOf(text));
    if (has[kHandler] || has[kHelper]) {
        return "";
    }
    node->getsAnswer(got, url[1] == 'n' && text ? text->c_str() : "");
    return got ? got : "";
}

namespace {

// ---- operations ----

// Who and which, and more, of several kinds; or nothing.
Text textOf(const Actor &actor, const Operation &o) {
    static long numbers = 0;
    const string who = to_string(actor.number * kPlaces + o.place) + "." + to_string(++numbers);
    const string ends[] = {"", "", string(300 + 10 * o.place, 'x'), string("\0y", 2),
                           string(198 - who.size(), 'z')};
    return o.place == kOwner && o.b % 7 == 6 ? Text{} : who + "|" + ends[o.b % 5];
}

// What begins with another's name is another one. Nodes publish on the first of these.
constexpr const char *kTopics[] = {"t", "s", "bus.event", "s.", "T", "t.", "bus.error"};

void publish(Actor &actor, const Operation &o) {
    const Text text = textOf(actor, o);
    const char *const topic = kTopics[o.a % 4];
    enter("publishes " + text.value_or("null") + " on " + topic,
          topic[0] == 's' ? busClientPublishSticky : busClientPublish, actor.client, topic,
          given(text).get(), lengthOf(text));
}

void removeSticky(Actor &actor, const Operation &o) {
    const string topics = R"(["s","none)" + to_string(o.b) + "\"]";
    enter("removes " + topics, busClientRemoveSticky, actor.client, topics.c_str());
}

template <int (*kChange)(client_t *, const char *) noexcept>
void changeTopics(Actor &actor, const Operation &o) {
    const string first = kTopics[o.a % 7], second = kTopics[o.b % 7];
    const string topics = o.a % 16 == 0 ? "{}" : "[\"" + first + "\",\"" + second + "\"]";
    const int result = await("changes topics " + topics, kChange, actor.client, topics.c_str());
    expect(result == (topics == "{}" ? -1 : 0) || program.loses(), "is refused, or not");
}

void call(Actor &actor, const Operation &o) {
    const string path = o.b % 5 == 0 ? "/silent" : "/ask";
    actor.call("/n" + to_string(o.a % (program.actors + 1)) + path, textOf(actor, o));
}

void askBus(Actor &actor, const Operation &o) {
    constexpr const char *kUrls[] = {"/bus/nodes", "/bus/join", "/b/nodes/x",
                                     "/bus/",      "/bus",      "/bus/joinx"};
    actor.call(kUrls[o.a % std::size(kUrls)]);
}

void useKey(Actor &actor, const Operation &o) {
    const string set = R"({"operation":"set","persist":"true","data":)" + to_string(o.b) + "}";
    const string get = R"({"operation":"get"})";
    actor.call("/localKeys/k" + to_string(o.a % 3), o.b % 3 == 0 ? get : set);
}

void setTimer(Actor &actor, const Operation &o) {
    const unsigned delay = o.b % 3 == 0 ? 0 : o.b % 12;
    Timer &timer = actor.node->timers.emplace_back(
        Timer{actor.node, static_cast<int>(o.a), delay, o.a % 8 != 0});
    timer.id =
        enter("sets a timer of " + to_string(delay) + " ms", busClientSettimer, actor.client,
              timer.hasFunction ? ring : nullptr, static_cast<long>(delay), timer.type, &timer);
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

void awaitTimers(Actor &actor, const Operation &o) {
    const auto waits = [](const Timer &t) { return t.isMissed(kNever, kNever); };
    while (o.place != kHandler && actor.spin && std::ranges::any_of(actor.node->timers, waits)) {
        world.pause(1);
    }
}

void reopen(Actor &actor, const Operation &o) {
    if (o.place == kOwner && !actor.has[kHelper]) {
        actor.close();
        actor.open(actor.spin);
    }
}

void stopBus(Actor & /*actor*/, const Operation & /*o*/) {
    if (!program.isExact()) {
        enter("stops the bus", busClientServerExit, bus);
    }
}

constexpr auto kSubscribe = changeTopics<busClientSubscribe>;
constexpr auto kUnsubscribe = changeTopics<busClientUnsubscribe>;
using Act = decltype(Operation::act);
constexpr Act kAll[] = {publish, publish,   removeSticky, kSubscribe, kUnsubscribe,
                        call,    askBus,    useKey,       setTimer,   killTimer,
                        pause,   meetTimer, awaitTimers,  reopen,     stopBus};
// Half of a world's operations are of a few kinds, which so come upon each other.
constexpr Act kThemes[][4] = {
    {publish, kSubscribe, pause, publish}, {call, call, askBus, setTimer},
    {setTimer, meetTimer, pause, call},    {useKey, useKey, publish, stopBus},
    {reopen, call, call, stopBus},         {publish, removeSticky, kSubscribe, reopen}};

// ---- a world ----

void live(Actor &actor) {
    actor.open(actor.number % 3 != (program.closesShort ? 1U : 2U));
    if (!actor.client) {
        return;
    }
    const auto helpOut = [&] {
        while (actor.goOn(kHelper)) {}
    };
    const Thread *const helper = world.spawn(actor.node->name + " too", helpOut, actor.node);
    while (actor.goOn(kOwner)) {}
    world.join(helper);
    if (actor.number % 2 == 0) {
        awaitTimers(actor, {});
    }
    actor.close();
}

// What does not balance in the bus's statistics, once only the node that asks is left.
void expectBalance(const string &stats) {
    const auto number = [&](const char *group, const char *name) {
        const std::size_t at = stats.find(string{'"'} + name + "\":", stats.find(group));
        return std::stol(stats.substr(at + std::strlen(name) + 3));
    };
    const auto left = [&](const char *name) { return number("\"left\"", name); };
    const long sent = left("sent") + number("\"nodes\"", "sent") + number("\"server\"", "posted");
    const long lost = sent - number("\"server\"", "taken") - number("\"server\"", "depth");
    expect(lost == 0 || lost == -1, "messages to the bus are lost: " + stats); // the request itself
    expect(number("\"server\"", "queueFull") == 0, "an answer finds no place: " + stats);
    long drops = number("\"server\"", "noMemory");
    for (const char *name : {"queueFull", "busFull", "ownFull", "noMemory"}) {
        drops += left(name) + number("\"nodes\"", name);
    }
    expect(drops >= losses, "the log tells of more losses: " + stats);
    const long taken = left("taken") + left("unread") + number("\"nodes\"", "depth");
    expect(number("\"server\"", "sent") == taken, "messages to nodes are lost: " + stats);
    expect(left("made") == left("answered") + left("refused") + left("timedOut") + left("givenUp"),
           "calls have no end: " + stats);
}

// Whatever the disk did, each file is whole.
void expectFiles() {
    for (const auto &entry : std::filesystem::directory_iterator{"."}) {
        std::ifstream file{entry.path()};
        const string text{std::istreambuf_iterator<char>{file}, {}};
        expect(text[0] == '{' && text.back() == '}', "a torn file: " + text);
    }
}

// A last node finds the bus empty, and may leave while it stops for good.
void lookAround(bool &over) {
    Actor last{99};
    const auto ask = [&](const char *url) {
        string answer;
        while (answer.empty()) { // again where the time was up
            answer = last.call(url);
        }
        return answer;
    };
    while (!last.client) {
        last.open(false);
    }
    const string seen = ask("/bus/nodes");
    expect(seen == "{\n\t\"data\":\t[\"n99\"]\n}", "the bus still knows " + seen);
    expectBalance(ask("/bus/stats"));
    over = true;
    if (!program.isExact()) {
        enter("stops the bus", busClientServerExit, bus);
    }
    last.close();
}

// Who waits for a limited time may destroy the queue that its sender has just been in.
void useQueue() {
    bus_mk_q_t *const q = enter("makes a queue", bus_mk_q_new, 2, nullptr);
    const Thread *const sender = world.spawn("s", [q] {
        world.pause(3);
        enter("sends", bus_mk_q_send, q, q, -1);
    });
    while (!enter("takes", bus_mk_q_recv, q, 1, 0, 1)) {
        enter("waits", bus_mk_q_wait, q, 3U);
    }
    enter("destroys the queue", bus_mk_q_clear, q, nullptr, 0);
    world.join(sender);
}

} // namespace

void play() {
    const string configuration = "{\"level\":" + to_string(program.level) +
                                 R"(,"path":"/dev/null","size":0,"stats":true,"callTimeout":)" +
                                 to_string(program.timeLimit) + "}";
    bus = enter("makes the bus", busClientNew, configuration.c_str());
    bool over = false;
    Thread *const loop = world.spawn("bus", [&] {
        while (!over) {
            enter("runs the bus", busClientBindServer, bus);
            world.pause(world.chance.below(2) * 50);
        }
    });
    shortage = program.shortage;
    world.rests = expectAllTaken;
    std::list<Actor> actors;
    std::vector<Thread *> threads;
    for (unsigned number = 0; number < program.actors; ++number) {
        Actor &actor = actors.emplace_back(number);
        threads.push_back(world.spawn("n" + to_string(number), [&actor] { live(actor); }));
    }
    std::ranges::for_each(threads, [](Thread *thread) { world.join(thread); });
    shortage = {};
    lookAround(over);
    for (; !loop->ended; world.pause(1)) {
        enter("stops the bus", busClientServerExit, bus);
    }
    enter("deletes the bus", busClientDelete, bus);
    expectNothingOnItsWay();
    for (int left = 4; left > 0; --left) {
        useQueue();
    }
    expectNothingLeft();
    expectFiles();
}

Program makeProgram(std::uint64_t seed) {
    constexpr unsigned kRates[] = {2, 2, 3, 20};
    constexpr unsigned kLikely[] = {1, 1, 2, 2, 0, 3, 4, 2, 2}; // theme of a kind of world
    Random random{~seed};
    Program made;
    const unsigned kind = random.below(12); // most worlds are exact, and lack nothing
    made.closesShort = kind == 6;
    made.actors = made.closesShort ? 2 : 2 + random.below(3);
    made.level = kind > 6 ? 1 : static_cast<int>(random.below(4)) + 2;
    made.timeLimit = kind < 3 ? 1 + random.below(40) * random.below(2) : 0;
    made.shortage = {kind == 2 || kind == 3 ? kRates[random.below(4)] : 0,
                     kind == 4 ? 1 + random.below(400) : 0, kind == 5 ? 2 + random.below(4) : 0};
    const bool isLikely = kind < std::size(kLikely) && random.oneIn(2);
    const auto &theme = kThemes[isLikely ? kLikely[kind] : random.below(6)];
    // Else only odd actors have handlers that do something.
    const bool mixed = made.timeLimit == 0 && random.oneIn(2);
    for (unsigned left = 2 + random.below(random.oneIn(3) ? 40 : 16); left > 0; --left) {
        const unsigned actor = random.below(made.actors);
        const bool aside = (mixed || actor % 2 == 1) && random.oneIn(3);
        const unsigned place = aside ? 1 + random.below(2) : 0;
        Act act = random.oneIn(2) ? kAll[random.below(std::size(kAll))] : theme[random.below(4)];
        if (made.closesShort && !random.oneIn(4)) { // calls on the way to a node that closes
            made.operations.push_back({actor == 1 ? reopen : call, actor, kOwner, 1, 1});
            continue;
        }
        if (place == kHandler && random.oneIn(2)) {
            act = pause;
        } else if (made.level > 1 && random.oneIn(8)) {
            act = stopBus;
        }
        made.operations.push_back({act, actor, place, random.below(1000), random.below(1000)});
    }
    return made;
}

} // namespace simulation
