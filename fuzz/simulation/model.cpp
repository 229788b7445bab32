#include "model.h"

#include "scheduler.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

namespace simulation {
namespace {

using std::string;

const string kBus = "busServer";
const string kEmpty = R"({"data":""})";
const string kUnknown = R"({"data":"not implement"})";
const string kNoHandler = R"({"msg":"not implement"})";
const string kRing = R"({"errId":10001, "errMsg": "bus server deadlock, )"
                     R"(due to appearing R call A & A call R"})";

// From behind the last text to the next one.
string between(const string &text, const string &before, const string &after) {
    const std::size_t found = text.find(before);
    const std::size_t begin = found == text.npos ? text.size() : found + before.size();
    return text.substr(begin, after.empty() ? text.npos : text.find(after, begin) - begin);
}

string traceOf(const string &action, const string &topic, const string &url, const char *data,
               std::size_t size) {
    const string payload = !data ? "NULL" : size > 0 && size < 200 ? data : "BinaryData...";
    return ",  action: " + action + ", topic: " + topic + ",  url: " + url +
           ", payload: " + payload + ", payload len: " + std::to_string(data ? size : 0);
}

// The level and the text of a line. Places in the sources and addresses are left out, and traces of
// bus and nodes look the same.
string wordsOf(const string &line) {
    const std::size_t begin = line.find('#', line.find('#') + 1) + 1;
    string text = line[line.find(" [") + 2] + line.substr(begin, line.size() - begin - 1);
    if (text.compare(13, 2, " #") == 0) {
        text.erase(13, text.find("# ", 15) - 12);
    }
    for (std::size_t at = 0; (at = text.find("0x", at)) != text.npos;) {
        text.erase(at, text.find_first_not_of("0123456789abcdefx", at) - at);
    }
    if (const string requestor = between(text, ", requestor: ", ", payload:"); !requestor.empty()) {
        text.replace(text.find(", requestor: "), 23 + requestor.size(), ", payload: ");
    }
    return text;
}

std::vector<string> listed(const string &json) {
    std::vector<string> texts;
    for (std::size_t at = 0, end = 0; (at = json.find('"', end)) != json.npos; ++end) {
        end = json.find('"', at + 1);
        texts.push_back(json.substr(at + 1, end - at - 1));
    }
    return texts;
}

bool isReserved(const string &host) {
    return string{"bus"}.starts_with(host) || string{"localKeys"}.starts_with(host);
}

struct Entry { // of the registry
    Node *node;
    std::vector<string> topics{};
    string calls{}; // the host that the node waits for

    bool hears(const string &topic) const {
        return std::count(topics.begin(), topics.end(), topic) > 0;
    }
};

// What the bus has to do with each message.
class Bus {
public:
    std::map<string, Node *> latest{}; // of each name
    std::deque<string> mustSay{};
    std::deque<Entry> registry{}; // in the order of joining

