#include "model.h"

#include <map>
#include <sstream>

namespace simulation {
namespace {

Node kBus{"busServer", nullptr};
const string kRequest = ",  action: request";
const string kEmpty = R"({"data":""})";
const string kUnknown = R"({"data":"not implement"})";
const string kLeave = R"({"event":"disjoin", "name":")";
const string kRing = R"({"errId":10001, "errMsg": "bus server deadlock, )"
                     R"(due to appearing R call A & A call R"})";

// From behind the last text to the next one.
string between(const string &text, const string &before, const string &after) {
    const std::size_t found = text.find(before);
    const std::size_t begin = found == text.npos ? text.size() : found + before.size();
    return text.substr(begin, text.find(after, begin) - begin);
}

// A field of a message's trace.
string fieldOf(const string &trace, const string &which) {
    return between(trace, which + ": ", which == "payload" ? ", payload len: " : ", ");
}

string traceOf(const string &action, const string &topic, const string &url, const char *data,
               std::size_t size) {
    const string payload = !data ? "NULL" : size > 0 && size < 200 ? data : "BinaryData...";
    return ",  action: " + action + ", topic: " + topic + ",  url: " + url +
           ", payload: " + payload + ", payload len: " + std::to_string(size);
}

// The texts in quotation marks.
std::vector<string> listed(const string &json) {
    std::vector<string> texts;
    std::istringstream parts{json};
    for (string part; std::getline(std::getline(parts, part, '"'), part, '"');) {
        texts.push_back(part);
    }
    return texts;
}

// ---- what the bus has to do with each message ----

std::vector<Node *> registry; // in the order of joining
std::map<string, string> sticky, keys;
std::deque<string> mustSay;
std::deque<Message> sent; // and not yet taken by the bus

Node *find(const string &name) {
    const auto found = std::ranges::find(registry, name, &Node::name);
    return found == registry.end() ? nullptr : *found;
}

void warnWhere(bool itDoes, const string &text) {
    if (itDoes) {
        mustSay.push_back("W  " + text);
    }
}

void send(Node &to, const string &trace) {
    to.inbox.push_back({&kBus, trace});
    mustSay.push_back(to.name + trace);
}

void publish(const string &topic, const string &trace) {
    for (Node *const node : registry) {
        if (node->topics.contains(topic)) {
            send(*node, trace);
        }
    }
}
void notify(const string &topic, const string &text) {
    publish(topic, traceOf("publish", topic, "NULL", text.c_str(), text.size()));
}

// Follows the calls that nodes wait for.
bool closesRing(const string &caller) {
    string at = caller;
    for (std::size_t steps = 0; steps <= registry.size(); ++steps) {
        const Node *const node = find(at);
        warnWhere(!node, "Vek-server client " + at + " is exit");
        at = node ? node->calls : "";
        if (at.empty() || at == caller) {
            return !at.empty();
        }
    }
    return false;
}

string useKey(const string &key, const string &payload) {
    string &value = keys.try_emplace(key, kEmpty).first->second;
    const string given = between(payload, "\"data\":", "}");
    return given.empty() ? value : (value = given, kEmpty);
}

string serve(const Message &message, const string &path) {
    Node &sender = *message.node;
    if (path == "/join" && !find(sender.name)) {
        notify("bus.event", R"({"event":"join", "name": ")" + sender.name + "\"}");
        mustSay.push_back("D  Vek-server " + sender.name + " node joined");
        registry.push_back(&sender);
    } else if (path == "/join") {
        warnWhere(true, "Vek-server, " + sender.name + " already exist");
    } else if (path == "/subscribe" || path == "/unsubscribe") {
        for (const string &topic : listed(fieldOf(message.trace, "payload"))) {
            if (path == "/unsubscribe") {
                const bool hasGone = sender.topics.erase(topic) > 0;
                warnWhere(!hasGone, sender.name + " already unsubscribe topic " + topic);
            } else if (!sender.topics.insert(topic).second) {
                warnWhere(true, "Vek-server " + sender.name + " already subscribe topic " + topic);
            } else if (sticky.contains(topic)) {
                send(sender, sticky[topic]);
            }
        }
    } else if (path == "/disjoin") {
        return kLeave + sender.name + "\"}";
    } else {
        return path.starts_with("/nodes") || path == "/stats" ? "*" : kUnknown;
    }
    return kEmpty;
}

