#include "link.h"

#include "topics.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <sys/socket.h>

namespace zelvo_mqtt {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{10'000};
constexpr milliseconds kFarewell{300};
constexpr std::chrono::seconds kStands{10}; // a connection that has is a good one
constexpr std::size_t kMostUnderWay = 64;   // the broker may allow fewer, mosquitto 20
constexpr const char *kSubscription = "the subscription to";
constexpr int kMostReads = 64; // packets between two looks at what is to be sent

} // namespace

// "/" stands in neither part, escaped.
std::string clientId(const Config &config) {
    return escapedLevel(config.prefix) + '/' + escapedLevel(config.site);
}

// Nothing may be thrown through the library.
template <typename Function>
void Link::keep(void *link, Function function) noexcept {
    Link &own = *static_cast<Link *>(link);
    try {
        function(own);
    } catch (...) {
        own.thrown_ = std::current_exception();
    }
}

void Link::start() {
    thread_ = startThread([this] { run(); });
}

void Link::stop() {
    stopping_ = true;
    waiter_.wake();
    if (thread_.joinable()) {
        thread_.join();
    }
}

// Where another has the mutex, it is left to the thread.
void Link::kick() {
    const Lock lock{mutex_, std::try_to_lock};
    if (lock.owns_lock()) {
        if (!isConnected()) {
            return;
        }
        flush();
        if (!mosquitto_want_write(session_->get())) {
            return;
        }
    }
    waiter_.wake();
}

// ---- the thread ----

void Link::run() {
    Lock lock{mutex_};
    for (bool ends = false; !ends;) {
        ends = stopping_;
        attempt([&] { ends ? sayFarewell(lock) : turn(lock); });
    }
    state_ = State::kDown;
}

// What is thrown, where memory or a thread is not to be had, costs the connection; the next one is
// tried after a pause, as ever.
void Link::attempt(const std::function<void()> &step) {
    try {
        step();
    } catch (const std::exception &thrown) {
        common_.log.error({"a connection to the broker is given up: ", thrown.what()});
        try {
            fail(thrown.what());
        } catch (const std::exception &failure) {
            common_.log.error({"the bus is not told of it: ", failure.what()});
        }
    }
}

// Waits for the broker, for senders, or for the time of what comes next, and does it.
void Link::turn(Lock &lock, Clock::time_point until) {
    advance();
    if (isConnected()) {
        flush();
    }
    watch();
    const bool isDown = state_ == State::kDown;
    const auto paused = isDown ? milliseconds{0} : pause();
    const bool more = !isDown && paused.count() == 0 && session_->holdsMore();
    auto timeout = std::clamp(std::chrono::ceil<milliseconds>(until - Clock::now()),
                              milliseconds{0}, more ? milliseconds{0} : patience());
    timeout = paused.count() > 0 ? std::min(timeout, paused) : timeout;
    lock.unlock();
    const std::uint32_t events = waiter_.wait(timeout) | (more ? std::uint32_t{EPOLLIN} : 0U);
    lock.lock();
    if (events != 0 && state_ != State::kDown) {
        attend(events);
    }
}

void Link::watch() {
    const int file = state_ == State::kDown ? -1 : mosquitto_socket(session_->get());
    if (file < 0) {
        return;
    }
    const bool reads = pause().count() == 0 && (!guest_ || !isConnected());
    const bool writes = !open_ || mosquitto_want_write(session_->get());
    if (!waiter_.watch(file, (reads ? std::uint32_t{EPOLLIN} : 0U) |
                                 (writes ? std::uint32_t{EPOLLOUT} : 0U))) {
        fail(std::generic_category().message(errno));
    }
}

bool Link::await(Lock &lock, std::condition_variable &waiter, Clock::time_point until,
                 const std::function<bool()> &done) {
    while (!done() && Clock::now() < until) {
        if (!guest_ && isConnected() &&
            guestWaiter_.watch(mosquitto_socket(session_->get()), EPOLLIN)) {
            read(lock, waiter, until, done);
        } else {
            waiter.wait_until(lock, until);
        }
    }
    return done();
}

// In place of the thread, as long as the connection is the same.
void Link::read(Lock &lock, std::condition_variable &waiter, Clock::time_point until,
                const std::function<bool()> &done) {
    guest_ = &waiter;
    attempt([this] { watch(); });
    const auto isSame = [this, since = since_] { return isConnected() && since_ == since; };
    for (auto now = Clock::now(); isSame() && !done() && now < until; now = Clock::now()) {
        guestSleeps_ = true;
        lock.unlock();
        const auto events = guestWaiter_.wait(std::chrono::ceil<milliseconds>(until - now));
        lock.lock();
        guestSleeps_ = false;
        if (events != 0 && isSame()) {
            attempt([this] {
                work(1); // then it may be done
                watch();
            });
        }
    }
    guest_ = nullptr;
    attempt([this] { watch(); });
    if (!isConnected()) { // the thread has to connect again
        waiter_.wake();
    }
}

void Link::awaken(std::condition_variable &waiter) {
    if (guest_ != &waiter) {
        waiter.notify_one();
    } else if (guestSleeps_) {
        guestWaiter_.wake();
    }
}

// In a handshake of TLS the library takes a connection that has failed for one that goes on.
void Link::attend(std::uint32_t events) {
    open_ = true;
    if (state_ == State::kConnecting && (events & EPOLLERR) != 0) {
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(mosquitto_socket(session_->get()), SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0) {
            fail(std::generic_category().message(error));
            return;
        }
    }
    // A handshake goes on by reading.
    const bool reads = (events & ~std::uint32_t{EPOLLOUT}) != 0;
    work(reads ? kMostReads : state_ == State::kConnecting ? 1 : 0);
    if (state_ == State::kConnecting && (events & EPOLLHUP) != 0) {
        fail(errorText(MOSQ_ERR_CONN_LOST));
    }
}

milliseconds Link::patience() {
    if (state_ != State::kDown || !mayConnect()) {
        return milliseconds{500};
    }
    return std::max(milliseconds{1}, std::chrono::ceil<milliseconds>(due_ - Clock::now()));
}

// What is due by the clock or has come to its end.
void Link::advance() {
    const auto now = Clock::now();
    if (now - second_ >= std::chrono::seconds{1}) {
        second_ = now;
        tellRefusals(now - std::chrono::seconds{1});
        everySecond();
    }
    if (state_ == State::kDown && mayConnect() && now >= due_) {
        due_ = now + milliseconds{10};
        seek();
    } else if (state_ == State::kConnecting && now - since_ >= limit_) {
        fail("the broker does not answer");
    } else if (state_ != State::kDown && !mayConnect()) {
        fail("the other connection to the broker is lost");
    } else if (state_ == State::kUp && pause().count() == 0) {
        end(mosquitto_loop_misc(session_->get()));
    }
}

void Link::enter(State state) {
    state_ = state;
    since_ = Clock::now();
}

// A new handle for every connection: what the broker has not acknowledged is handed over again from
// here, and would be so by the library too, in another order.
void Link::connect(const Target &target, milliseconds limit) {
    enter(State::kConnecting);
    limit_ = limit;
    open_ = byBroker_ = prospers_ = false;
    libraryError_.clear();
    refusal_.clear();
    thrown_ = nullptr;
    purpose_.willQos = std::min(1, mostQos_);
    purpose_.willRetain = retains_;
    try {
        session_.emplace(common_.config, target, purpose_, this); // files may have changed
    } catch (const OpenError &refused) {
        fail(refused.what());
        return;
    }
    callBack();
    end(session_->connect());
}

void Link::callBack() {
    using List = const mosquitto_property *;
    mosquitto *const handle = session_->get();
    mosquitto_connect_v5_callback_set(
        handle, [](mosquitto *, void *link, int reason, int flags, List properties) {
            keep(link, [&](Link &own) { own.onConnect(reason, (flags & 1) != 0, properties); });
        });
    mosquitto_disconnect_v5_callback_set(handle, [](mosquitto *, void *link, int reason, List) {
        keep(link, [&](Link &own) { own.onDisconnect(reason); });
    });
    mosquitto_publish_v5_callback_set(
        handle, [](mosquitto *, void *link, int mid, int reason, List) {
            keep(link, [&](Link &own) {
                own.sentMid_ = mid; // perhaps within the call that sends it
                own.acknowledged(mid, reason);
            });
        });
    mosquitto_subscribe_v5_callback_set(
        handle, [](mosquitto *, void *link, int mid, int, const int *granted, List) {
            keep(link, [&](Link &own) { own.onSubscribe(mid, *granted); });
        });
    // What can't be handled for lack of memory costs the connection. The library has acknowledged
    // it.
    mosquitto_message_v5_callback_set(
        handle, [](mosquitto *, void *link, const mosquitto_message *message, List properties) {
            keep(link, [&](Link &own) {
                own.prospers_ = true;
                own.received(readIncoming(*message, properties));
            });
        });
    mosquitto_log_callback_set(handle, [](mosquitto *, void *link, int level, const char *text) {
        if (level == MOSQ_LOG_ERR || level == MOSQ_LOG_WARNING) {
            keep(link, [&](Link &own) { own.libraryError_ = text; });
        }
    });
}

// Reads what is there, and writes.
void Link::work(int packets) {
    for (; state_ != State::kDown && (packets > 0 || session_->holdsMore()); --packets) {
        errno = 0;
        end(mosquitto_loop_read(session_->get(), 1));
        if (errno == EAGAIN || pause().count() > 0) { // read empty
            break;
        }
    }
    if (state_ != State::kDown && mosquitto_want_write(session_->get())) {
        end(mosquitto_loop_write(session_->get(), 1));
    }
    if (state_ == State::kAccepted) { // not in the callback, where the library only queues
        enter(State::kUp);
        denied_.clear();
        greet();
        if (asked_.empty()) {
            subscribed();
        }
    }
}

// The result of a step of the library, which does not call back for every failure, and what a
// callback has thrown.
void Link::end(int result) {
    if (thrown_) {
        std::rethrow_exception(std::exchange(thrown_, nullptr));
    }
    if (result != MOSQ_ERR_SUCCESS && state_ != State::kDown) {
        onDisconnect(result);
    }
}

std::string Link::reasonOf(std::string_view failure) const {
    const std::string fault = session_ ? session_->certificateFault() : "";
    if (!fault.empty()) {
        return "the broker's certificate is refused: " + fault;
    }
    return !refusal_.empty()        ? refusal_
           : !libraryError_.empty() ? std::string{failure} + " " + libraryError_
                                    : std::string{failure};
}

// What needs memory comes last.
void Link::fail(std::string_view why) {
    const auto now = Clock::now();
    const bool wasUp = state_ == State::kUp;
    const bool good = wasUp && (prospers() || now - since_ >= kStands);
    retry_ = good ? kFirstPause : std::clamp(retry_ * 2, kFirstPause, kLongestPause);
    due_ = hasAnother() && !wasUp ? now : now + retry_;
    enter(State::kDown);
    waiter_.forget();
    guestWaiter_.forget();
    asked_.clear();
    lost(reasonOf(why), wasUp && byBroker_);
}

// ---- what the library tells ----

void Link::onConnect(int reason, bool sessionKept, const mosquitto_property *properties) {
    if (reason != MQTT_RC_SUCCESS) {
        refusal_ = std::string{"the broker refuses: "} + mosquitto_reason_string(reason);
        mostQos_ = reason == MQTT_RC_QOS_NOT_SUPPORTED ? 0 : mostQos_;
        retains_ = retains_ && reason != MQTT_RC_RETAIN_NOT_SUPPORTED;
        return;
    }
    std::uint16_t window = kMostUnderWay;
    std::uint8_t qos = 2;
    std::uint8_t retains = 1;
    mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &window, false);
    mosquitto_property_read_byte(properties, MQTT_PROP_MAXIMUM_QOS, &qos, false);
    mosquitto_property_read_byte(properties, MQTT_PROP_RETAIN_AVAILABLE, &retains, false);
    window_ = std::min<std::size_t>(window, kMostUnderWay);
    mostQos_ = qos;
    retains_ = retains != 0;
    sessionKept_ = sessionKept;
    enter(State::kAccepted);
}