    Entry *find(const string &name) {
        const auto is = [&](const Entry &entry) { return entry.node->name == name; };
        const auto found = std::find_if(registry.begin(), registry.end(), is);
        return found == registry.end() ? nullptr : &*found;
    }
    void expectSilence() const {
        if (!mustSay.empty()) {
            fail("the bus has not said: " + mustSay.front());
        }
    }
    // Whether it had to; what begins with "*" stands for anything.
    bool says(const string &text) {
        const bool right =
            !mustSay.empty() && text.starts_with(between(mustSay.front() + "*", "", "*"));
        right ? mustSay.pop_front() : void();
        return right;
    }
    void take(const Message &message) {
        const string action = message.field("action");
        if (action.starts_with("publish")) {
            publish(message);
        }
        if (action == "publishSticky" &&
            !sticky.insert_or_assign(message.field("topic"), message).second) {
            warn(message.name + " remove old then add new payload, topic " +
                 message.field("topic"));
        } else if (action == "removeSticky") {
            for (const string &topic : listed(message.field("payload"))) {
                sticky.erase(topic) > 0
                    ? void()
                    : warn(message.name + " already removeSticky topic " + topic);
            }
        } else if (action == "request") {
            request(message);
        } else if (action == "response") {
            respond(message);
        }
    }

private:
    void say(const string &text) { mustSay.push_back(text); }
    void warn(const string &text) { say("W  Vek-server " + text); }
    void send(const string &to, const Message &message) {
        string trace = message.trace;
        if (trace.starts_with(",  action: publishSticky")) {
            trace.erase(18, 6);
        }
        say("V  Vek-server busServer ==> " + to + trace);
    }
    void publish(const Message &message) {
        for (const Entry &entry : registry) {
            entry.hears(message.field("topic")) ? send(entry.node->name, message) : void();
        }
    }
    void notify(const string &topic, const string &text) {
        publish({kBus, "", traceOf("publish", topic, "NULL", text.c_str(), text.size())});
    }
    void answer(const Message &request, const string &text) {
        const string trace =
            traceOf("response", "NULL", request.field("url"), text.c_str(), text.size());
        say("V  Vek-server busServer ==> " + kBus +
            (text == "*" ? between(trace, "", "*") + "*" : trace));
    }
    void request(const Message &message) {
        const string url = message.field("url");
        const std::size_t slash = url.find('/', 2);
        if (slash == url.npos) {
            say("E  Vek-server not url path");
            return answer(message, kUnknown);
        }
        const string host = url.substr(1, slash - 1), path = url.substr(slash);
        say("V  Vek-server host: " + host + ", path: " + path);
        Entry *const sender = find(message.name);
        (sender ? sender->calls : host_) = host;
        if (isReserved(host)) {
            answer(message, host[0] == 'b' ? serve(message, sender, path) : "*");
        } else if (closesRing(message.name)) {
            say("E  bus server exist deadlock");
            answer(message, kEmpty);
            notify("bus.error", kRing);
        } else {
            find(host) ? send(host, message) : answer(message, kUnknown);
        }
    }
    // Follows the calls that nodes wait for.
    bool closesRing(const string &caller) {
        string host = caller;
        for (std::size_t step = 0;; ++step) {
            const Entry *const entry = step > 0 && isReserved(host) ? nullptr : find(host);
            entry ? void() : warn("client " + host + " is exit");
            if (!entry || entry->calls.empty() || step == registry.size()) {
                return false;
            }
            say("D  Vek-server " + host + " call " + entry->calls + ", target: " + caller);
            host = entry->calls;
            if (host == caller) {
                return true;
            }
        }
    }
    string serve(const Message &message, Entry *sender, const string &path) {
        const std::vector<string> topics = listed(message.field("payload"));
        if (path == "/") {
            say("E  Vek-server not url path");
            return "";
        } else if (path == "/join" && sender) {
            say("W  Vek-server, " + message.name + " already exist");
        } else if (path == "/join") {
            notify("bus.event", R"({"event":"join", "name": ")" + message.name + "\"}");
            say("D  Vek-server " + message.name + " node joined");
            registry.push_back({latest[message.name], {}, "bus"});
        } else if (path == "/subscribe") {
            std::for_each(topics.begin(), topics.end(),
                          [&](const string &t) { subscribe(*sender, t); });
        } else if (path == "/unsubscribe") {
            for (const string &topic : topics) {
                const bool known = std::erase(sender->topics, topic) > 0;
                known ? void() : say("W  " + message.name + " already unsubscribe topic " + topic);
            }
        } else if (path.starts_with("/nodes")) {
            string names;
            for (const Entry &entry : registry) {
                names += (names.empty() ? "\"" : ", \"") + entry.node->name + "\"";
            }
            return "{\n\t\"data\":\t[" + names + "]\n}";
        } else if (path == "/disjoin") {
            say("V  Vek-server " + message.name + " disjoin");
            return R"({"event":"disjoin", "name":")" + message.name + "\"}";
        } else {
            return path == "/stats" ? "*" : kUnknown;
        }
        return kEmpty;
    }
    void subscribe(Entry &entry, const string &topic) {
        if (entry.hears(topic)) {
            return warn(entry.node->name + " already subscribe topic " + topic);
        }
        entry.topics.push_back(topic);
        sticky.count(topic) > 0 ? send(entry.node->name, sticky[topic]) : void();
    }
    void respond(const Message &message) {
        for (const Entry &entry : registry) {
            say("V  Vek-server name: " + entry.node->name + ", request_name: " + message.requestor);
            if (entry.node->name == message.requestor) {
                send(message.requestor, message);
                break;
            }
        }
        if (message.name == kBus && message.field("payload").starts_with(R"({"event":"disjoin")")) {
            say("D  Vek-server " + message.requestor + " disjoin");
        }
    }

    std::map<string, Message> sticky{};
    string host_{}; // of a call by a node that is about to join
};
Bus bus;

