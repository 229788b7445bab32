// A connection to the broker and the thread that keeps it. A bridge has two, each with a broker's
// session of its own: what holds up publications holds up no call, and the other way round.
#ifndef ZELVO_MQTT_LINK_H
#define ZELVO_MQTT_LINK_H

#include "common.h"
#include "incoming.h"
#include "node.h"
#include "session.h"
#include "waiter.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace zelvo_mqtt {

// Of a site, so that the broker knows it again after a restart; of no other, whatever the prefixes.
std::string clientId(const Config &config);

// Threads: any may call what is public, except start() and stop(). One mutex guards a link with its
// use of the library, and what its messages change elsewhere; it is not held while anything is
// waited for, the network included.
class Link {
public:
    using Lock = std::unique_lock<std::mutex>;

    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    virtual ~Link() = default; // stop() comes first: the thread uses what a derived class has

    void start(); // throws std::system_error
    // Gives what is to be sent kFarewell to go out, then disconnects and ends the thread.
    void stop();

    Lock lock() { return Lock{mutex_}; }
    bool isConnected() const { return state_ == State::kUp; }
    // Something that the thread waits for may have come.
    void wake() { waiter_.wake(); }
    // Waits until done() or until then, and returns which. Messages change what done() asks, and
    // whoever handles them says so by awaken(), with the mutex held. One of those who wait reads in
    // place of the link's thread: it is so woken by the broker, and not by a thread that the broker
    // has woken. waiter: this thread's alone.
    bool await(Lock &lock, std::condition_variable &waiter, Clock::time_point until,
               const std::function<bool()> &done);
    void awaken(std::condition_variable &waiter);
    // The topics that the broker does not allow on this connection.
    std::vector<std::string> denied();

protected:
    Link(Common &common, Purpose purpose) : common_{common}, purpose_{std::move(purpose)} {}

    // What a connection is for. Whoever reads calls these, with the mutex held. None may block.
    virtual bool mayConnect() { return true; }
    virtual bool hasAnother() const { return false; } // to be tried at once
    virtual void seek() = 0;  // connect(), or fail(), or wait for being asked again
    virtual void greet() = 0; // what begins a connection
    virtual void flush() {}   // hands over what is to be sent, as far as it goes
    virtual void received(const Incoming &incoming) = 0;
    virtual void acknowledged(int mid, int reason) = 0; // or, without QoS, sent
    // A connection, or the try, has ended. byBroker: it was up, and the broker has ended it.
    virtual void lost(const std::string &why, bool byBroker) = 0;
    virtual void everySecond() {}
    virtual void subscribed() {}               // all that has been asked for is answered
    virtual bool pauses() { return false; }    // nothing is to be read; asked again and again
    virtual std::size_t unsent() { return 0; } // publications, that a farewell waits for
    virtual int farewellReason() const { return 0; }
    // Something has been achieved: the next try after a loss comes soon.
    virtual bool prospers() const { return prospers_; }

    void connect(const Target &target, std::chrono::milliseconds limit);
    void fail(std::string_view why); // ends a connection, or a try
    void subscribe(const std::string &topic, int qos, int options, std::uint32_t number = 0);
    void unsubscribe(const std::string &topic);
    // A result of the library, which is MOSQ_ERR_SUCCESS where it has taken the message.
    int put(int &mid, const std::string &topic, std::string_view payload, int qos, bool retain,
            const Properties &properties);
    void kick(); // something is to be sent; without the mutex
    // Tells what is refused, once a second for each key; the others are counted.
    void tellRefusal(const std::string &key, std::string_view what, std::string_view why);
    // The same of what the broker does not allow on this connection.
    void deny(const std::string &topic, std::string_view what, std::string_view why);
    void prosper() { prospers_ = true; }

    Common &common_;
    std::mutex mutex_; // of everything below
    Purpose purpose_;
    int sentMid_ = 0;        // what put() has sent at once
    std::size_t window_ = 0; // messages with QoS that the broker takes at a time
    int mostQos_ = 2;        // that the broker knows
    bool retains_ = true;    // the broker does
    bool sessionKept_ = false;

private:
    enum class State { kDown, kConnecting, kAccepted, kUp };

    void run();
    void turn(Lock &lock, Clock::time_point until = Clock::time_point::max());
    void sayFarewell(Lock &lock);
    std::chrono::milliseconds patience();
    void advance();
    void enter(State state);
    void watch();
    void read(Lock &lock, std::condition_variable &waiter, Clock::time_point until,
              const std::function<bool()> &done);
    void attempt(const std::function<void()> &step);
    void attend(std::uint32_t events);
    void work(int packets);
    void end(int result);
    void callBack();
    std::string reasonOf(std::string_view failure) const;

    template <typename Function>
    static void keep(void *link, Function function) noexcept;
    void onConnect(int reason, bool sessionKept, const mosquitto_property *properties);
    void onDisconnect(int reason);
    void onSubscribe(int mid, int reason);
    void tellRefusals(Clock::time_point before);

    Waiter waiter_, guestWaiter_; // guarded by mutex_ but for waiting and waking
    std::atomic<bool> stopping_{false};
    std::atomic<State> state_{State::kDown}; // written with mutex_ held
    std::thread thread_;

    std::optional<Session> session_;           // guarded by mutex_, as the others
    std::condition_variable *guest_ = nullptr; // of who reads in place of the thread
    bool guestSleeps_ = false;
    bool open_ = false;                  // the socket has been ready since it was made
    std::string libraryError_, refusal_; // of this connection
    std::exception_ptr thrown_;          // by a callback of it
    bool byBroker_ = false;              // it has ended so
    bool prospers_ = false;
    std::chrono::milliseconds retry_{0}, limit_{0};
    Clock::time_point since_{};        // of the state
    Clock::time_point due_{};          // the next try
    Clock::time_point second_{};       // when it was last looked after what comes now and then
    std::map<int, std::string> asked_; // subscriptions that have not been answered
    std::set<std::string> denied_;
    struct Refusals {
        Clock::time_point told;
        int since = 0;
        std::string why = {}; // of the latest
    };
    std::map<std::string, Refusals> refusals_; // by key
};

} // namespace zelvo_mqtt

#endif
