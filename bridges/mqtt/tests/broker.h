// A mosquitto on a free port of the loopback address, with its files in a directory of its own, and
// a client that looks at it from outside.
#ifndef ZELVO_MQTT_BROKER_H
#define ZELVO_MQTT_BROKER_H

#include "test_support.h"

#include <mosquitto.h>

#include <deque>
#include <memory>
#include <string>

#include <csignal>

#include <sys/types.h>

class Broker {
public:
    // options: further lines of its configuration; "DIR" in them is its directory.
    explicit Broker(const std::string &options = "allow_anonymous true\n", bool starts = true);
    ~Broker() { kill(SIGKILL); }

    // Returns when it takes connections. hidden: at another port, where no bridge finds it.
    void start(bool hidden = false);
    void kill(int signal);
    void pause() { ::kill(process_, SIGSTOP); }
    void resume() { ::kill(process_, SIGCONT); }
    int port() const { return hidden_ ? hiddenPort_ : port_; }
    std::string url(const char *scheme = "mqtt", const char *host = "127.0.0.1") const;
    const TempDir &directory() const { return directory_; }

private:
    bool accepts() const;

    TempDir directory_;
    const std::string options_;
    const int port_, hiddenPort_;
    bool hidden_ = false;
    pid_t process_ = -1;
};

struct MosquittoDestroy {
    void operator()(mosquitto *handle) const { mosquitto_destroy(handle); }
};
using MosquittoPtr = std::unique_ptr<mosquitto, MosquittoDestroy>;

// One thread uses it; it only hears while it is asked.
class Peer {
public:
    struct Message {
        std::string topic, payload, correlation;
        std::uint32_t expiry = 0;
    };
    Peer(const Broker &broker, const std::string &subscription, const char *user = nullptr);

    // Returns the reason that the broker gives when it has it; without acknowledgement where there
    // are properties, which are freed.
    int publish(const std::string &topic, const std::string &payload, bool retain = false,
                mosquitto_property *properties = nullptr);
    // Calls a node of the site "site".
    void request(const std::string &address, const std::string &payload = "",
                 const char *timeout = nullptr, const char *answerTopic = "zelvo/answer/p/site");
    // Waits for the first of a topic; those before it are passed over.
    std::string next(const std::string &topic) { return nextMessage(topic).payload; }
    Message nextMessage(const std::string &topic);

private:
    void turn();
    MosquittoPtr handle_;
    std::deque<Message> messages_;
    bool subscribed_ = false;
    int published_ = -1; // the reason
};

// Of an answer, and of anything else that is to go without acknowledgement.
mosquitto_property *correlationData(const std::string &correlation = "-");

#endif