// ---- what the log says ----

int busThread = 0;
std::map<int, Node *> works;             // which node a thread works for
std::map<int, std::deque<Message>> sent; // by each thread, and not yet taken by the bus
Message current;                         // taken by the bus

void busTakes(const string &from, const string &trace) {
    bus.expectSilence();
    const auto is = [&](const auto &messages) {
        return !messages.second.empty() && messages.second.front().name == from &&
               messages.second.front().trace == trace;
    };
    const auto found = std::find_if(sent.begin(), sent.end(), is);
    if (found != sent.end()) {
        current = found->second.front();
        found->second.pop_front();
        bus.take(current);
    } else if (!trace.starts_with(",  action: exit,")) {
        fail("the bus takes what nobody has sent next: " + from + trace);
    }
}

void readBus(const string &text, const string &trace) {
    const string to = between(text, "Vek-server busServer ==> ", ",  action: ");
    if (text.starts_with("V  Vek-server busServer <== ")) {
        return busTakes(between(text, "<== ", ",  action: "), trace);
    }
    const bool matters =
        text[0] == 'W' || text[0] == 'E' || !to.empty() || text.ends_with("disjoin");
    if (!bus.says(text) && matters) {
        fail("the bus must say: " + (bus.mustSay.empty() ? "nothing" : bus.mustSay.front()) +
             "\n  and says: " + text);
    }
    if (to == kBus) {
        sent[busThread].push_back({kBus, current.name, trace});
    } else if (!to.empty() && trace.starts_with(",  action: response")) {
        bus.find(to)->node->answer = trace;
        bus.find(to)->calls.clear();
    } else if (!to.empty()) {
        bus.find(to)->node->inbox.push_back({"", current.name, trace});
    } else if (text.starts_with("D  Vek-server ") && text.ends_with(" disjoin")) {
        const string name = between(text, "Vek-server ", " disjoin");
        std::erase_if(bus.registry, [&](const Entry &entry) { return entry.node->name == name; });
    }
}

void nodeSends(Node &node, Message message) {
    const auto is = [&](const Message &m) {
        return m.field("action") == "request" && m.field("url") == message.field("url");
    };
    const auto waiting = std::find_if(node.inbox.begin(), node.inbox.end(), is);
    if (message.field("action") == "response" && is(node.taken)) {
        message.requestor = std::exchange(node.taken, {}).requestor;
    } else if (message.field("action") == "response" &&
               waiting != node.inbox.end()) { // by its close
        message.requestor = waiting->requestor;
        node.inbox.erase(waiting);
    }
    sent[world.current->number].push_back(message);
}

// A look has to do with the timers that were there when it began, and ends when none of them is
// due. So they have run before the node takes the next message.
void expectLooked(const Node &node) {
    for (const Timer &timer : node.timers) {
        if (timer.waits() && timer.set <= node.lookBegan &&
            timer.due(timer.set) <= node.lookedUntil) {
            fail("timer " + std::to_string(timer.id) + " is due, and a message is taken first");
        }
    }
}

void nodeTakes(Node &node, const Message &message) {
    expectLooked(node);
    const string action = message.field("action");
    node.drains = node.drains || action == "exit";
    for (Timer &timer : node.timers) {
        timer.gone |= message.field("payload") == "{\"id\": " + std::to_string(timer.id) + "}";
    }
    if (action == "killtimer" || action == "exit") {
        return;
    }
    const auto mayBe = [&](const Message &m) {
        return !node.drains || m.field("action") == "request";
    };
    const auto next = std::find_if(node.inbox.begin(), node.inbox.end(), mayBe);
    if (next == node.inbox.end() || next->trace != message.trace) {
        fail("the bus has not sent it this next");
    }
    node.taken = *next;
    node.inbox.erase(next);
}

