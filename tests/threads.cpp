// Nodes on real threads that come, talk and go for a while, and a bus that stops and is run again:
// what a simulated world cannot show, the memory order of a real processor, for the thread
// sanitizer to watch. zelvo_threads SECONDS
#include "running.h"

int main(int argc, char **argv) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::seconds{argc > 1 ? std::atoi(argv[1]) : 5};
    RunningBus bus{R"({"level":6,"callTimeout":100})"};
    const auto answer = [](client_t *client, const std::string &, const std::string &) {
        busClientSettimer(client, nullptr, 1, 0, nullptr);
        busClientPublish(client, "t", "called", 6);
        return mallocText("answer");
    };
    const auto live = [&](unsigned number) {
        for (std::mt19937 random{number}; Clock::now() < end;) {
            Node node{bus, "n" + std::to_string(number), answer};
            node.subscribe(R"(["t"])");
            for (auto left = random() % 200; node.get() && left > 0; --left) {
                busClientKilltimer(node.get(), static_cast<int>(random() % 9));
                busClientPublishSticky(node.get(), "t", "more", 4);
                if (random() % 4 == 0) {
                    node.call("/n" + std::to_string(random() % 4) + "/x", "ask");
                }
            }
        }
    };
    std::vector<std::future<void>> nodes; // whose end is waited for
    for (unsigned number = 0; number < 4; ++number) {
        nodes.push_back(std::async(std::launch::async, live, number));
    }
    for (; Clock::now() < end; bus.start()) {
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
        bus.stop();
    }
}