void Link::onDisconnect(int reason) {
    if (state_ == State::kDown) {
        return;
    }
    byBroker_ = (reason >= 128 && reason != MQTT_RC_SESSION_TAKEN_OVER) ||
                reason == MOSQ_ERR_CONN_LOST || (reason == MOSQ_ERR_ERRNO && errno == EPIPE);
    fail(reason == MOSQ_ERR_SUCCESS ? "closed" : errorText(reason));
}

void Link::onSubscribe(int mid, int reason) {
    const auto found = asked_.find(mid);
    if (found == asked_.end()) {
        return;
    }
    if (reason >= 128) {
        deny(found->second, kSubscription, mosquitto_reason_string(reason));
    }
    asked_.erase(found);
    if (asked_.empty()) {
        subscribed();
    }
}

// ---- what it is told ----

void Link::tellRefusal(const std::string &key, std::string_view what, std::string_view why) {
    const auto [refusals, isFirst] = refusals_.try_emplace(key, Refusals{Clock::now()});
    if (isFirst) {
        common_.log.error({what, " is refused: ", why});
    } else {
        ++refusals->second.since;
        refusals->second.why = why;
    }
}

// Those that have only been counted. A key is forgotten when a second has brought none.
void Link::tellRefusals(Clock::time_point before) {
    for (auto each = refusals_.begin(); each != refusals_.end();) {
        auto &[key, refusals] = *each;
        const bool isOver = refusals.told < before;
        if (isOver && refusals.since == 0) {
            each = refusals_.erase(each);
            continue;
        }
        if (isOver) {
            common_.log.error({key, ": ", std::to_string(refusals.since),
                               " more have been refused: ", refusals.why});
            refusals = {Clock::now()};
        }
        ++each;
    }
}

