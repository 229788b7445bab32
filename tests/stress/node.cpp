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

// Of size bytes, or of as many as the stamp needs.
std::string payload(const Stamp &stamp, std::size_t size) {
    std::string bytes(std::max(size, sizeof stamp), '\0');
    std::memcpy(bytes.data(), &stamp, sizeof stamp);
    for (std::size_t i = sizeof stamp; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(stamp.number + i);
    }
    return bytes;
}

// All that can be the answer to a call along nodes.
constexpr std::array<std::string_view, 4> kAnswers = {
    "end", R"({"data":""})", R"({"data":"not implement"})", R"({"msg":"not implement"})"};

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
      self_{world, number},
      running_{world.bus, name_, hear, answer, this, kind != Kind::kUnspun} {
    ++(exists() ? world.connected : world.not_connected);
    tally_.calls += exists() ? 2 : 0;
}

void Node::close() {
    if (!exists()) {
        return;
    }
    closing_ = true;
    running_.leave();
    const std::unique_lock lock{in_use_};
    running_.close();
    world_.closed.add(tally_);
}

void Node::use(Actor &actor) {
    const std::shared_lock lock{in_use_, std::try_to_lock};
    if (lock.owns_lock() && !closing_ && client()) {
        act(actor, kind_ != Kind::kPrivate);
    }
}

void Node::askToEnd() {
    const std::shared_lock lock{in_use_, std::try_to_lock};
    if (lock.owns_lock() && client()) {
        busClientSpinExit(client());
    }
}

// ---- handlers ----

int Node::hear(void *userdata, client_t * /*client*/, char *topic, char *data, int len) {
    auto &self = *static_cast<Node *>(userdata);
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
    std::memcpy(&stamp, data, std::min(size, sizeof stamp));
    if (payload(stamp, size) != std::string_view{data, size}) {
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
    ++self.tally_.asked;
    const char *const rest = std::strchr(url + 1, '/');
    if (!self.world_.quiet && rest && std::strcmp(rest, "/end") != 0) {
        self.callUrl(rest, "");
    }
    self.actInHandler();
    return strdup("end");
}

int Node::fire(void *userdata, client_t * /*client*/, int /*type*/) {
    auto &self = *static_cast<Node *>(userdata);
    ++self.tally_.timers_fired;
    self.actInHandler();
    return 0;
}

void Node::actInHandler() {
    if (world_.quiet || !self_.choice.oneIn(8)) {
        return;
    }
    if (self_.choice.oneIn(200)) {
        busClientSpinExit(client());
    } else {
        act(self_, true);
    }
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
            send(client(), topic.c_str(), nullptr, 0);
            continue;
        }
        const Stamp stamp{actor.id, ++actor.published, sticky ? 1U : 0U};
        const std::string bytes = payload(stamp, someSize(choice));
        send(client(), topic.c_str(), bytes.data(), static_cast<int>(bytes.size()));
    }
}

void Node::removeSticky(Actor &actor) {
    const std::string topics = someTopics(actor.choice);
    ++tally_.published;
    busClientRemoveSticky(client(), topics.c_str());
}

// Along one to five nodes: chains, rings, itself, nobody.
void Node::call(Actor &actor) {
    Choice &choice = actor.choice;
    const std::string special[] = {name_, "nobody", "same"};
    std::string url;
    for (unsigned left = 1 + choice.below(5); left > 0; --left) {
        const unsigned chosen = choice.below(8);
        url += "/" + (chosen < std::size(special)
                          ? special[chosen]
                          : "n" + std::to_string(choice.below(world_.plan.slots)));
    }
    callUrl(url + "/end", std::string(someSize(choice), 'x'));
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
    callUrl(row.url, row.data);
}

void Node::callUrl(const std::string &url, const std::string &data) {
    ++tally_.calls;
    const char *const text = busClientCall(
        client(), url.c_str(), data.empty() ? nullptr : data.data(), static_cast<int>(data.size()));
    if (kind_ == Kind::kOpen || !text || !url.ends_with("/end")) {
        return;
    }
    const std::string answer{text};
    const bool itself = url.starts_with("/" + name_ + "/") && answer == "end";
    if (itself || std::find(kAnswers.begin(), kAnswers.end(), answer) == kAnswers.end()) {
        world_.fault(name_ + " called " + url + ", answer " + answer);
    }
}

void Node::changeTopics(Actor &actor) {
    const bool adds = !actor.choice.oneIn(3);
    const std::string topics = someTopics(actor.choice);
    if (actor.choice.oneIn(20)) { // is refused, and is no call
        if (busClientSubscribe(client(), "no array") != -1) {
            world_.fault("a subscription to no array");
        }
        return;
    }
    ++tally_.calls;
    (adds ? busClientSubscribe : busClientUnsubscribe)(client(), topics.c_str());
}

void Node::changeTimers(Actor &actor) {
    Choice &choice = actor.choice;
    if (choice.oneIn(3)) {
        ++tally_.kills;
        busClientKilltimer(client(), static_cast<int>(2 + choice.below(50)));
        return;
    }
    for (int times = world_.plan.floods && choice.oneIn(50) ? 1100 : 1; times > 0; --times) {
        ++tally_.timers_set;
        const long milliseconds = choice.oneIn(20) ? 1000000 : choice.below(20);
        busClientSettimer(client(), fire, milliseconds, 0, this);
    }
}

} // namespace stress
