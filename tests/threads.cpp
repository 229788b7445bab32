// Nodes on real threads that come, talk and go for a while, and a bus that stops and is run again:
// what a simulated world cannot show, the memory order of a real processor, for the thread
// sanitizer to watch. zelvo_threads SECONDS
#include "running.h"

namespace {

using Clock = std::chrono::steady_clock;

int hear(void *, client_t *client, char *, char *, int) {
    busClientSettimer(client, nullptr, 1, 0, nullptr);
    return 0;
}

char *reply(void *, client_t *client, char *, char *, int) {
    busClientPublish(client, "t", "called", 6);
    return nullptr;
}

void live(Zelvo_t *bus, unsigned number, Clock::time_point end) {
    std::mt19937 random{number};
    while (Clock::now() < end) {
        Node node{bus, "n" + std::to_string(number), hear, reply};
        busClientSubscribe(node.get(), "[\"t\"]");
        for (auto left = random() % 200; node.get() && left > 0; --left) {
            const auto what = random() % 4;
            if (what == 0) {
                node.call("/n" + std::to_string(random() % 4) + "/x");
            } else if (what == 1) {
                busClientKilltimer(node.get(), static_cast<int>(random() % 9));
            } else {
                busClientPublishSticky(node.get(), "t", "more", 4);
            }
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    const auto end = Clock::now() + std::chrono::seconds{argc > 1 ? std::atoi(argv[1]) : 5};
    RunningBus bus{R"({"level":6,"callTimeout":100})"};
    std::vector<std::thread> nodes;
    for (unsigned number = 0; number < 4; ++number) {
        nodes.emplace_back(live, bus.get(), number, end);
    }
    for (; Clock::now() < end; bus.start()) {
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
        bus.stop();
    }
    for (std::thread &node : nodes) {
        node.join();
    }
}
