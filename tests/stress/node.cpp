#include "node.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace stress {
namespace {

// In front of what is published.
struct Stamp {
    std::uint64_t actor;
    std::uint64_t number;
    std::uint64_t sticky; // may come again, and late
};

constexpr unsigned kTopics = 6;

std::string topicOf(unsigned number) {
    return "topic" + std::to_string(number);
}

std::string someTopics(Choice &choice) {
    std::string json = "[";
    for (unsigned topic = choice.below(kTopics); topic < kTopics; topic += 1 + choice.below(3)) {
        json += (json.size() > 1 ? ",\"" : "\"") + topicOf(topic) + "\"";
    }
    return json + "]";
}

std::size_t someSize(Choice &choice) {
    return choice.oneIn(50) ? choice.below(65536) : choice.below(100);
}

char fill(std::uint64_t number, std::size_t place) {
    return static_cast<char>(number + place);
}

std::string payload(const Stamp &stamp, std::size_t size) {
    std::string bytes(sizeof stamp + size, '\0');
    std::memcpy(bytes.data(), &stamp, sizeof stamp);
    for (std::size_t i = sizeof stamp; i < bytes.size(); ++i) {
        bytes[i] = fill(stamp.number, i);
    }
    return bytes;
}

bool isWhole(const Stamp &stamp, const char *data, std::size_t size) {
    for (std::size_t i = sizeof stamp; i < size; ++i) {
        if (data[i] != fill(stamp.number, i)) {
            return false;
        }
    }
    return data[size] == '\0';
}

// All that can be the answer to a call along nodes.
constexpr std::array<const char *, 4> kAnswers = {
    "end",
    R"({"data":""})",
    R"({"data":"not implement"})",
    R"({"msg":"not implement"})",
};

} // namespace

Plan choosePlan(std::uint64_t seed, unsigned phase) {
    Choice choice{seed, phase};
    Plan plan{};
    plan.seed = choice.next();
    constexpr int kTimeouts[] = {0, 0, 0, 1, 10, 100};
    plan.call_timeout = kTimeouts[choice.below(std::size(kTimeouts))];
    plan.level = choice.oneIn(8) ? 1 : 4;
    plan.workers = 2 + choice.below(4);
    plan.slots = plan.workers + choice.below(12);
    plan.steps = 200 + choice.below(1500);
    plan.restarts = choice.oneIn(2);
    plan.unspun = choice.oneIn(2);
    plan.rejoins = choice.oneIn(3);
    plan.floods = choice.oneIn(3);
    // Only a thread that is inside the loop for sure may be met by the deletion.
    plan.delete_while = !plan.restarts && choice.oneIn(2);
    return plan;
}

void Tally::add(const Tally &other) {
    published += other.published;
    calls += other.calls;
    heard += other.heard;
    asked += other.asked;
    timers_set += other.timers_set;
    timers_fired += other.timers_fired;
    kills += other.kills;
}

void World::fault(const std::string &what) {
    ++faults;
    std::fprintf(stderr, "fault: %s\n", what.c_str());
}

std::shared_ptr<Node> World::at(std::size_t slot) {
    const std::lock_guard lock{mutex};
    return slots[slot];
}

// ---- life ----

Node::Node(World &world, std::string name, Kind kind, std::uint64_t number)
    : world_{world},
      name_{std::move(name)},
      kind_{kind},
      self_{world, "node " + name_, number} {
    {
        const Watchdog::Doing doing{world.watchdog, name_, "connects"};
        client_ = busClientConnect(world.bus, name_.c_str(), hear, answer, this);
    }
    if (!client_) {
        ++world.not_connected;
        return;
    }
    ++world.connected;
    tally_.calls += 2;
    if (kind_ != Kind::kUnspun) {
        thread_ = std::thread{[this] {
            busClientSpin(client_);
            ended_.set();
        }};
    }
}

Node::~Node() {
    close();
}

void Node::close() {
    if (!client_) {
        return;
    }
    const Watchdog::Doing doing{world_.watchdog, name_, "is being closed"};
    closing_ = true;
    if (thread_.joinable()) {
        do { // again where the request found a full queue
            busClientSpinExit(client_);
        } while (!ended_.wait(std::chrono::milliseconds{20}));
        thread_.join();
    }
    const std::unique_lock lock{in_use_};
    busClientClose(std::exchange(client_, nullptr));
    world_.closed.add(tally_);
}

