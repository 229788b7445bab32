// zelvo_mqtt_mixed [SECONDS [TERM|KILL]]: numbered publications and calls from one bus to another,
// while the broker is killed, started and stopped, and a second bridge comes and goes. Prints what
// has arrived, and how large the process is; fails where a number is missing or comes late. What a
// broker that is killed has acknowledged and not stored is lost with it, and only counted.
#include "bridged.h"
#include "broker.h"

#include <cstdio>
#include <string_view>

namespace {

struct Received {
    std::atomic<int> latest{0}, missing{0}, repeated{0}; // the greatest, and how many

    static int hear(void *self, client_t *, char *topic, char *data, int) {
        if (std::strcmp(topic, "numbers") == 0 && data) {
            static_cast<Received *>(self)->take(std::atoi(data));
        }
        return 0;
    }
    void take(int number) {
        if (number <= latest) {
            ++repeated;
        } else {
            missing += number - latest - 1;
            latest = number;
        }
    }
    bool reaches(int goal) {
        return eventually([&] { return latest >= goal; });
    }
};

// Publishes no faster than the bus and the buffer take it: the bridge answers behind what was
// published before. Returns how many there were.
int send(Bridged &sender, const std::atomic<bool> &ends) {
    int number = 0;
    while (!ends) {
        publish(sender, "numbers", std::to_string(++number));
        while (number % 64 == 0 && !ends &&
               std::atoi(sender.state().substr(sender.state().find("waiting") + 9).c_str()) > 500) {
            std::this_thread::sleep_for(std::chrono::milliseconds{5});
        }
    }
    return number;
}

long kilobytes() {
    const std::string status = readFile("/proc/self/status");
    return std::atol(status.c_str() + status.find("VmRSS:") + 6);
}

int run(int seconds, int signal) {
    // A broker that is asked to end stores what it holds; one that is not has to have done so.
    Broker broker{"allow_anonymous true\npersistence true\npersistence_location DIR/\n"
                  "autosave_on_changes true\nautosave_interval 1\n"};
    Bridged receiver{broker.url(), "receiver", R"("in":["numbers"],"serve":["listener"])"};
    Bridged sender{broker.url(), "sender",
                   R"("out":["numbers"],"call":["receiver"],"callTimeout":2000)"};
    Received received;
    Node node{receiver.bus.get(), "numbers", Received::hear, nullptr, &received};
    busClientSubscribe(node.get(), R"(["numbers"])");
    Node caller{sender.bus.get(), "caller"};
    bool arrives = true;
    std::atomic<bool> ends{false};
    int sent = 0, answered = 0, refused = 0;
    std::thread publisher{[&] { sent = send(sender, ends); }};
    std::thread calls{[&] {
        while (!ends) {
            ++(says(caller.call("/receiver/listener/x"), "not implement") ? refused : answered);
        }
    }};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{seconds};
    int rounds = 0;
    long early = 0;
    for (; std::chrono::steady_clock::now() < end && arrives; ++rounds) {
        arrives = received.reaches(received.latest + 500);
        zelvo_mqtt_t *const second = receiver.another(R"("site":"second","in":["numbers.2"])");
        broker.kill(rounds % 3 == 2 ? SIGTERM : signal);
        broker.start();
        arrives = arrives && second && zelvo_mqtt_close(second) == 0;
        early = rounds == 5 ? kilobytes() : early;
    }
    ends = true;
    publisher.join();
    calls.join();
    arrives = arrives && received.reaches(sent);
    std::printf("%d of %d numbers, %d rounds: %d missing, %d repeated; %d calls answered, %d "
                "refused; %ld kB, in the beginning %ld\n%s\n",
                received.latest.load(), sent, rounds, received.missing.load(),
                received.repeated.load(), answered, refused, kilobytes(), early,
                sender.state().c_str());
    return arrives && (received.missing == 0 || signal == SIGKILL) && answered > 0 &&
                   says(sender.state(), R"("dropped":0,"refused":0)")
               ? 0
               : 1;
}

} // namespace

int main(int argc, char **argv) {
    if (std::filesystem::exists("/dev/shm")) { // storing each change costs a disk too much
        setenv("TMPDIR", "/dev/shm", 0);
    }
    return run(argc > 1 ? std::atoi(argv[1]) : 60,
               argc > 2 && std::string_view{argv[2]} == "KILL" ? SIGKILL : SIGTERM);
}
