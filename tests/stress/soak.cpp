// Deliveries without end, and memory that stays where it is: one publisher and eight subscribers,
// which are called, and a timer set, after every thousand publications.
//   zelvo_soak [--deliveries N]
// Needs a system that tells the resident memory in /proc/self/statm.
#include "../running.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr std::uint64_t kSubscribers = 8;
constexpr std::uint64_t kBatch = 1000;  // between calls; a node's queue has 1,024 places
constexpr std::uint64_t kSamples = 100; // of the resident memory
constexpr long kTolerance = 1024;       // kilobytes, after the first sample
constexpr long kPage = 4;               // kilobytes

void require(bool holds, const char *what) {
    if (!holds) {
        std::printf("failed: %s\n", what);
        std::fflush(stdout);
        std::_Exit(1); // with the threads as they are
    }
}

long residentKilobytes() {
    std::ifstream file{"/proc/self/statm"};
    long size = 0;
    long resident = 0;
    require(static_cast<bool>(file >> size >> resident), "no /proc/self/statm");
    return resident * kPage;
}

// A node that counts what it hears.
class Subscriber {
public:
    Subscriber(const RunningBus &bus, std::uint64_t number)
        : url_{"/s" + std::to_string(number) + "/count"},
          node_{bus.get(), "s" + std::to_string(number), hear, answer, this} {
        busClientSubscribe(node_.get(), R"(["soak"])");
    }
    const std::string &url() const { return url_; }

private:
    // Publications are numbered from 1 on: none is missing, none comes twice.
    static int hear(void *self, client_t * /*client*/, char *topic, char *data, int len) {
        std::uint64_t &heard = static_cast<Subscriber *>(self)->heard_;
        std::uint64_t number = 0;
        if (std::strcmp(topic, "soak") == 0) {
            require(len == sizeof number, "a publication has a wrong size");
            std::memcpy(&number, data, sizeof number);
            require(number == ++heard, "a publication is missing");
        }
        return 0;
    }
    static char *answer(void *self, client_t * /*client*/, char * /*url*/, char * /*data*/,
                        int /*len*/) {
        return mallocText(std::to_string(static_cast<Subscriber *>(self)->heard_));
    }

    const std::string url_;
    std::uint64_t heard_ = 0;
    RunningNode node_; // last: its thread uses the others
};

class Soak {
public:
    Soak() {
        for (std::uint64_t number = 0; number < kSubscribers; ++number) {
            subscribers_.push_back(std::make_unique<Subscriber>(bus_, number));
        }
    }

    void run(std::uint64_t deliveries) {
        const std::uint64_t batches = deliveries / kSubscribers / kBatch + 1;
        const std::uint64_t between = batches / kSamples + 1;
        const auto begun = std::chrono::steady_clock::now();
        long first = 0;
        long most = 0;
        for (std::uint64_t batch = 1; batch <= batches; ++batch) {
            const Deadline deadline{"a batch of publications and calls"};
            publishAndCall();
            if (batch % between == 0 || batch == batches) {
                most = std::max(most, residentKilobytes());
                first = first == 0 ? most : first;
            }
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begun;
        std::printf("%" PRIu64
                    " deliveries in %.1f s, none lost; resident %ld kB at first, at most "
                    "%ld kB\n",
                    published_ * kSubscribers, time.count(), first, most);
        require(most - first <= kTolerance, "resident memory grows");
    }

private:
    // An answer comes behind the publications: it tells that all have been heard.
    void publishAndCall() {
        for (std::uint64_t i = 0; i < kBatch; ++i) {
            ++published_;
            busClientPublish(publisher_.get(), "soak", reinterpret_cast<const char *>(&published_),
                             sizeof published_);
        }
        for (const auto &subscriber : subscribers_) {
            require(publisher_.call(subscriber->url()) == std::to_string(published_),
                    "a call has a wrong answer, or a publication has been lost");
        }
        busClientSettimer(publisher_.get(), fire, 0, 0, this);
        ++timers_;
        while (fired_ != timers_) {
            std::this_thread::yield();
        }
    }
    static int fire(void *self, client_t * /*client*/, int /*type*/) {
        ++static_cast<Soak *>(self)->fired_;
        return 0;
    }

    RunningBus bus_{R"({"level":5})"};
    RunningNode publisher_{bus_.get(), "publisher"};
    std::vector<std::unique_ptr<Subscriber>> subscribers_;
    std::uint64_t published_ = 0;
    std::uint64_t timers_ = 0;
    std::atomic<std::uint64_t> fired_{0};
};

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
    Soak{}.run(deliveries);
    return 0;
}