void Node::use(Actor &actor) {
    const std::shared_lock lock{in_use_, std::try_to_lock};
    if (lock.owns_lock() && !closing_ && client_) {
        act(actor, kind_ != Kind::kPrivate);
    }
}

void Node::askToEnd() {
    const std::shared_lock lock{in_use_, std::try_to_lock};
    if (lock.owns_lock() && client_) {
        busClientSpinExit(client_);
    }
}

// ---- handlers ----

int Node::hear(void *userdata, client_t * /*client*/, char *topic, char *data, int len) {
    auto &self = *static_cast<Node *>(userdata);
    const Watchdog::Doing doing{self.world_.watchdog, self.name_, "handles a publication"};
    ++self.tally_.heard;
    self.check(topic, data, len);
    self.actInHandler();
    return 0;
}

void Node::check(const char *topic, const char *data, int len) {
    const auto size = static_cast<std::size_t>(len);
    if (!data || std::string_view{topic}.starts_with("bus.")) {
        return;
    }
    Stamp stamp{};
    if (size < sizeof stamp) {
        world_.fault(name_ + " has heard " + std::to_string(len) + " bytes on " + topic);
        return;
    }
    std::memcpy(&stamp, data, sizeof stamp);
    if (!isWhole(stamp, data, size)) {
        world_.fault(name_ + " has heard a spoilt message on " + topic);
    }
    std::uint64_t &last = last_heard_[stamp.actor];
    if (stamp.sticky == 0 && std::exchange(last, stamp.number) >= stamp.number) {
        world_.fault(name_ + " has heard a message late or twice on " + topic);
    }
}

// The path is the rest of the way: names, then "end".
char *Node::answer(void *userdata, client_t * /*client*/, char *url, char * /*data*/, int /*len*/) {
    auto &self = *static_cast<Node *>(userdata);
    const Watchdog::Doing doing{self.world_.watchdog, self.name_, "answers a call"};
    ++self.tally_.asked;
    const char *const rest = std::strchr(url + 1, '/');
    if (!self.world_.quiet && rest && std::strcmp(rest, "/end") != 0) {
        self.callUrl(self.self_, rest, "");
    }
    self.actInHandler();
    return strdup("end");
}

int Node::fire(void *userdata, client_t * /*client*/, int /*type*/) {
    auto &self = *static_cast<Node *>(userdata);
    const Watchdog::Doing doing{self.world_.watchdog, self.name_, "handles a timer"};
    ++self.tally_.timers_fired;
    self.actInHandler();
    return 0;
}

void Node::actInHandler() {
    if (world_.quiet || !self_.choice.oneIn(8)) {
        return;
    }
    if (self_.choice.oneIn(200)) {
        busClientSpinExit(client_);
        return;
    }
    act(self_, true);
}

// ---- what a node does ----

void Node::act(Actor &actor, bool mayCall) {
    struct Row {
        unsigned weight;
        bool waits;
        void (Node::*run)(Actor &);
    };
    constexpr Row kRows[] = {
        {30, false, &Node::publish},     {3, false, &Node::removeSticky},
        {30, true, &Node::call},         {12, true, &Node::callService},
        {10, true, &Node::changeTopics}, {15, false, &Node::changeTimers},
    };
    unsigned chosen = actor.choice.below(100);
    for (const Row &row : kRows) {
        if (chosen < row.weight) {
            if (mayCall || !row.waits) {
                (this->*row.run)(actor);
            }
            return;
        }
        chosen -= row.weight;
    }
}

