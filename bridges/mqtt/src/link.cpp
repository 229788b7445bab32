#include "link.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>

namespace zelvo_mqtt {
namespace {

constexpr int kKeepAlive = 15; // seconds
constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{10'000};
constexpr std::chrono::milliseconds kLongestConnect{10'000};
constexpr std::size_t kMostUnderWay = 64; // the broker may allow fewer, mosquitto 20
constexpr int kMostReads = 64;            // packets between two looks at what is to be sent

} // namespace

thread_local const Link *Link::own_ = nullptr;

struct Link::Callbacks {
    static Link &of(void *userdata) { return *static_cast<Link *>(userdata); }
    // Nothing may be thrown through the library.
    template <typename Function>
    static void keep(void *link, Function function) noexcept {
        try {
            function(of(link));
        } catch (...) {
            of(link).thrown_ = std::current_exception();
        }
    }
    static void onConnect(mosquitto *, void *link, int reason, int,
                          const mosquitto_property *list) {
        keep(link, [&](Link &own) { own.onConnect(reason, list); });
    }
    static void onDisconnect(mosquitto *, void *link, int reason, const mosquitto_property *) {
        keep(link, [&](Link &own) {
            own.down(reason == MOSQ_ERR_SUCCESS ? "closed" : errorText(reason));
        });
    }
    static void onPublish(mosquitto *, void *link, int mid, int, const mosquitto_property *) {
        keep(link, [&](Link &own) { own.onPublish(mid); });
    }
    static void onSubscribe(mosquitto *, void *link, int mid, int, const int *granted,
                            const mosquitto_property *) {
        keep(link, [&](Link &own) { own.onSubscribe(mid, *granted); });
    }
    static void onMessage(mosquitto *, void *link, const mosquitto_message *message,
                          const mosquitto_property *list) {
        try {
            of(link).events_.received(*message, list);
        } catch (const std::exception &failure) {
            of(link).log_.error({"a message from the broker is dropped: ", failure.what()});
        }
    }
    static void onLog(mosquitto *, void *link, int level, const char *text) {
        if (level == MOSQ_LOG_ERR || level == MOSQ_LOG_WARNING) {
            keep(link, [&](Link &own) { own.libraryError_ = text; });
        }
    }
};

Link::Link(const Config &config, const Topics &topics, Buffer &buffer, Log &log, LinkEvents &events)
    : config_{config},
      topics_{topics},
      buffer_{buffer},
      log_{log},
      events_{events},
      underWay_{buffer} {
    makeSession();
}

// A new one for every connection: what the broker has not acknowledged is handed over again from
// here, and would be so by the library too, in another order.
void Link::makeSession() {
    session_.emplace(config_, topics_, this);
    mosquitto *const handle = session_->get();
    mosquitto_connect_v5_callback_set(handle, Callbacks::onConnect);
    mosquitto_disconnect_v5_callback_set(handle, Callbacks::onDisconnect);
    mosquitto_publish_v5_callback_set(handle, Callbacks::onPublish);
    mosquitto_subscribe_v5_callback_set(handle, Callbacks::onSubscribe);
    mosquitto_message_v5_callback_set(handle, Callbacks::onMessage);
    mosquitto_log_callback_set(handle, Callbacks::onLog);
}

void Link::start() {
    thread_ = startThread([this] { run(); });
}

void Link::stop() {
    stopping_ = true;
    wake_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
}

// ---- the thread ----

void Link::run() {
    own_ = this;
    std::unique_lock lock{mutex_};
    for (bool ends = false; !ends;) {
        ends = stopping_;
        try {
            ends ? sayFarewell(lock) : turn(lock);
        } catch (const std::exception &failure) {
            giveUp(failure.what());
        }
    }
    connected_ = false;
}

// What is thrown, where memory or a thread is not to be had, costs the connection; the next one is
// tried after a pause, as ever.
void Link::giveUp(const char *why) {
    log_.error({"the connection to the broker is given up: ", why});
    try {
        down(why);
    } catch (const std::exception &failure) {
        log_.error({"the bus is not told of it: ", failure.what()});
    }
}

// Waits for the broker, for senders, or for the time of what comes next, and does it.
void Link::turn(std::unique_lock<std::mutex> &lock, Clock::time_point until) {
    using std::chrono::milliseconds;
    advance();
    flush();
    pollfd files[2] = {{wake_.descriptor(), POLLIN, 0}, {-1, 0, 0}};
    auto timeout = std::clamp(std::chrono::ceil<milliseconds>(until - Clock::now()),
                              milliseconds{0}, patience());
    if (state_ == State::kConnecting || state_ == State::kUp) {
        const auto pause = events_.pause();
        files[1].fd = mosquitto_socket(session_->get());
        files[1].events = pause.count() > 0 ? 0 : POLLIN;
        if (!open_ || mosquitto_want_write(session_->get())) {
            files[1].events |= POLLOUT;
        }
        timeout = pause.count() > 0 ? std::min(timeout, pause) : timeout;
    }
    lock.unlock();
    const int ready = poll(files, 2, static_cast<int>(timeout.count()));
    lock.lock();
    if (files[0].revents != 0) {
        wake_.clear();
    }
    if (ready > 0 && files[1].revents != 0) {
        open_ = true;
        work((files[1].revents & ~POLLOUT) != 0);
    }
}

std::chrono::milliseconds Link::patience() const {
    using std::chrono::milliseconds;
    switch (state_) {
    case State::kDown: {
        const auto left = since_ + retry_ - Clock::now();
        return std::max(milliseconds{1}, std::chrono::ceil<milliseconds>(left));
    }
    case State::kLooking:
        return milliseconds{10};
    default:
        return milliseconds{500};
    }
}

// What is due by the clock or has come to its end.
void Link::advance() {
    const auto now = Clock::now();
    if (now - second_ >= std::chrono::seconds{1}) {
        second_ = now;
        tellDrops();
    }
    if (state_ == State::kDown && now - since_ >= retry_) {
        enter(State::kLooking);
        lookup_.begin(config_.host);
    }
    if (state_ == State::kLooking && lookup_.done()) {
        lookup_.failure().empty() ? connect() : down(config_.host + ": " + lookup_.failure());
    } else if (state_ == State::kConnecting && now - since_ >= kLongestConnect) {
        down("the broker does not answer");
    } else if (state_ == State::kUp) {
        end(mosquitto_loop_misc(session_->get()));
    }
}

void Link::enter(State state) {
    state_ = state;
    since_ = Clock::now();
}

void Link::connect() {
    enter(State::kConnecting);
    open_ = false;
    libraryError_.clear();
    refusal_.clear();
    thrown_ = nullptr;
    underWay_.connectionLost(); // again, where memory was short then
    try {
        makeSession(); // files may have changed since the last one
    } catch (const OpenError &refused) {
        down(refused.what());
        return;
    }
    end(mosquitto_connect_async(session_->get(), config_.host.c_str(), config_.port, kKeepAlive));
}

// Reads what is there, and writes.
void Link::work(bool readable) {
    for (int i = 0; readable && i < kMostReads && state_ != State::kDown; ++i) {
        errno = 0;
        end(mosquitto_loop_read(session_->get(), 1));
        if (errno == EAGAIN || events_.pause().count() > 0) { // read empty
            break;
        }
    }
    if (!readable && state_ == State::kConnecting) { // a handshake goes on by reading
        end(mosquitto_loop_read(session_->get(), 1));
    }
    if (state_ != State::kDown && mosquitto_want_write(session_->get())) {
        end(mosquitto_loop_write(session_->get(), 1));
    }
    if (state_ == State::kUp && !connected_) {
        greet();
    }
}

// The result of a step of the library, which does not call back for every failure, and what a
// callback has thrown.
void Link::end(int result) {
    if (thrown_) {
        std::rethrow_exception(std::exchange(thrown_, nullptr));
    }
    if (result != MOSQ_ERR_SUCCESS && state_ != State::kDown) {
        down(errorText(result));
    }
}

// What needs memory comes last.
void Link::down(std::string_view failure) {
    if (state_ == State::kDown) {
        return;
    }
    enter(State::kDown);
    retry_ = std::clamp(retry_ * 2, kFirstPause, kLongestPause);
    connected_ = false;
    unsent_.clear();
    subscriptions_.clear();
    {
        const std::lock_guard lock{directMutex_};
        direct_.clear();
    }
    underWay_.connectionLost();
    underWayCount_ = underWay_.unfinished();
    if (!stopping_) {
        const std::string text{failure};
        events_.disconnected(!refusal_.empty()        ? refusal_
                             : !libraryError_.empty() ? text + " " + libraryError_
                                                      : text);
    }
}

// ---- at the begin and the end of a connection ----

void Link::onConnect(int reason, const mosquitto_property *properties) {
    if (reason != MQTT_RC_SUCCESS) {
        refusal_ = std::string{"the broker refuses: "} + mosquitto_reason_string(reason);
        return;
    }
    std::uint16_t window = kMostUnderWay;
    std::uint8_t qos = 2;
    mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &window, false);
    mosquitto_property_read_byte(properties, MQTT_PROP_MAXIMUM_QOS, &qos, false);
    window_ = std::min<std::size_t>(window, kMostUnderWay);
    qos_ = std::min<int>(config_.qos, qos);
    enter(State::kUp);
}

// Not in the callback, in which the library only queues.
void Link::greet() {
    mosquitto *const handle = session_->get();
    const auto subscribe = [&](const std::string &topic, int qos, int options) {
        int mid = 0;
        if (mosquitto_subscribe_v5(handle, &mid, topic.c_str(), qos, options, nullptr) == 0) {
            subscriptions_.emplace_back(mid, topic);
        }
    };
    // The broker may know the subscriptions of a bridge before this one, whose bus had what is
    // retained; this one's bus has not.
    const int retained =
        subscribed_ ? MQTT_SUB_OPT_SEND_RETAIN_NEW : MQTT_SUB_OPT_SEND_RETAIN_ALWAYS;
    for (const std::string &topic : config_.in) {
        subscribe(topics_.publication(topic), config_.qos,
                  MQTT_SUB_OPT_NO_LOCAL | MQTT_SUB_OPT_RETAIN_AS_PUBLISHED | retained);
    }
    for (const Config::Call &call : config_.call) {
        subscribe(topics_.presence(call.site), 1, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
    }
    if (!config_.call.empty()) {
        subscribe(topics_.answers(), 0, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    }
    subscribe(topics_.requests() + '#', 0, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    mosquitto_publish_v5(handle, nullptr, topics_.presence(config_.site).c_str(), 6, "online", 1,
                         true, nullptr);
    retry_ = {};
    connected_ = true;
    if (qos_ < config_.qos) {
        log_.warning("the broker knows publications of \"qos\" " + std::to_string(qos_) +
                     " at most");
    }
    events_.connected();
}

void Link::onSubscribe(int mid, int reason) {
    const auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                                    [mid](const auto &each) { return each.first == mid; });
    if (found == subscriptions_.end()) {
        return;
    }
    if (reason >= 128) {
        log_.error({"the broker refuses the subscription to ", found->second, ": ",
                    mosquitto_reason_string(reason)});
    }
    subscriptions_.erase(found);
    subscribed_ = subscribed_ || subscriptions_.empty();
}

void Link::sayFarewell(std::unique_lock<std::mutex> &lock) {
    const auto end = Clock::now() + kFarewell;
    const auto last = end + kFarewell / 3;
    const auto unsent = [&] { return buffer_.fill().messages + underWay_.unfinished(); };
    while (connected_ && unsent() > 0 && Clock::now() < end) {
        turn(lock, end);
    }
    if (connected_) { // a publication of "offline" would wait behind those under way
        mosquitto_disconnect_v5(session_->get(), MQTT_RC_DISCONNECT_WITH_WILL_MSG, nullptr);
        while (state_ != State::kDown && Clock::now() < last) {
            turn(lock, last);
        }
    }
    if (const std::size_t lost = unsent(); lost > 0) {
        log_.warning(std::to_string(lost) + " publications are lost: the bridge is closed before "
                                            "the broker has taken them");
    }
}

} // namespace zelvo_mqtt