void readNode(Node &node, const string &text, const string &trace) {
    const auto runsNothing = [](const Timer &t) {
        return !t.hasFunction && !t.gone && t.due(t.begun) <= world.now();
    };
    const auto timer = std::find_if(node.timers.begin(), node.timers.end(), runsNothing);
    if (text.find(" ==> busServer,  action: ") != text.npos) {
        nodeSends(node, {node.name, "", trace});
    } else if (text.find(" <== busServer,  action: ") != text.npos) {
        nodeTakes(node, {"", "", trace});
    } else if (text.ends_with("timer func not implement") && timer != node.timers.end()) {
        timer->gone = true;
    } else if ((text[0] == 'W' || text[0] == 'E') && !text.ends_with("params format error") &&
               !text.ends_with("timerId overstep the boundary 32767")) {
        fail("nothing explains: " + text);
    }
}

} // namespace

string Message::field(const char *which) const {
    return between(trace, string{which} + ": ",
                   which == string{"payload"} ? ", payload len: " : ", ");
}

void Model::readLine(const string &line) {
    const string text = wordsOf(line);
    note("log: " + text);
    if (text.find('\xDD') != text.npos) {
        fail("writes memory that is free to the log");
    }
    const string trace = text.substr(std::min(text.size(), text.find(",  action: ")));
    if (exact && world.current->number == busThread) {
        readBus(text, trace);
    } else if (exact && works[world.current->number]) {
        readNode(*works[world.current->number], text, trace);
    }
}

// ---- what the application sees ----

void Model::workFor(Node *node) {
    works[world.current->number] = node;
    busThread = node ? busThread : world.current->number;
    (node ? bus.latest[node->name] : node) = node;
}

void Model::getsAnswer(const Node &node, const char *text, const string &asked) {
    const string answer = text ? text : "none";
    const string trace =
        traceOf("response", "NULL", between(node.answer, "url: ", ", "), text, answer.size());
    const string known[] = {"none", kEmpty, kUnknown, kNoHandler, "re:" + asked};
    if ((exact && (text ? trace != node.answer : !node.leaves)) ||
        (!asked.empty() && std::count(std::begin(known), std::end(known), answer) == 0)) {
        fail("asks " + asked + ", is handed " + node.answer + " and gets " + answer);
    }
}

void Model::isHanded(Node &node, const string &about, const char *data, int length) {
    note("is handed " + about + " " + (data ? data : "null"));
    expectLooked(node);
    const bool isCall = about[0] == '/';
    const string trace = traceOf(isCall ? "request" : "publish", isCall ? "NULL" : about,
                                 isCall ? about : "NULL", data, static_cast<std::size_t>(length));
    if (exact && trace != node.taken.trace) {
        fail("has taken " + node.taken.trace);
    }
    int publisher = 0;
    long number = 0;
    node.heard += about[0] == 't' || about[0] == 's' ? 1 : 0;
    if (about[0] == 't' && data && std::sscanf(data, "%d.%ld|", &publisher, &number) == 2 &&
        number <= std::exchange(node.last[publisher], number)) {
        fail("it has heard a later one of this publisher");
    }
}

void Model::runsTimer(Node &node, Timer &timer) {
    note("runs timer " + std::to_string(timer.id));
    if (std::exchange(timer.gone, true) || world.now() < timer.due(timer.begun)) {
        fail("it runs again, or after it was killed, or before it is due");
    }
    for (const Timer &other : node.timers) {
        if (other.waits() && other.set < std::min(timer.begun, node.lookBegan) &&
            other.due(other.set) <= node.lookBegan) {
            fail("timer " + std::to_string(other.id) + " was set before, and is due");
        }
    }
    node.lookBegan = std::max(node.lookBegan, timer.begun); // it had to be there
}

void Model::expectNothingOnItsWay() {
    bus.expectSilence();
    for (const auto &[thread, messages] : sent) {
        if (!messages.empty()) {
            fail("the bus has not taken: " + messages.front().name + messages.front().trace);
        }
    }
}

} // namespace simulation
