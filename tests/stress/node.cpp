#include "node.h"

#include <algorithm>
#include <iterator>

using memory::Side;

namespace stress {
namespace {

std::string someTopic(Actor &actor) {
    return "topic" + std::to_string(below(actor.choice, 6));
}

std::size_t someSize(Actor &actor) {
    return below(actor.choice, oneIn(actor.choice, 50) ? 65536 : 100);
}

// All that can be the answer to a call along nodes.
constexpr std::string_view kAnswers[] = {"end", R"({"data":""})", R"({"data":"not implement"})",
                                         R"({"msg":"not implement"})"};

} // namespace

// ---- handlers ----

int Node::hear(void *node, client_t * /*client*/, char *topic, char *data, int len) {
    const Side own{false};
    auto &self = *static_cast<Node *>(node);
    ++self.world_.heard;
    Stamp stamp{};
    if (data && !std::string_view{topic}.starts_with("bus.")) {
        std::memcpy(&stamp, data, sizeof stamp);
        const std::string_view bytes{data, static_cast<std::size_t>(len)};
        if (bytes.find_first_not_of(stamp.filler(), sizeof stamp) != bytes.npos) {
            fault(self.name_ + " has heard a spoilt message on " + topic);
        }
        ++self.heard_;
    }
    if (stamp.number > 0 && !stamp.sticky &&
        std::exchange(self.last_heard_[stamp.actor], stamp.number) >= stamp.number) {
        fault(self.name_ + " has heard a message late or twice on " + topic);
    }
    self.actInHandler();
    return 0;
}

// The path is the rest of the way: names, then "end"; or asks what has been heard.
char *Node::answer(void *node, client_t * /*client*/, char *url, char * /*data*/, int /*len*/) {
    const Side own{false};
    auto &self = *static_cast<Node *>(node);
    ++self.world_.asked;
    const std::string rest = std::strchr(url + 1, '/');
    if (!self.world_.quiet && rest != "/end") {
        self.call(rest);
    }
    self.actInHandler();
    return mallocText(rest == "/heard" ? std::to_string(self.heard_) : "end");
}

int Node::fire(void *node, client_t * /*client*/, int /*type*/) {
    const Side own{false};
    auto &self = *static_cast<Node *>(node);
    --self.timers_;
    self.actInHandler();
    return 0;
}

void Node::actInHandler() {
    if (!world_.quiet && oneIn(self_.choice, 8)) {
        if (oneIn(self_.choice, 200)) {
            askToEnd();
        }
        act(self_, true);
    }
}

// ---- what a node does ----

void Node::act(Actor &actor, bool mayCall) {
    struct Row {
        bool waits;
        void (Node::*run)(Actor &); // or a call to url with data
        std::string_view url = {};
        std::string_view data = {};
    };
    static const Row kRows[] = {
        {false, &Node::publishSome}, // the first four are half of all
        {false, &Node::setTimers},
        {true, &Node::callNodes},
        {true, &Node::changeTopics},
        {false, &Node::removeSticky},
        {false, &Node::killTimer},
        {true, &Node::callKeys},
        {true, nullptr, "/localKeys/same", R"({"operation":"set","data":[1],"persist":"true"})"},
        {true, nullptr, "/localKeys/same", "{"},
        {true, nullptr, "/bus/nodes"},
        {true, nullptr, "/bus/stats"},
        {true, nullptr, "no address"},
        {true, nullptr, "/bus/join"},
        {true, nullptr, "/bus/disjoin"},
    };
    const unsigned count = oneIn(actor.choice, 2) ? 4 : std::size(kRows);
    const bool inTurn = world_.plan.refused > 0;
    const Row &row = kRows[inTurn ? actor.turn++ % std::size(kRows) : below(actor.choice, count)];
    if ((row.waits && !mayCall) || (row.url == "/bus/disjoin" && !world_.plan.rejoins)) {
        return;
    }
    world_.joins += row.url == "/bus/join" ? 1 : 0;
    if (row.run) {
        (this->*row.run)(actor);
    } else {
        call(std::string{row.url}, std::string{row.data});
    }
}

void Node::publishSome(Actor &actor) {
    const bool many = world_.plan.floods && oneIn(actor.choice, 50);
    for (unsigned left = 1 + below(actor.choice, many ? 3000 : 5); left > 0; --left) {
        publish(actor, someTopic(actor), someSize(actor), oneIn(actor.choice, 10));
    }
}

void Node::removeSticky(Actor &actor) {
    const std::string topics = "[\"" + someTopic(actor) + "\",\"" + someTopic(actor) + "\"]";
    const int result = memory::lib(busClientRemoveSticky, client_, topics.c_str());
    world_.published += result == 0 ? 1 : 0;
}

void Node::changeTopics(Actor &actor) {
    if (!subscribe(someTopic(actor), !oneIn(actor.choice, 3)) && world_.plan.refused == 0) {
        fault(name_ + " may not change its topics");
    }
}

void Node::setTimers(Actor &actor) {
    const bool many = world_.plan.floods && oneIn(actor.choice, 50);
    for (unsigned left = many ? 1100 : 1; left > 0; --left) {
        setTimer(actor, 5);
    }
}

// One that no phase lives to see.
void Node::killTimer(Actor & /*actor*/) {
    memory::lib(busClientKilltimer, client_, setTimer(1000000));
}

// Along one to five nodes: chains, rings, itself, nobody.
void Node::callNodes(Actor &actor) {
    std::string url;
    for (unsigned left = 1 + below(actor.choice, 5); left > 0; --left) {
        const std::string names[] = {name_, "nobody", "same"};
        const unsigned chosen = below(actor.choice, 8);
        const unsigned slot = below(actor.choice, world_.plan.slots);
        url += "/" + (chosen < std::size(names) ? names[chosen] : "n" + std::to_string(slot));
    }
    const auto answer = call(url + "/end", std::string(someSize(actor), 'x'));
    const bool itself = url.starts_with("/" + name_ + "/") && answer == "end";
    if (answer && (itself || std::ranges::find(kAnswers, *answer) == std::end(kAnswers))) {
        fault(name_ + " called " + url + ", answer " + *answer);
    }
}

// What was said to be stored has to be. The key is the actor's own.
void Node::callKeys(Actor &actor) {
    const std::string key = "/localKeys/key" + std::to_string(actor.id);
    const std::string value = std::to_string(below(actor.choice, 1000));
    const auto stored = call(key, R"({"operation":"set","data":)" + value + "}");
    const auto answer = call(key, R"({"operation":"get"})");
    if (stored && answer && answer != value && answer != kAnswers[2]) {
        fault(name_ + " has set " + value + " and got " + *answer);
    }
}

} // namespace stress
