// Nodes on real threads that come, talk and go for a while, and a bus that stops and is run again:
// what a simulated world cannot show, the memory order of a real processor, for the thread
// sanitizer to watch. zelvo_threads SECONDS
#include "running.h"

#include <atomic>

namespace {

std::atomic<bool> over{false};

int hear(void *, client_t *client, char *, char *, int) {
    busClientSettimer(client, nullptr, 1, 0, nullptr);
    return 0;
}

char *reply(void *, client_t *client, char *, char *, int) {
    busClientPublish(client, "t", "called", 6);
    return nullptr;
}

void use(client_t *client, std::mt19937 &random) {
    busClientSubscribe(client, "[\"t\"]");
    for (unsigned left = static_cast<unsigned>(random()) % 200; left > 0; --left) {
        const std::string url = "/n" + std::to_string(random() % 4) + "/x";
        switch (random() % 4) {
        case 0:
            busClientCall(client, url.c_str(), "ask", 3);
            break;
        case 1:
            busClientKilltimer(client, static_cast<int>(random() % 9));
            break;
        default:
            busClientPublishSticky(client, "t", "more", 4);
        }
    }
}

void live(const RunningBus &bus, int number) {
    std::mt19937 random{static_cast<unsigned>(number)};
    while (!over) {
        const RunningNode node{bus.get(), "n" + std::to_string(number), hear, reply};
        if (node.get()) {
            use(node.get(), random);
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    const std::chrono::seconds time{argc > 1 ? std::atoi(argv[1]) : 5};
    RunningBus bus{R"({"level":6,"callTimeout":100})"};
    std::thread nodes{[&] { inThreads(4, [&](int number) { live(bus, number); }); }};
    for (const auto end = std::chrono::steady_clock::now() + time;
         std::chrono::steady_clock::now() < end; bus.start()) {
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
        bus.stop();
    }
    over = true;
    nodes.join();
}
