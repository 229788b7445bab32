// Makes a log with every kind of traffic and every fault, and writes beside it what has happened,
// as seen from outside the bus: scenario LOG TRUTH LEVEL. Each line of the truth is a kind and
// texts, as "x" and hexadecimal digits, "-" for none, and a number:
//   publish FROM TOPIC DATA       deliver TO TOPIC DATA      answer FROM ADDRESS ANSWER
//   fault KIND TEXT NUMBER        the faults of one kind whose report holds the text
// It ends with a call that is still waiting.
#include "running.h"

#include <iomanip>
#include <map>
#include <string_view>

namespace {

using namespace std::string_literals;

std::ofstream truth;
std::mutex truthMutex;

void note(const char *kind, const std::vector<std::string_view> &texts, long number = -1) {
    const std::lock_guard lock(truthMutex);
    truth << kind << std::hex << std::setfill('0');
    for (const std::string_view text : texts) {
        truth << (text.data() ? " x" : " -");
        for (const char c : text) {
            truth << std::setw(2) << +static_cast<unsigned char>(c);
        }
    }
    truth << ' ' << std::dec << number << std::endl;
}
void fault(const char *kind, std::string_view text, long number) {
    note("fault", {kind, text}, number);
}

// Each is opened once, and waited for once.
using Gate = std::promise<void>;
Gate held, released, heldForever, never, fired;

const std::string forged =
    "[00001:00001]2026-01-01 00:00:00.000 [E] src/bus_client/call.cpp# 157#  Vek-client x call "
    "timeout, url: /forged";

// A node whose traffic is noted.
struct Actor {
    Actor(const RunningBus &bus, std::string called, bool spins = true)
        : name(std::move(called)),
          node(bus.get(), name, onMessage, onCall, this, spins) {}

    void publish(const char *topic, std::string_view data, bool sticky = false) const {
        const int len = static_cast<int>(data.size());
        (sticky ? busClientPublishSticky : busClientPublish)(node.get(), topic, data.data(), len);
        note("publish", {name, topic, data});
    }
    std::string call(const std::string &url, const std::optional<std::string> &data = {}) const {
        const std::string answer = node.call(url, data);
        answer == "null" ? fault("timeout", url, 1) : note("answer", {name, url, answer});
        return answer;
    }

    static int onMessage(void *self, client_t * /*client*/, char *topic, char *data, int len) {
        if (std::strncmp(topic, "bus.", 4) != 0) {
            const auto size = static_cast<std::size_t>(len);
            note("deliver", {static_cast<Actor *>(self)->name, topic, {data, data ? size : 0}});
        }
        return 0;
    }
    static char *onCall(void *self, client_t *client, char *url, char *data, int len);

    const std::string name;
    std::map<std::string, std::string> ring; // what a path calls
    Node node;
};

char *Actor::onCall(void *self, client_t * /*client*/, char *url, char *data, int len) {
    const Actor &actor = *static_cast<Actor *>(self);
    const std::string path = std::strchr(url + 1, '/');
    if (const auto next = actor.ring.find(path); next != actor.ring.end()) {
        return mallocText(actor.call(next->second));
    }
    if (path == "/hold") {
        held.set_value();
        released.get_future().wait();
    } else if (path == "/forever") {
        heldForever.set_value();
        never.get_future().wait();
    } else if (path == "/none") {
        return nullptr;
    } else if (path == "/forged") {
        return mallocText("two lines\n" + forged + "\nand a third");
    }
    return mallocText("answer to " + std::string(data ? data : "", static_cast<std::size_t>(len)));
}

// What is hard to read in a log.
std::vector<std::string> hardPayloads() {
    std::string every;
    for (int c = 0; c < 198; ++c) {
        every += static_cast<char>(c + 58);
    }
    return {"two\nlines",
            "a, payload len: 1\n" + forged + "\n, payload len: 3\n",
            "five5, payload len: 5\n" + forged,
            "\x1b[2J\x1b]0;title\x07\r\x9b",
            "<script>alert(1)</script></script> \"quoted\" \\ ; # % {{}}",
            "nul\0inside"s,
            every,
            "NULL",
            "BinaryData...",
            std::string(199, 'x'),
            std::string(200, 'y'),
            "\xe2\x86\x92 \xf0\x9f\x92\xa1 \xe2\x80\xae",
            ""};
}

void publications(RunningBus &bus, const Actor &lamp) {
    {
        Actor panel(bus, "the \"big\" <script>alert(1) panel");
        panel.node.subscribe(R"(["hard","same", "a topic; with: \"signs\" -->", "sticky"])");
        for (const std::string &payload : hardPayloads()) {
            lamp.publish("hard", payload);
            lamp.publish("a topic; with: \"signs\" -->", payload);
        }
        lamp.publish("hard", {});
        lamp.publish("unheard", "nobody listens");
        for (int i = 0; i < 50; ++i) {
            lamp.publish("same", "tick");
        }
        lamp.publish("sticky", "first", true);
        lamp.publish("sticky", "second", true);
        lamp.call("/" + panel.name + "/done"); // it has had all before
    }
    Actor later(bus, "later", false);
    std::thread spin(busClientSpin, later.node.get());
    later.node.subscribe(R"(["sticky"])");
    lamp.call("/later/done");
    busClientRemoveSticky(lamp.node.get(), R"(["sticky"])");
    busClientSpinExit(later.node.get());
    spin.join();
    later.node.call("/lamp/too/late");
    fault("refused", "not on the bus", 1);
    const Actor second(bus, "lamp");
    fault("refused", "a node of this name", 1);
}

