// Deliveries without end, and memory that stays where it is: one publisher, eight subscribers, a
// call and a timer now and then, and a window of credit, so that nothing may be lost.
//   zelvo_soak [--deliveries N]
// Needs a system that tells the resident memory in /proc/self/statm.
#include "../test_support.h"

#include <zelvo/bus_client.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

constexpr std::size_t kSubscribers = 8;
constexpr std::uint64_t kWindow = 512; // publications under way; a node's queue has 1,024 places
constexpr std::uint64_t kReport = 128; // received between two reports to the publisher
constexpr std::uint64_t kBetweenCalls = 1000;      // publications between two calls, and two timers
constexpr std::uint64_t kBetweenSamples = 1000000; // deliveries
constexpr std::uint64_t kRows = 20;                // of the table
constexpr long kTolerance = 1024;                  // kilobytes, after the first sample
constexpr long kPage = 4;                          // kilobytes

[[noreturn]] void fail(const char *what) {
    std::printf("failed: %s\n", what);
    std::fflush(stdout);
    std::_Exit(1); // with the threads as they are
}

long residentKilobytes() {
    std::ifstream file{"/proc/self/statm"};
    long size = 0;
    long resident = 0;
    if (!(file >> size >> resident)) {
        fail("no /proc/self/statm");
    }
    return resident * kPage;
}