void Link::deny(const std::string &topic, std::string_view what, std::string_view why) {
    denied_.insert(topic);
    const std::string whole = std::string{what} + ' ' + topic;
    tellRefusal(whole, whole, why);
}

// The number comes back with what the subscription brings.
void Link::subscribe(const std::string &topic, int qos, int options, std::uint32_t number) {
    mosquitto_property *list = nullptr;
    if (number > 0) {
        mosquitto_property_add_varint(&list, MQTT_PROP_SUBSCRIPTION_IDENTIFIER, number);
    }
    const Properties properties{list};
    int mid = 0;
    const int result = mosquitto_subscribe_v5(session_->get(), &mid, topic.c_str(),
                                              std::min(qos, mostQos_), options, list);
    if (result == MOSQ_ERR_SUCCESS) {
        asked_.emplace(mid, topic);
    } else {
        deny(topic, kSubscription, errorText(result));
    }
}

void Link::unsubscribe(const std::string &topic) {
    const int result = mosquitto_unsubscribe(session_->get(), nullptr, topic.c_str());
    if (result != MOSQ_ERR_SUCCESS) {
        common_.log.warning(topic + " can't be unsubscribed: " + errorText(result));
    }
}

int Link::put(int &mid, const std::string &topic, std::string_view payload, int qos, bool retain,
              const Properties &properties) {
    sentMid_ = 0;
    return mosquitto_publish_v5(session_->get(), &mid, topic.c_str(),
                                static_cast<int>(payload.size()), payload.data(), qos, retain,
                                properties.get());
}

std::vector<std::string> Link::denied() {
    const std::lock_guard lock{mutex_};
    return {denied_.begin(), denied_.end()};
}

void Link::sayFarewell(Lock &lock) {
    const auto end = Clock::now() + kFarewell;
    while (isConnected() && unsent() > 0 && Clock::now() < end) {
        turn(lock, end);
    }
    const auto last = Clock::now() + kFarewell / 3;
    if (isConnected()) {
        mosquitto_disconnect_v5(session_->get(), farewellReason(), nullptr);
        while (state_ != State::kDown && Clock::now() < last) {
            turn(lock, last);
        }
    }
    tellRefusals(Clock::time_point::max());
    if (const std::size_t lost = unsent(); lost > 0) {
        common_.log.warning(
            std::to_string(lost) +
            " publications are lost: the bridge closes before the broker has taken them");
    }
}

} // namespace zelvo_mqtt
