// Nodes on real threads that come, talk and go for a while, and a bus that stops and is run again:
// what a simulated world cannot show, the memory order of a real processor, for the thread
// sanitizer to watch. zelvo_threads SECONDS
#include <bus_client.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

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

void live(Zelvo_t *bus, unsigned number) {
    std::mt19937 random{number};
    while (!over) {
        client_t *const client =
            busClientConnect(bus, ("n" + std::to_string(number)).c_str(), hear, reply, nullptr);
        if (client) {
            busClientSubscribe(client, "[\"t\"]");
            std::thread spin{busClientSpin, client};
            use(client, random);
            std::atomic<bool> ended{false};
            std::thread asks{[&] { // again where its queue was full
                for (; !ended; std::this_thread::yield()) {
                    busClientSpinExit(client);
                }
            }};
            spin.join();
            ended = true;
            asks.join();
            busClientClose(client);
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    const std::chrono::seconds time{argc > 1 ? std::atoi(argv[1]) : 5};
    Zelvo_t *const bus = busClientNew(R"({"level":6,"callTimeout":100})");
    std::thread loop{[&] {
        while (!over) {
            busClientBindServer(bus);
        }
    }};
    std::vector<std::thread> nodes;
    for (unsigned number = 0; number < 4; ++number) {
        nodes.emplace_back(live, bus, number);
    }
    for (const auto end = std::chrono::steady_clock::now() + time;
         std::chrono::steady_clock::now() < end; busClientServerExit(bus)) {
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
    }
    over = true;
    for (std::thread &node : nodes) {
        node.join();
    }
    busClientServerExit(bus);
    loop.join();
    return busClientDelete(bus);
}