void calls(RunningBus &bus, Actor &lamp) {
    Actor desk(bus, "desk"), shelf(bus, "shelf");
    desk.call("/lamp/state", "data\nwith, commas");
    desk.call("/lamp/none");
    desk.call("/lamp/forged");
    desk.call("/bus/nodes");
    desk.call("/localKeys/key", R"({"operation":"set","data":{"a":[1,2]}})");
    desk.call("/localKeys/key", R"({"operation":"get"})");
    desk.call("/nosuch/path");
    fault("nobody", "/nosuch/path", 1);
    shelf.ring = {{"/ring2", "/desk/any"}, {"/ring3", "/desk/any"}};
    lamp.ring = {{"/ring3", "/shelf/ring3"}};
    desk.call("/shelf/ring2");
    desk.call("/lamp/ring3");
    fault("ring", "shelf -> desk -> shelf", 1);
    fault("ring", "shelf -> desk -> lamp -> shelf", 1);

    desk.call("/shelf/hold", "hold"); // its time is up
    held.get_future().wait();
    released.set_value();
    lamp.call("/shelf/after"); // behind the late answer
    fault("late", "/shelf/hold", 1);
}

// The node does not run, so what reaches it stays.
void fullQueues(Actor &slow, const Actor &lamp) {
    slow.node.subscribe(R"(["flood"])");
    for (int i = 0; i < 1100; ++i) {
        lamp.publish("flood", std::to_string(i));
    }
    lamp.publish("kept", "kept", true);
    lamp.call("/slow/x"); // the bus has handled all before, and finds the queue full
    slow.node.subscribe(R"(["kept"])");
    busClientSpinExit(slow.node.get());
    for (int i = 0; i < 1025; ++i) {
        busClientSettimer(slow.node.get(), nullptr, 100000, 1, nullptr);
    }
    busClientKilltimer(slow.node.get(), 7);
    fault("drop", "copy: queue of slow, flood", 1100 - 1024);
    for (const char *once : {"call: queue of slow", "sticky message: queue of slow",
                             "exit: own queue", "settimer: own queue", "killtimer: own queue"}) {
        fault("drop", once, 1);
    }
}

void fullBus(RunningBus &bus, const Actor &lamp) {
    bus.stop();
    for (int i = 0; i < 2058; ++i) {
        lamp.publish("unheard", std::to_string(i));
    }
    busClientRemoveSticky(lamp.node.get(), R"(["kept"])");
    lamp.node.call("/bus/nodes");
    bus.start();
    long refused = 1;
    while (lamp.node.call("/bus/nodes") == "null") {
        ++refused;
        std::this_thread::yield();
    }
    fault("drop", "publish: queue of the bus", 10);
    fault("drop", "removeSticky: queue of the bus", 1);
    fault("drop", "call refused: queue of the bus", refused);
}

void timers(client_t *client) {
    const auto handler = [](void *, client_t *, int) {
        fired.set_value();
        return 0;
    };
    busClientKilltimer(client, busClientSettimer(client, handler, 1000000, 1, nullptr));
    busClientSettimer(client, handler, 1, 2, nullptr);
    fired.get_future().wait();
}

} // namespace

int main(int /*argc*/, char **argv) {
    truth.open(argv[2]);
    // What is not held up is answered in far less.
    RunningBus bus("{\"callTimeout\":4000,\"path\":\"" + std::string(argv[1]) +
                   "\",\"level\":" + argv[3] + '}');
    Actor lamp(bus, "lamp");
    publications(bus, lamp);
    calls(bus, lamp);
    timers(lamp.node.get());
    Actor slow(bus, "slow", false);
    fullQueues(slow, lamp);
    fullBus(bus, lamp);
    Actor waits(bus, "waits");
    std::thread([&waits] { waits.call("/lamp/forever"); }).detach();
    heldForever.get_future().wait();
    fault("drop", "copy: queue of slow, bus.event", 1); // that it joins
    fault("unanswered", "/lamp/forever", 1);
    std::_Exit(0);
}
