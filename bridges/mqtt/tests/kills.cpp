// zelvo_mqtt_kills [PUBLICATIONS [KILLS [TERM|KILL]]]: numbered publications from one process to
// another, while the broker is killed and started again. Prints what the receiver has seen, and
// fails where a number is missing or out of order; repetitions are counted.
#include "bridged.h"
#include "broker.h"

#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>

#include <spawn.h>
#include <sys/wait.h>

namespace {

constexpr const char *kTopic = "numbers";
constexpr int kKept = 10'000; // publications that the sender's bridge keeps

int numberIn(const char *text) {
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

// ---- the sending process ----

// Publishes no faster than the bus and the buffer take it: the bridge answers behind what was
// published before.
void send(const std::string &url, int publications) {
    Bridged sender{url, "sender", R"("out":["numbers"],"buffer":{"messages":10000})"};
    const auto waiting = [&] {
        const std::string state = sender.state();
        const std::size_t at = state.find("\"waiting\":");
        if (at == state.npos) {
            throw std::runtime_error{"no state: " + state};
        }
        return numberIn(state.c_str() + at + 10);
    };
    for (int number = 1; number <= publications; ++number) {
        const std::string text = std::to_string(number);
        busClientPublish(sender.listener.node.get(), kTopic, text.data(),
                         static_cast<int>(text.size()));
        while (number % 64 == 0 && waiting() > kKept / 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds{5});
        }
    }
    if (!eventually(
            [&] { return says(sender.state(), R"("waiting":0,"bytes":0,"underWay":0)"); })) {
        throw std::runtime_error{"the buffer does not empty: " + sender.state()};
    }
    std::printf("sender: %s\n", sender.state().c_str());
}

// ---- the receiving one ----

struct Received {
    std::mutex mutex;
    std::condition_variable changed;
    int latest = 0; // greatest
    int missing = 0, repeated = 0;

    static int hear(void *self, client_t *, char *topic, char *data, int) {
        if (std::strcmp(topic, kTopic) == 0 && data) {
            static_cast<Received *>(self)->take(numberIn(data));
        }
        return 0;
    }
    void take(int number) {
        const std::lock_guard lock{mutex};
        if (number <= latest) {
            ++repeated;
        } else {
            missing += number - latest - 1;
            latest = number;
            changed.notify_all();
        }
    }
    bool reaches(int number) {
        std::unique_lock lock{mutex};
        return changed.wait_for(lock, kLimit, [&] { return latest >= number; });
    }
};

pid_t startSender(const char *program, const std::string &url, const std::string &publications) {
    const char *const arguments[] = {program, "--send", url.c_str(), publications.c_str(), nullptr};
    pid_t process = 0;
    if (posix_spawn(&process, program, nullptr, nullptr, const_cast<char *const *>(arguments),
                    environ) != 0) {
        throw std::runtime_error{"the sender can't be started"};
    }
    return process;
}

int receive(const char *program, int publications, int kills, int signal) {
    // A broker that is asked to end stores what it holds; one that is not has to have done so.
    const std::string stores =
        signal == SIGTERM ? "" : "autosave_on_changes true\nautosave_interval 1\n";
    Broker broker{"allow_anonymous true\npersistence true\npersistence_location DIR/\n" + stores};
    broker.start();
    Bridged receiver{broker.url(), "receiver", R"("in":["numbers"])"};
    Received received;
    RunningNode node{receiver.bus.get(), "numbers", Received::hear, nullptr, &received};
    busClientSubscribe(node.get(), R"(["numbers"])");
    bool arrives = receiver.connects();
    const auto begun = std::chrono::steady_clock::now();
    const pid_t sender = startSender(program, broker.url(), std::to_string(publications));
    for (int kill = 1; kill <= kills && arrives; ++kill) {
        arrives =
            received.reaches(static_cast<int>(std::int64_t{publications} * kill / (kills + 1)));
        broker.kill(signal);
        broker.start();
    }
    arrives = arrives && received.reaches(publications);
    int status = 0;
    if (!arrives) {
        ::kill(sender, SIGKILL);
    }
    waitpid(sender, &status, 0);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begun;
    std::printf("received up to %d of %d in %.1f s, %d kills: %d missing, %d repeated\n",
                received.latest, publications, seconds.count(), kills, received.missing,
                received.repeated);
    if (status != 0 || !arrives) {
        std::printf("%s", receiver.log().c_str());
    }
    return arrives && received.missing == 0 && status == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    try {
        if (std::filesystem::exists("/dev/shm")) { // storing each change costs a disk too much
            setenv("TMPDIR", "/dev/shm", 0);
        }
        if (argc == 4 && std::string_view{argv[1]} == "--send") {
            send(argv[2], numberIn(argv[3]));
            return 0;
        }
        return receive(argv[0], argc > 1 ? numberIn(argv[1]) : 100'000,
                       argc > 2 ? numberIn(argv[2]) : 50,
                       argc > 3 && std::string_view{argv[3]} == "KILL" ? SIGKILL : SIGTERM);
    } catch (const std::exception &failure) {
        std::printf("%s\n", failure.what());
        return 1;
    }
}