// Tells the publisher how far the subscribers are.
class Progress {
public:
    void changed() {
        const std::lock_guard lock{mutex_};
        changed_.notify_one();
    }
    template <typename Reached>
    void wait(Reached reached, const char *what) {
        std::unique_lock lock{mutex_};
        if (!changed_.wait_for(lock, kLimit, reached)) {
            fail(what);
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

// A node with its thread. A publisher only counts the timers that fire.
class Node {
public:
    Node(Zelvo_t *bus, Progress &progress, const std::string &name)
        : progress_{progress},
          client_{busClientConnect(bus, name.c_str(), hear, answer, this)} {
        if (!client_) {
            fail("no connection");
        }
        thread_ = std::thread{[this] { busClientSpin(client_); }};
    }
    ~Node() {
        busClientSpinExit(client_);
        thread_.join();
        busClientClose(client_);
    }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;

    client_t *client() const { return client_; }
    std::uint64_t received() const { return received_.load(std::memory_order_acquire); }
    std::uint64_t fired() const { return fired_; }

    static int fire(void *userdata, client_t * /*client*/, int /*type*/) {
        auto &self = *static_cast<Node *>(userdata);
        ++self.fired_;
        self.progress_.changed();
        return 0;
    }

    std::atomic<bool> reports_all{false}; // every publication, not only some

private:
    // Publications are numbered from 1 on: none is missing, none comes twice.
    static int hear(void *userdata, client_t * /*client*/, char *topic, char *data, int len) {
        auto &self = *static_cast<Node *>(userdata);
        if (std::strcmp(topic, "soak") != 0) {
            return 0;
        }
        std::uint64_t number = 0;
        const std::uint64_t expected = self.received() + 1;
        if (len == sizeof number) {
            std::memcpy(&number, data, sizeof number);
        }
        if (number != expected) {
            fail("a publication is missing");
        }
        self.received_.store(number, std::memory_order_release);
        if (number % kReport == 0 || self.reports_all) {
            self.progress_.changed();
        }
        return 0;
    }
    static char *answer(void * /*userdata*/, client_t * /*client*/, char * /*url*/, char *data,
                        int /*len*/) {
        return strdup(data);
    }

    Progress &progress_;
    client_t *client_;
    std::atomic<std::uint64_t> received_{0};
    std::atomic<std::uint64_t> fired_{0};
    std::thread thread_;
};

class Soak {
public:
    explicit Soak(Zelvo_t *bus) : publisher_{bus, progress_, "publisher"} {
        for (std::size_t i = 0; i < kSubscribers; ++i) {
            subscribers_[i] = std::make_unique<Node>(bus, progress_, "s" + std::to_string(i));
            busClientSubscribe(subscribers_[i]->client(), R"(["soak"])");
        }
    }

    void run(std::uint64_t deliveries) {
        std::printf("%12s %8s %12s %14s\n", "deliveries", "seconds", "million/s", "resident kB");
        const std::uint64_t samples = std::max<std::uint64_t>(deliveries / kBetweenSamples, 1);
        const std::uint64_t rows = std::max<std::uint64_t>(samples / kRows, 1);
        for (std::uint64_t sample = 1; sample <= samples; ++sample) {
            publishUntil(sample * kBetweenSamples / kSubscribers);
            drain();
            look(sample % rows == 0 || sample == 1 || sample == samples);
        }
        progress_.wait([this] { return publisher_.fired() == timers_; }, "a timer is missing");
        std::printf("%" PRIu64 " deliveries, %" PRIu64 " calls, %" PRIu64
                    " timers, none lost; resident %ld kB after the first million, at most %ld kB\n",
                    published_ * kSubscribers, calls_, timers_, first_, most_);
        if (most_ - first_ > kTolerance) {
            fail("resident memory grows");
        }
    }

private:
    std::uint64_t slowest() const {
        std::uint64_t least = published_;
        for (const auto &subscriber : subscribers_) {
            least = std::min(least, subscriber->received());
        }
        return least;
    }

    void publishUntil(std::uint64_t last) {
        while (published_ < last) {
            if (published_ - slowest() >= kWindow) {
                progress_.wait([this] { return published_ - slowest() <= kWindow / 2; },
                               "a publication has not arrived");
            }
            ++published_;
            busClientPublish(publisher_.client(), "soak",
                             reinterpret_cast<const char *>(&published_), sizeof published_);
            if (published_ % kBetweenCalls == 0) {
                callAndSet();
            }
        }
    }

    void callAndSet() {
        const std::string url = "/s" + std::to_string(calls_ % kSubscribers) + "/echo";
        const std::string text = std::to_string(++calls_);
        const char *const answer = busClientCall(publisher_.client(), url.c_str(), text.data(),
                                                 static_cast<int>(text.size()));
        if (!answer || answer != text) {
            fail("a call has a wrong answer");
        }
        ++timers_;
        busClientSettimer(publisher_.client(), Node::fire, 1, 0, &publisher_);
    }

    void drain() {
        for (const auto &subscriber : subscribers_) {
            subscriber->reports_all = true;
        }
        progress_.wait([this] { return slowest() == published_; }, "a publication has been lost");
        for (const auto &subscriber : subscribers_) {
            subscriber->reports_all = false;
        }
    }

    void look(bool prints) {
        const long resident = residentKilobytes();
        first_ = first_ == 0 ? resident : first_;
        most_ = std::max(most_, resident);
        if (prints) {
            const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begun_;
            const std::uint64_t deliveries = published_ * kSubscribers;
            std::printf("%12" PRIu64 " %8.1f %12.2f %14ld\n", deliveries, time.count(),
                        static_cast<double>(deliveries) / time.count() / 1e6, resident);
            std::fflush(stdout);
        }
    }

    Progress progress_;
    Node publisher_;
    std::array<std::unique_ptr<Node>, kSubscribers> subscribers_;
    std::uint64_t published_ = 0;
    std::uint64_t calls_ = 0;
    std::uint64_t timers_ = 0;
    long first_ = 0;
    long most_ = 0;
    const std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

void soak(std::uint64_t deliveries) {
    Zelvo_t *const bus = busClientNew(R"({"level":5})");
    std::thread loop{[bus] { busClientBindServer(bus); }};
    Soak{bus}.run(deliveries);
    busClientServerExit(bus);
    loop.join();
    busClientDelete(bus);
}

} // namespace

int main(int argc, char **argv) {
    char *end = nullptr;
    std::uint64_t deliveries = 100000000;
    if (argc == 3 && std::strcmp(argv[1], "--deliveries") == 0) {
        deliveries = std::strtoull(argv[2], &end, 10);
    }
    if (argc != 1 && (!end || *end != '\0')) {
        std::fprintf(stderr, "usage: %s [--deliveries N]\n", argv[0]);
        return 2;
    }
    soak(deliveries);
    return 0;
}