// A text that is "*" may be anything.
void answer(const Message &request, const string &text) {
    const string trace =
        traceOf("response", "NULL", fieldOf(request.trace, "url"), text.c_str(), text.size());
    sent.push_back({&kBus, trace.substr(0, trace.find('*')), request.node->name});
    mustSay.push_back(kBus.name + sent.back().trace);
}

void request(const Message &message) {
    const string url = fieldOf(message.trace, "url"), to = url.substr(1, url.find('/', 1) - 1);
    const string path = url.substr(1 + to.size());
    message.node->calls = to;
    if (string{"bus"}.starts_with(to)) {
        answer(message, serve(message, path));
    } else if (string{"localKeys"}.starts_with(to)) {
        answer(message, useKey(path, fieldOf(message.trace, "payload")));
    } else if (closesRing(message.node->name)) {
        mustSay.push_back("E  bus server exist deadlock");
        answer(message, kEmpty);
        notify("bus.error", kRing);
    } else if (Node *const callee = find(to)) {
        send(*callee, message.trace);
    } else {
        answer(message, kUnknown);
    }
}

// The bus tells whom it has looked at.
void respond(const Message &message) {
    const auto isFor = [&name = message.requestor](const Node *node) {
        mustSay.push_back("V  Vek-server name: " + node->name + ", request_name: " + name);
        return node->name == name;
    };
    const auto found = std::ranges::find_if(registry, isFor);
    if (found == registry.end()) {
        return;
    }
    expect(fieldOf(message.trace, "url").starts_with("/" + std::exchange((*found)->calls, "")),
           "answers what nobody asks");
    (*found)->answer = message.trace;
    if (message.trace.find(kLeave) != string::npos) {
        registry.erase(found);
    }
}

void follow(Message message) {
    const string action = fieldOf(message.trace, "action"), topic = fieldOf(message.trace, "topic");
    const string name = "Vek-server " + message.node->name;
    if (action == "publishSticky") {
        message.trace.erase(message.trace.find("Sticky"), 6);
        publish(topic, message.trace);
        const string old = std::exchange(sticky[topic], message.trace);
        warnWhere(!old.empty(), name + " remove old then add new payload, topic " + topic);
    } else if (action == "publish") {
        publish(topic, message.trace);
    } else if (action == "removeSticky") {
        for (const string &gone : listed(fieldOf(message.trace, "payload"))) {
            warnWhere(sticky.erase(gone) == 0, name + " already removeSticky topic " + gone);
        }
    } else if (action == "request") {
        request(message);
    } else {
        respond(message);
    }
}

// ---- what the log says ----

// The level and the text of a line, without places in the sources and addresses; and of a message's
// trace, which looks the same from the bus and from nodes, whom it is from or for.
struct Line {
    string text, requestor, trace, from, to;

    explicit Line(const string &line) {
        const std::size_t begin = line.find('#', line.find('#') + 1) + 1;
        text = line[line.find(" [") + 2] + line.substr(begin, line.size() - begin - 1);
        text.erase(std::min(text.size(), text.find(": 0x")));
        requestor = between(text, ", requestor: ", ", payload:");
        if (!requestor.empty()) {
            text.replace(text.find(", requestor: "), 23 + requestor.size(), ", payload: ");
        }
        trace = text.substr(std::min(text.size(), text.find(",  action: ")));
        from = trace.empty() ? "" : between(text, " <== ", ",  action: ");
        to = trace.empty() ? "" : between(text, " ==> ", ",  action: ");
    }
};

void readBus(const Line &line) {
    const string said = line.to.empty() ? line.text : line.to + line.trace;
    if (!mustSay.empty() && said.starts_with(mustSay.front())) {
        mustSay.pop_front();
    }
    if (line.from.empty()) {
        return;
    }
    expect(mustSay.empty(), "the bus has not said: " + (mustSay.empty() ? "" : mustSay.front()));
    expect(!nameIsLost, "the bus has answered before the key file is on the disk");
    const auto next = std::ranges::find_if(sent, [&](const Message &m) {
        return m.node->name == line.from && line.trace.starts_with(m.trace) &&
               (m.node != &kBus || m.requestor == line.requestor);
    });
    if (next == sent.end()) {
        return expect(line.trace.starts_with(",  action: exit,"), "nobody has sent it");
    }
    const auto isBefore = [&](const Message &m) { return m.thread == next->thread; };
    expect(std::none_of(sent.begin(), next, isBefore), "its thread has sent another one before");
    const Message taken{next->node, line.trace, line.requestor};
    sent.erase(next);
    follow(taken);
}