void Node::publish(Actor &actor) {
    Choice &choice = actor.choice;
    unsigned times = 1 + choice.below(5);
    if (world_.plan.floods && choice.oneIn(50)) {
        times = 500 + choice.below(2500);
    }
    for (; times > 0; --times) {
        const std::string topic = topicOf(choice.below(kTopics));
        const bool sticky = choice.oneIn(10);
        const auto send = sticky ? busClientPublishSticky : busClientPublish;
        ++tally_.published;
        if (choice.oneIn(10)) {
            send(client_, topic.c_str(), nullptr, 0);
            continue;
        }
        const Stamp stamp{actor.id, ++actor.published, sticky ? 1U : 0U};
        const std::string bytes = payload(stamp, someSize(choice));
        send(client_, topic.c_str(), bytes.data(), static_cast<int>(bytes.size()));
    }
}

void Node::removeSticky(Actor &actor) {
    const std::string topics = someTopics(actor.choice);
    ++tally_.published;
    busClientRemoveSticky(client_, topics.c_str());
}

// Along one to five nodes: chains, rings, itself, nobody.
void Node::call(Actor &actor) {
    Choice &choice = actor.choice;
    std::string url;
    for (unsigned left = 1 + choice.below(5); left > 0; --left) {
        switch (choice.below(8)) {
        case 0:
            url += "/" + name_;
            break;
        case 1:
            url += "/nobody";
            break;
        case 2:
            url += "/same";
            break;
        default:
            url += "/n" + std::to_string(choice.below(world_.plan.slots));
            break;
        }
    }
    callUrl(actor, url + "/end", std::string(someSize(choice), 'x'));
}

void Node::callService(Actor &actor) {
    Choice &choice = actor.choice;
    const std::string key = "/localKeys/key" + std::to_string(choice.below(4));
    struct Row {
        std::string url;
        std::string data;
    };
    const Row rows[] = {
        {"/bus/nodes", ""},
        {"/bus/stats", ""},
        {"/bus/nothing", ""},
        {"no address", ""},
        {key, R"({"operation":"get"})"},
        {key, R"({"operation":"set","data":{"value":)" + std::to_string(choice.below(100)) + "}}"},
        {key, choice.oneIn(10) ? R"({"operation":"set","data":[1,2],"persist":"true"})" : "{"},
        {world_.plan.rejoins ? "/bus/disjoin" : "/bus/join", ""},
        {"/bus/join", ""},
        {"/bus/join", ""},
    };
    const Row &row = rows[choice.below(std::size(rows))];
    callUrl(actor, row.url, row.data);
}

void Node::callUrl(Actor &actor, const std::string &url, const std::string &data) {
    const Watchdog::Doing doing{world_.watchdog, actor.name, name_ + " calls " + url};
    ++tally_.calls;
    const char *const text = busClientCall(
        client_, url.c_str(), data.empty() ? nullptr : data.data(), static_cast<int>(data.size()));
    if (kind_ == Kind::kOpen || !text || !url.ends_with("/end")) {
        return;
    }
    const std::string answer{text};
    if (std::find(kAnswers.begin(), kAnswers.end(), answer) == kAnswers.end()) {
        world_.fault(name_ + " called " + url + ", answer " + answer);
    }
    if (url.starts_with("/" + name_ + "/") && answer == "end") {
        world_.fault(name_ + " has called itself");
    }
}

void Node::changeTopics(Actor &actor) {
    const bool adds = !actor.choice.oneIn(3);
    const std::string topics = someTopics(actor.choice);
    const Watchdog::Doing doing{world_.watchdog, actor.name, name_ + " changes topics " + topics};
    if (actor.choice.oneIn(20)) { // is refused, and is no call
        if (busClientSubscribe(client_, "no array") != -1) {
            world_.fault("a subscription to no array");
        }
        return;
    }
    ++tally_.calls;
    (adds ? busClientSubscribe : busClientUnsubscribe)(client_, topics.c_str());
}

void Node::changeTimers(Actor &actor) {
    Choice &choice = actor.choice;
    if (choice.oneIn(3)) {
        ++tally_.kills;
        busClientKilltimer(client_, static_cast<int>(2 + choice.below(50)));
        return;
    }
    unsigned times = world_.plan.floods && choice.oneIn(50) ? 1100 : 1;
    for (; times > 0; --times) {
        ++tally_.timers_set;
        const long milliseconds = choice.oneIn(20) ? 1000000 : choice.below(20);
        busClientSettimer(client_, fire, milliseconds, 0, this);
    }
}

} // namespace stress
