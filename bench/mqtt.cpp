// From process to process over a broker: Zelvo's bridge, and a plain client of the library beneath
// it. The program starts the broker, and itself once more as the other process (--peer SYSTEM
// PORT).
#include "broker.h"
#include "harness.h"
#include "scenario.h"

#include <zelvo/mqtt.h>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace bench;

constexpr int kChunk = 256; // publications that one credit stands for
constexpr int kWindow = 3 * kChunk;
constexpr std::chrono::seconds kLimit{20};

// Both ends of both systems: the near one publishes to "there" and calls, the far one to "back",
// and answers. answers.
class End {
public:
    using Hear = std::function<void(std::string_view payload)>;
    End() = default;
    End(const End &) = delete;
    End &operator=(const End &) = delete;
    virtual ~End() = default;
    virtual void publish(std::string_view payload) = 0;
    virtual std::size_t call() = 0;
};

// ---- Zelvo ----

class Bridged final : public End {
public:
    Bridged(bool first, int port, Hear hear)
        : hear_{std::move(hear)},
          out_{first ? "there" : "back"} {
        const std::string in = first ? "back" : "there";
        bus_ = busClientNew(R"({"level":5,"path":"/dev/null","callTimeout":20000})");
        loop_ = std::thread{busClientBindServer, bus_};
        node_ = busClientConnect(bus_, "node", onMessage, onCall, this);
        busClientSubscribe(node_, (R"([")" + in + R"("])").c_str());
        spin_ = std::thread{busClientSpin, node_};
        bridge_ =
            zelvo_mqtt_open(bus_, (R"({"url":"mqtt://127.0.0.1:)" + std::to_string(port) +
                                   R"(","site":")" + (first ? "near" : "far") + R"(","out":[")" +
                                   out_ + R"("],"in":[")" + in + R"("],"logLevel":4,)" +
                                   (first ? R"("call":["far"])" : R"("serve":["node"])") + "}")
                                      .c_str());
        if (!bridge_) {
            throw std::runtime_error{"the bridge does not open"};
        }
    }
    ~Bridged() override {
        zelvo_mqtt_close(bridge_);
        busClientSpinExit(node_);
        spin_.join();
        busClientClose(node_);
        busClientServerExit(bus_);
        loop_.join();
        busClientDelete(bus_);
    }
    void publish(std::string_view payload) override {
        busClientPublish(node_, out_.c_str(), payload.data(), static_cast<int>(payload.size()));
    }
    std::size_t call() override {
        const char *const answer = busClientCall(node_, "/far/node/answer", kRequest.data(),
                                                 static_cast<int>(kRequest.size()));
        return answer ? std::strlen(answer) : 0;
    }

private:
    static int onMessage(void *self, client_t *, char *topic, char *data, int length) {
        if (data && std::string_view{topic} != "bus.event") {
            static_cast<Bridged *>(self)->hear_({data, static_cast<std::size_t>(length)});
        }
        return 0;
    }
    static char *onCall(void *, client_t *, char *, char *, int) {
        return strdup(std::string{kAnswer}.c_str());
    }

    const Hear hear_;
    const std::string out_;
    Zelvo_t *bus_;
    std::thread loop_, spin_;
    client_t *node_;
    zelvo_mqtt_t *bridge_;
};

// ---- the plain client ----

class Plain final : public End {
public:
    Plain(bool first, int port, Hear hear)
        : hear_{std::move(hear)},
          out_{first ? "plain/there" : "plain/back"},
          in_{first ? "plain/back" : "plain/there"},
          calls_{first ? "plain/answer" : "plain/call"} {
        mosquitto_lib_init();
        handle_ = mosquitto_new(first ? "plain-a" : "plain-b", true, this);
        mosquitto_int_option(handle_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(handle_, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_message_v5_callback_set(handle_, onMessage);
        mosquitto_connect_callback_set(handle_, [](mosquitto *handle, void *self, int) {
            const Plain &plain = *static_cast<Plain *>(self);
            mosquitto_subscribe(handle, nullptr, plain.in_.c_str(), 1);
            mosquitto_subscribe(handle, nullptr, plain.calls_.c_str(), 0);
        });
        if (mosquitto_connect(handle_, "127.0.0.1", port, 60) != 0) {
            throw std::runtime_error{"no connection"};
        }
        mosquitto_loop_start(handle_);
    }
    ~Plain() override {
        mosquitto_disconnect(handle_);
        mosquitto_loop_stop(handle_, false);
        mosquitto_destroy(handle_);
        mosquitto_lib_cleanup();
    }
    void publish(std::string_view payload) override {
        mosquitto_publish(handle_, nullptr, out_.c_str(), static_cast<int>(payload.size()),
                          payload.data(), 1, false);
    }
    std::size_t call() override {
        mosquitto_property *list = nullptr;
        mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, "plain/answer");
        mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, "0123456789abcdef", 16);
        std::unique_lock lock{mutex_};
        answer_.clear();
        mosquitto_publish_v5(handle_, nullptr, "plain/call", static_cast<int>(kRequest.size()),
                             kRequest.data(), 0, false, list);
        mosquitto_property_free_all(&list);
        changed_.wait_for(lock, kLimit, [this] { return !answer_.empty(); });
        return answer_.size();
    }

private:
    static void onMessage(mosquitto *handle, void *self, const mosquitto_message *message,
                          const mosquitto_property *properties) {
        Plain &plain = *static_cast<Plain *>(self);
        const std::string_view payload{static_cast<const char *>(message->payload),
                                       static_cast<std::size_t>(message->payloadlen)};
        if (message->topic == plain.in_) {
            plain.hear_(payload);
        } else if (plain.calls_ == "plain/answer") {
            const std::lock_guard lock{plain.mutex_};
            plain.answer_ = payload;
            plain.changed_.notify_one();
        } else {
            reply(handle, properties);
        }
    }
    static void reply(mosquitto *handle, const mosquitto_property *properties) {
        char *topic = nullptr;
        void *correlation = nullptr;
        std::uint16_t length = 0;
        mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
        mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation,
                                       &length, false);
        mosquitto_property *list = nullptr;
        mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, correlation, length);
        mosquitto_publish_v5(handle, nullptr, topic, static_cast<int>(kAnswer.size()),
                             kAnswer.data(), 0, false, list);
        mosquitto_property_free_all(&list);
        std::free(topic);
        std::free(correlation);
    }

    const Hear hear_;
    const std::string out_, in_, calls_;
    mosquitto *handle_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string answer_; // guarded by mutex_
};