// A look has to do with the timers that were there when it began, and ends when none of them is
// due. So they have run before the node takes the next message, or runs one that was set later.
void expectLooked(const Node &node, std::uint64_t began, std::uint64_t until) {
    for (const Timer &timer : node.timers) {
        expect(!timer.isMissed(began, until),
               "timer " + std::to_string(timer.id) + " is due, and something else comes first");
    }
}

void nodeTakes(Node &node, const string &trace) {
    expectLooked(node, node.lookBegan, node.lookedUntil);
    const string action = fieldOf(trace, "action");
    node.drains |= action == "exit";
    expect(node.drains || node.mayTake-- > 0, "is told to leave, and takes another message");
    for (Timer &timer : node.timers) {
        timer.gone |= fieldOf(trace, "payload") == "{\"id\": " + std::to_string(timer.id) + "}";
    }
    if (action == "killtimer" || action == "exit") {
        return;
    }
    const auto mayBe = [&](auto &m) { return !node.drains || m.trace.starts_with(kRequest); };
    const auto next = std::ranges::find_if(node.inbox, mayBe);
    expect(next != node.inbox.end() && next->trace == trace, "the bus has not sent it this next");
    if (world.isPrompt()) { // it has looked since the message came, or not long before
        expectLooked(node, next->sent - kMillisecond, next->sent - kMillisecond);
    }
    node.taken = next->trace;
    node.inbox.erase(next);
}

// Warnings and errors that tell of what the application does.
constexpr const char *kUsual[] = {" already ", " remove old ",        " is exit",
                                  "deadlock",  "params format error", "timerId overstep"};

} // namespace

void readLine(const string &line) {
    const Line read{line};
    const string &text = read.text;
    const auto isPart = [&](const char *part) { return text.find(part) != text.npos; };
    note("log: " + text);
    expect(!isPart("\xDD"), "writes memory that is free to the log");
    Node *const node = world.current->node;
    const bool isForetold = !mustSay.empty() && text == mustSay.front();
    const bool isUsual = std::ranges::any_of(kUsual, isPart) || program.loses();
    expect((text[0] != 'W' && text[0] != 'E') ||
               (program.isExact() && !node ? isForetold : isUsual),
           "nothing explains: " + text);
    const bool isRefused = isPart("queue is full") && !isPart(" subscribe topic ");
    const bool isServers = text.starts_with("E  Vek-server ") &&
                           (text.ends_with(" failed") || text.ends_with(" not kept"));
    losses[isPart("Vek-client")] += isRefused || isServers || isPart("killtimer failed") ? 1 : 0;
    if (program.isExact() && !node) {
        readBus(read);
    } else if (program.isExact() && read.to == kBus.name) {
        sent.push_back({node, read.trace});
    } else if (program.isExact() && read.from == kBus.name) {
        nodeTakes(*node, read.trace);
    }
}

// ---- what the application sees ----

void Node::getsAnswer(const char *text, const string &asked) const {
    const string got = text ? text : "none";
    note("gets " + got);
    const string trace =
        traceOf("response", "NULL", between(answer, "url: ", ", "), text, got.size());
    expect((text ? trace == answer : leaves) || !program.isExact(), "is handed " + answer);
    expect(!got.starts_with("re:") || got == "re:" + asked, "asks " + asked + " and gets " + got);
}

void Node::isHanded(const string &about, const char *data, int length) const {
    note("is handed " + about + " " + (data ? data : "null"));
    expectLooked(*this, lookBegan, lookedUntil);
    const bool isCall = about[0] == '/';
    const string trace = traceOf(isCall ? "request" : "publish", isCall ? "NULL" : about,
                                 isCall ? about : "NULL", data, static_cast<std::size_t>(length));
    expect(!program.isExact() || trace == taken, "has taken " + taken);
}

void Node::runs(Timer &timer) {
    note("runs timer " + std::to_string(timer.id));
    expect(!std::exchange(timer.gone, true) && world.now() >= timer.due(timer.begun),
           "it runs again, or after it was killed, or before it is due");
    expectLooked(*this, std::min(timer.begun, lookBegan) - 1, lookBegan);
    lookBegan = std::max(lookBegan, timer.begun); // it had to be there
}

void expectAllTaken() {
    expect(mustSay.empty() && sent.empty(), "the bus has something to take, or to say");
    for (const Node *node : registry) {
        expect(node->isBusy || node->drains || node->inbox.empty(),
               "a message has come, and its node sleeps on");
    }
}

} // namespace simulation
