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

constexpr long kLong = 1000000; // milliseconds; no phase lives to see that

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
        expect(bytes.find_first_not_of(stamp.filler(), sizeof stamp) == bytes.npos, self.name_,
               "a message is spoilt");
        ++self.heard_;
    }
    if (stamp.number > 0 && !stamp.sticky) {
        expect(std::exchange(self.last_heard_[stamp.actor], stamp.number) < stamp.number,
               self.name_, "a message comes late or twice");
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
        void (*run)(Node &, Actor &); // or a call to url with data
        std::string_view url = {};
        std::string_view data = {};
    };
    static constexpr Row kRows[] = {
        {false, [](Node &node, Actor &by) { node.publishSome(by); }}, // four are half of all
        {true, [](Node &node, Actor &by) { node.callNodes(by); }},
        {true, [](Node &node, Actor &by) { node.subscribe(someTopic(by), !oneIn(by.choice, 3)); }},
        {false, [](Node &node, Actor &by) { node.setTimer(by, 5); }},
        {false, [](Node &node, Actor &by) { node.removeSticky(someTopic(by)); }},
        {false, [](Node &node, Actor &) { node.killTimer(node.setTimer(kLong)); }},
        {true, [](Node &node, Actor &by) { node.callKeys(by); }},
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
        row.run(*this, actor);
    } else {
        call(std::string{row.url}, std::string{row.data});
    }
}

void Node::publishSome(Actor &actor) {
    const bool floods = world_.plan.floods && oneIn(actor.choice, 50);
    for (unsigned left = 1 + below(actor.choice, floods ? 3000 : 5); left > 0; --left) {
        publish(actor, someTopic(actor), someSize(actor), oneIn(actor.choice, 10));
        if (floods) {
            setTimer(actor, 5);
        }
    }
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
    const bool known = !answer || std::ranges::find(kAnswers, *answer) != std::end(kAnswers);
    expect(known && !itself, url, "has a wrong answer");
}

// What was said to be stored has to be. The key is the actor's own.
void Node::callKeys(Actor &actor) {
    const std::string key = "/localKeys/key" + std::to_string(actor.id);
    const std::string value = std::to_string(below(actor.choice, 1000));
    const auto stored = call(key, R"({"operation":"set","data":)" + value + "}");
    const auto answer = call(key, R"({"operation":"get"})");
    expect(!stored || !answer || answer == value || answer == kAnswers[2], key,
           "does not hold what has been set");
}

} // namespace stress
