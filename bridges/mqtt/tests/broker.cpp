#include "broker.h"

#include <mqtt_protocol.h>

#include <stdexcept>
#include <utility>

#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void require(bool met, const char *what) {
    if (!met) {
        throw std::runtime_error{what};
    }
}

int freePort() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    address.sin_family = AF_INET;
    require(bind(probe, any, size) == 0 && getsockname(probe, any, &size) == 0, "no free port");
    close(probe);
    return ntohs(address.sin_port);
}

} // namespace

Broker::Broker(const std::string &options, bool starts)
    : options_{options},
      port_{freePort()},
      hiddenPort_{freePort()} {
    if (starts) {
        start();
    }
}

std::string Broker::url(const char *scheme, const char *host) const {
    return std::string{scheme} + "://" + host + ":" + std::to_string(port_);
}

void Broker::start(bool hidden) {
    hidden_ = hidden;
    std::string options = options_;
    for (std::size_t at = 0; (at = options.find("DIR", at)) != options.npos;) {
        options.replace(at, 3, directory_.path());
    }
    const std::string config = directory_.file("broker.conf");
    std::ofstream{config} << "listener " << port() << " 127.0.0.1\nuser root\nlog_dest file "
                          << directory_.file("broker.log")
                          << "\nmax_queued_messages 0\nset_tcp_nodelay true\n"
                          << options;
    const char *const arguments[] = {"mosquitto", "-c", config.c_str(), nullptr};
    const char *const program =
        access("/usr/sbin/mosquitto", X_OK) == 0 ? "/usr/sbin/mosquitto" : "mosquitto";
    require(posix_spawnp(&process_, program, nullptr, nullptr, const_cast<char *const *>(arguments),
                         environ) == 0,
            "mosquitto can't be started");
    bool runs = true;
    const auto isSettled = [&] {
        runs = waitpid(process_, nullptr, WNOHANG) == 0;
        return !runs || accepts();
    };
    require(eventually(isSettled) && runs,
            ("mosquitto does not run: " + readFile(directory_.file("broker.log"))).c_str());
}

bool Broker::accepts() const {
    const MosquittoPtr probe{mosquitto_new(nullptr, true, nullptr)};
    return mosquitto_connect(probe.get(), "127.0.0.1", port(), 60) == 0;
}

void Broker::kill(int signal) {
    if (process_ > 0) {
        ::kill(process_, signal);
        waitpid(process_, nullptr, 0);
        process_ = -1;
    }
}

Peer::Peer(const Broker &broker, const std::string &subscription, const char *user) {
    mosquitto_lib_init();
    handle_.reset(mosquitto_new(nullptr, true, this));
    mosquitto *const handle = handle_.get();
    mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_username_pw_set(handle, user, nullptr);
    mosquitto_message_v5_callback_set(handle, [](mosquitto *, void *self,
                                                 const mosquitto_message *message,
                                                 const mosquitto_property *properties) {
        const char *const bytes = static_cast<const char *>(message->payload);
        void *correlation = nullptr;
        std::uint16_t length = 0;
        mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation,
                                       &length, false);
        Message &heard = static_cast<Peer *>(self)->messages_.emplace_back();
        heard = {message->topic,
                 {bytes ? bytes : "", static_cast<std::size_t>(message->payloadlen)},
                 {correlation ? static_cast<char *>(correlation) : "", length}};
        mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &heard.expiry,
                                      false);
        std::free(correlation);
    });
    mosquitto_subscribe_callback_set(handle, [](mosquitto *, void *self, int, int, const int *) {
        static_cast<Peer *>(self)->subscribed_ = true;
    });
    mosquitto_publish_v5_callback_set(
        handle, [](mosquitto *, void *self, int, int reason, const mosquitto_property *) {
            static_cast<Peer *>(self)->published_ = reason;
        });
    require(mosquitto_connect(handle, "127.0.0.1", broker.port(), 60) == 0, "the peer connects");
    require(mosquitto_subscribe(handle, nullptr, subscription.c_str(), 1) == 0, "it subscribes");
    while (!subscribed_) {
        turn();
    }
}

void Peer::turn() {
    require(mosquitto_loop(handle_.get(), 100, 1) == 0, "the peer has lost its connection");
}

int Peer::publish(const std::string &topic, const std::string &payload, bool retain,
                  mosquitto_property *properties) {
    published_ = -1;
    const int result = mosquitto_publish_v5(handle_.get(), nullptr, topic.c_str(),
                                            static_cast<int>(payload.size()), payload.data(),
                                            properties ? 0 : 1, retain, properties);
    mosquitto_property_free_all(&properties);
    require(result == 0, "the peer can't publish");
    while (published_ < 0) {
        turn();
    }
    return published_;
}

Peer::Message Peer::nextMessage(const std::string &topic) {
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (true) {
        while (!messages_.empty()) {
            Message message = std::move(messages_.front());
            messages_.pop_front();
            if (message.topic == topic) {
                return message;
            }
        }
        require(std::chrono::steady_clock::now() < end, "the peer does not get what it waits for");
        turn();
    }
}

void Peer::request(const std::string &address, const std::string &payload, const char *timeout,
                   const char *answerTopic) {
    mosquitto_property *list = correlationData("c");
    mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, answerTopic);
    if (timeout) {
        mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, "zelvo-timeout",
                                           timeout);
    }
    publish("zelvo/call/site/" + address, payload, false, list);
}

mosquitto_property *correlationData(const std::string &correlation) {
    mosquitto_property *list = nullptr;
    mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, correlation.data(),
                                  static_cast<std::uint16_t>(correlation.size()));
    return list;
}