std::unique_ptr<End> makeEnd(std::string_view system, bool first, int port, End::Hear hear) {
    if (system == "Zelvo") {
        return std::make_unique<Bridged>(first, port, std::move(hear));
    }
    return std::make_unique<Plain>(first, port, std::move(hear));
}

// ---- the two processes ----

// The other process: counts, gives credits, ends when its standard input does.
int runPeer(const char *system, int port) {
    std::unique_ptr<End> end;
    std::mutex mutex; // the end may be heard from before it is made
    int heard = 0;
    {
        const std::lock_guard lock{mutex};
        end = makeEnd(system, false, port, [&](std::string_view payload) {
            if (payload == "ready?" || ++heard % kChunk == 0) {
                const std::lock_guard made{mutex};
                end->publish(payload == "ready?" ? "ready" : "credit");
            }
        });
    }
    while (std::getchar() != EOF) {}
    return 0;
}

class Pair {
public:
    explicit Pair(const char *system) {
        startPeer(system);
        end_ = makeEnd(system, true, broker_.port(), [this](std::string_view payload) {
            const std::lock_guard lock{mutex_};
            (payload == "ready" ? ready_ : credits_) += 1;
            changed_.notify_one();
        });
        const auto limit = std::chrono::steady_clock::now() + kLimit;
        for (std::unique_lock lock{mutex_}; ready_ == 0;) {
            if (std::chrono::steady_clock::now() > limit) {
                throw std::runtime_error{"the processes do not meet"};
            }
            end_->publish("ready?");
            changed_.wait_for(lock, std::chrono::milliseconds{100}, [this] { return ready_ > 0; });
        }
    }
    ~Pair() {
        end_.reset();
        std::fclose(input_);
        waitpid(peer_, nullptr, 0);
    }
    Pair(const Pair &) = delete;
    Pair &operator=(const Pair &) = delete;

    void call() { requireAnswer(end_->call()); }
    void publish(std::string_view payload) {
        if (++published_ % kChunk == 0) {
            std::unique_lock lock{mutex_};
            const bool credit = changed_.wait_for(
                lock, kLimit, [this] { return published_ - credits_ * kChunk <= kWindow; });
            if (!credit) {
                throw std::runtime_error{"publications are lost"};
            }
        }
        end_->publish(payload);
    }

private:
    void startPeer(const char *system) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error{"no pipe"};
        }
        input_ = fdopen(ends[1], "w");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
        const std::string port = std::to_string(broker_.port());
        const char *const arguments[] = {"/proc/self/exe", "--peer", system, port.c_str(), nullptr};
        if (posix_spawn(&peer_, arguments[0], &actions, nullptr,
                        const_cast<char *const *>(arguments), environ) != 0) {
            throw std::runtime_error{"the other process can't be started"};
        }
        posix_spawn_file_actions_destroy(&actions);
        close(ends[0]);
    }

    Broker broker_;
    pid_t peer_ = -1;
    std::FILE *input_ = nullptr;
    std::mutex mutex_; // of the next two
    std::condition_variable changed_;
    long ready_ = 0, credits_ = 0;
    long published_ = 0;
    std::unique_ptr<End> end_;
};

Result calls(const char *system, int milliseconds) {
    Pair pair{system};
    return repeat(milliseconds, [&] { pair.call(); });
}

Result publications(const char *system, int milliseconds) {
    Pair pair{system};
    const std::string payload(64, 'x');
    return repeat(milliseconds, [&] { pair.publish(payload); });
}

template <int Which>
std::vector<OwnCell> cells() {
    static constexpr const char *names[] = {"Zelvo", "libmosquitto"};
    return {{"mqtt-call", [](int milliseconds) { return calls(names[Which], milliseconds); }},
            {"mqtt-publish",
             [](int milliseconds) { return publications(names[Which], milliseconds); }}};
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 4 && std::string_view{argv[1]} == "--peer") {
        return runPeer(argv[2], std::atoi(argv[3]));
    }
    const std::array systems{System{.name = "Zelvo", .cells = {}, .own = cells<0>()},
                             System{.name = "libmosquitto", .cells = {}, .own = cells<1>()}};
    return bench::run(argc, argv, systems);
}
