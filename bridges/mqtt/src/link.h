// The connection to the broker and the thread that keeps it.
#ifndef ZELVO_MQTT_LINK_H
#define ZELVO_MQTT_LINK_H

#include "buffer.h"
#include "config.h"
#include "log.h"
#include "lookup.h"
#include "node.h"
#include "session.h"
#include "topics.h"
#include "under_way.h"
#include "wake.h"

#include <mosquitto.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace zelvo_mqtt {

inline constexpr const char *kHops = "zelvo-hops"; // the user property of a publication

// A message that is sent at once or not at all.
struct Direct {
    std::string topic;
    std::string payload;
    std::string answerTopic = {}; // of a request
    std::string correlation = {}; // none: there is no such property
    std::uint32_t expiry = 0;     // seconds; 0: none
};

// What the connection hands on. Every function is called with the link's mutex held, by the link's
// thread, except that received() alone may be called by nobody else; none may block or call the
// link, send() and kick() apart.
class LinkEvents {
public:
    LinkEvents() = default;
    LinkEvents(const LinkEvents &) = delete;
    LinkEvents &operator=(const LinkEvents &) = delete;
    virtual ~LinkEvents() = default;
    virtual void connected() = 0;
    virtual void disconnected(const std::string &why) = 0;
    virtual void received(const mosquitto_message &message,
                          const mosquitto_property *properties) = 0;
    // How long nothing is to be read from the broker, since the bus is behind.
    virtual std::chrono::milliseconds pause() = 0;
};

// Threads: any may call anything, except start() and stop(). Nothing waits for the network but
// stop(). All use of the library's handle is under one mutex; senders try it, and where the thread
// has it leave the sending to the thread.
class Link {
public:
    Link(const Config &config, const Topics &topics, Buffer &buffer, Log &log, LinkEvents &events);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link() { stop(); }

    void start(); // throws std::system_error
    // Gives the buffer kFarewell to empty, then disconnects and ends the thread.
    void stop();

    // Sends what is to be sent at once. False: not connected, or too much waits to be sent.
    bool send(Direct message);
    // The buffer holds something.
    void kick();
    // pause() may have ended.
    void wake() { wake_.set(); }
    bool isConnected() const { return connected_.load(std::memory_order_relaxed); }
    std::size_t underWay() const { return underWayCount_.load(std::memory_order_relaxed); }

private:
    static constexpr std::chrono::milliseconds kFarewell{300};
    enum class State { kDown, kLooking, kConnecting, kUp };

    void run();
    void turn(std::unique_lock<std::mutex> &lock,
              Clock::time_point until = Clock::time_point::max());
    void sayFarewell(std::unique_lock<std::mutex> &lock);
    std::chrono::milliseconds patience() const;
    void advance();
    void enter(State state);
    void makeSession();
    void connect();
    void work(bool readable);
    void end(int result);
    void down(std::string_view failure);
    void giveUp(const char *why);
    void greet();
    void flush();
    void flushDirect();
    bool publish(Publication publication);
    int put(int &mid, const std::string &topic, const std::string &payload, int qos, bool retain,
            const Properties &properties);
    void tellDrops();

    struct Callbacks;
    void onConnect(int reason, const mosquitto_property *properties);
    void onPublish(int mid);
    void onSubscribe(int mid, int reason);

    // The link whose thread this is: it holds the mutex while it is called back.
    static thread_local const Link *own_;

    const Config &config_;
    const Topics &topics_;
    Buffer &buffer_;
    Log &log_;
    LinkEvents &events_;
    Wake wake_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> connected_{false};
    std::atomic<std::size_t> underWayCount_{0};
    std::thread thread_;

    std::mutex directMutex_; // of direct_; taken after mutex_
    std::deque<Direct> direct_;

    std::mutex mutex_; // of everything below
    std::optional<Session> session_;
    Lookup lookup_;
    State state_ = State::kDown;
    bool open_ = false;                  // the socket has been ready since it was made
    std::string libraryError_, refusal_; // of this connection
    std::exception_ptr thrown_;          // by a callback of it
    std::chrono::milliseconds retry_{0};
    Clock::time_point since_{};  // of the state
    Clock::time_point second_{}; // when it was last looked after what comes now and then
    UnderWay underWay_;
    std::vector<int> unsent_; // direct messages that the socket has not taken
    int sentMid_ = 0;         // the latest of neither
    std::size_t window_ = 0;
    int qos_ = 0;
    std::vector<std::pair<int, std::string>> subscriptions_; // that have not been answered
    bool subscribed_ = false; // all of a connection have been, since the start
    std::uint64_t told_ = 0;  // drops
};

} // namespace zelvo_mqtt

#endif
