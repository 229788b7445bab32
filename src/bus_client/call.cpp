#include "bus_client/internal.h"

#include <chrono>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

namespace bus {
namespace {

bool isJoin(const char *url) noexcept {
    const std::optional<Url> split = splitUrl(url);
    return split && selects(split->host, kBusHost) && split->path == kJoinPath;
}

// A node that the server does not know is handed no answer, so it would wait for good; joining is
// what it can do.
bool mayCall(const client_t &client, const char *url) noexcept {
    return client.running.load(std::memory_order_acquire) == 1 &&
           (client.registered.load(std::memory_order_acquire) || isJoin(url));
}

bool isRunning(const server_t &server) noexcept {
    return server.running.load(std::memory_order_acquire) == 1;
}

void logExited(const char *name, const char *url) noexcept {
    BUS_LOG(2, "  %s %s alaredy exit, url: %s\n", TAG, name, orNull(url));
}

// ---- waiting ----

// Waits for a signal of cond, which may come without a reason. False: the time is up.
bool waitUntil(bus_mk_thread_cond_t &cond, bus_mk_thread_mutex_t &mutex,
               const Deadline &deadline) noexcept BUS_MK_REQUIRES(mutex) {
    if (!deadline) {
        bus_mk_thread_cond_wait(&cond, &mutex);
        return true;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    bus_mk_thread_cond_wait_for(&cond, &mutex, static_cast<std::uint32_t>(left.count()));
    return true;
}

// Waits for an answer to be handed over. The server signals only while this tells that it is
// needed.
bool sleepUntil(client_t &client, const Deadline &deadline) noexcept
    BUS_MK_REQUIRES(client.oncall_mutex) {
    client.caller_sleeps = true;
    const bool inTime = waitUntil(client.oncall_cond, client.oncall_mutex, deadline);
    client.caller_sleeps = false;
    return inTime;
}

// The node's turn to call, for a scope. A thread that ends its turn offers it to those that wait
// already, so that one which calls without a pause does not keep the others out.
class Turn {
public:
    Turn(client_t &client, const Deadline &deadline) noexcept : client_{client} {
        const bus_mk_guard lock{client.oncall_mutex};
        if (client.wait_callresponse == 0) {
            client.wait_callresponse = 1;
            owned_ = true;
            return;
        }
        const std::uint32_t seen = client.turn_offers;
        ++client.turn_waiters;
        while (!isOffered(seen) && waitUntil(client.turn_cond, client.oncall_mutex, deadline)) {}
        --client.turn_waiters;
        owned_ = isOffered(seen);
        if (owned_) {
            client.turn_offered = false;
        } else if (client.turn_offered) {
            passOn(); // the time of everybody whom the offer was for was up
        }
    }
    ~Turn() {
        const bus_mk_guard lock{client_.oncall_mutex};
        if (owned_) {
            passOn();
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

    bool owned() const noexcept { return owned_; }

private:
    // Whether the turn is offered to those who have waited since there were as many offers.
    bool isOffered(std::uint32_t seen) const noexcept BUS_MK_REQUIRES(client_.oncall_mutex) {
        return client_.turn_offered && client_.turn_offers != seen;
    }
    void passOn() noexcept BUS_MK_REQUIRES(client_.oncall_mutex) {
        client_.turn_offered = client_.turn_waiters > 0;
        client_.wait_callresponse = static_cast<int>(client_.turn_offered);
        if (client_.turn_offered) {
            ++client_.turn_offers;
            bus_mk_thread_cond_signal(&client_.turn_cond);
        }
    }

    client_t &client_;
    bool owned_ = false;
};

// ---- the call ----

struct Question {
    const char *url;
    std::string_view data; // from null: none
    Deadline deadline;
    // Takes the answer over, or null: the answer stays the node's.
    bus_mk_text *taker;
    // Whether it is the node's leave request: that gets through a flood of publications, and is
    // given up when the bus stops.
    bool leaves = false;
};

MessagePtr newRequest(client_t &client, const Question &question, std::uint64_t number) noexcept {
    MessagePtr request{busClientExMessageNew(
        client.name.get(), nullptr, question.url, action::kRequest, &client, client.name.get(),
        question.data.data(), static_cast<int>(question.data.size()))};
    if (request) {
        request->call = number;
        if (!client.registered.load(std::memory_order_acquire)) { // then it is a join, or not sent
            holdNode(*request, client);
        }
        BUS_CLIENT_TRACE("==>", &client, request.get());
    }
    return request;
}

Call refuse(client_t &client, const Question &question, bus_mk_sent cause) noexcept {
    countLost(cause, client.counters.bus_full, client.counters.no_memory);
    BUS_LOG(4, "  %s %s ==> server call failed, url: %s, queue is full\n", TAG, client.name.get(),
            question.url);
    return cause == bus_mk_sent::kFull ? Call::kRefused : Call::kNoMemory;
}

Call timeOut(client_t &client, const Question &question) noexcept {
    count(client.counters.calls_timed_out);
    BUS_LOG(4, "  %s %s call timeout, url: %s\n", TAG, client.name.get(), question.url);
    return Call::kTimedOut;
}

Call giveUp(client_t &client) noexcept {
    count(client.counters.calls_given_up);
    BUS_LOG(3, "  %s %s leave given up, the bus has stopped\n", TAG, client.name.get());
    return Call::kStopped;
}

constexpr int kLooks = 64;

// An answer mostly comes sooner than a thread falls asleep and is woken. It has farther to go than
// a message, so there are more looks than at a queue.
void lookForAnswer(const client_t &client, std::uint64_t number) noexcept {
    int look = 0;
    while (look++ < kLooks && client.waiting_call.load() == number && bus_mk_thread_yield()) {}
}

// Waits until the server has handed over the answer to call number.
Call awaitAnswer(client_t &client, std::uint64_t number, const Question &question) noexcept
    BUS_MK_REQUIRES(client.oncall_mutex) {
    while (client.waiting_call.load() == number) {
        if (question.leaves && !isRunning(*client.server)) {
            return giveUp(client);
        }
        if (!sleepUntil(client, question.deadline)) {
            return timeOut(client, question);
        }
    }
    return Call::kAnswered;
}

bus_mk_sent post(client_t &client, const Question &question, std::uint64_t number) noexcept {
    MessagePtr request = newRequest(client, question, number);
    // Held until the request is on its way, so that the answer cannot come before the caller is
    // ready for it.
    const bus_mk_guard lock{client.oncall_mutex};
    client.waiting_call.store(number);
    const bus_mk_sent sent = question.leaves
                                 ? postToServer(*client.server, request)
                                 : handOver(client.server->message_queue, request, bus_mk_q_tail);
    if (sent == bus_mk_sent::kDone) {
        client.call_response.reset();
    } // else nobody answers that number
    return sent;
}

// Posts a request and waits for its answer. Run in the node's turn.
Call exchange(client_t &client, const Question &question, char **response) noexcept {
    const std::uint64_t number =
        1 + client.server->counters.calls.fetch_add(1, std::memory_order_relaxed);
    const bus_mk_sent sent = post(client, question, number);
    if (sent != bus_mk_sent::kDone) {
        return refuse(client, question, sent);
    }
    count(client.counters.sent);
    lookForAnswer(client, number);
    const bus_mk_guard lock{client.oncall_mutex};
    const Call result = awaitAnswer(client, number, question);
    if (result != Call::kAnswered) {
        client.waiting_call.store(0);
        return result;
    }
    *response = client.call_response.get();
    count(client.counters.calls_answered);
    BUS_LOG(2, "  %s %s call response, %s\n", TAG, client.name.get(), orNull(*response));
    if (question.taker) {
        *question.taker = std::move(client.call_response);
    }
    return result;
}

MessagePtr newResponse(client_t &client, const message_t &request, const char *text) noexcept {
    MessagePtr response{busClientExMessageNew(client.name.get(), nullptr, request.url,
                                              action::kResponse, &client, request.request_name,
                                              text, static_cast<int>(std::strlen(text)))};
    if (response) {
        response->call = request.call;
        BUS_CLIENT_TRACE("==>", &client, response.get());
    }
    return response;
}

// Of a node that cannot call. One that a full queue kept from joining is told of the queue while
// it is full.
Call turnAway(client_t &client, const Question &question) noexcept {
    const bool exited = client.running.load(std::memory_order_acquire) == 0;
    if (!exited && bus_mk_q_full(client.server->message_queue)) {
        newRequest(client, question, 0);
        return refuse(client, question, bus_mk_sent::kFull);
    }
    logExited(client.name.get(), question.url);
    return Call::kRefused;
}

void countRefusal(client_t &client, Call result) noexcept {
    if (result == Call::kRefused || result == Call::kNoMemory) {
        count(client.counters.calls_refused);
    }
}

Call callInTurn(client_t &client, const Question &question, char **response) noexcept {
    count(client.counters.calls_made);
    const Turn turn{client, question.deadline};
    if (!turn.owned()) {
        return timeOut(client, question);
    }
    // Looked at now: the node may have left during another call.
    const Call result = mayCall(client, question.url) ? exchange(client, question, response)
                                                      : turnAway(client, question);
    countRefusal(client, result);
    return result;
}

} // namespace

Deadline deadlineOf(const server_t &server) noexcept {
    if (server.call_timeout <= 0) {
        return std::nullopt;
    }
    return std::chrono::steady_clock::now() + std::chrono::milliseconds{server.call_timeout};
}

Call call(client_t &client, const char *url, std::string_view data, const Deadline &deadline,
          bus_mk_text &answer) noexcept {
    char *response = nullptr;
    return callInTurn(client, {url, data, deadline, &answer}, &response);
}

void leaveBus(client_t &client) noexcept {
    const Question question{kDisjoinUrl, {}, deadlineOf(*client.server), nullptr, true};
    // Owned for all steps, or another thread's join could come between them.
    const Turn turn{client, question.deadline};
    // A node that has departed is taken off at any moment, and would be handed no answer then.
    const bool onBus = client.registered.load(std::memory_order_acquire) && !client.departed.load();
    if (turn.owned() && onBus && isRunning(*client.server)) {
        char *response = nullptr;
        count(client.counters.calls_made);
        countRefusal(client, exchange(client, question, &response));
    } else {
        logExited(client.name.get(), question.url);
    }
    client.running.store(0, std::memory_order_release);
    if (client.registered.load(std::memory_order_acquire)) {
        depart(client);
    }
}

void depart(client_t &client) noexcept {
    if (client.departed.exchange(true)) {
        return;
    }
    server_t &server = *client.server;
    client_t *const record = retain(client);
    record->next_departed = server.departed.load(std::memory_order_relaxed);
    while (!server.departed.compare_exchange_weak(record->next_departed, record)) {}
    // Only to wake the server: where this is lost, it looks when it has handled its next message.
    MessagePtr wakeUp = ownMessage(client, nullptr, Action::kDepart, nullptr, 0);
    if (postToServer(server, wakeUp) == bus_mk_sent::kDone) {
        count(client.counters.sent);
    }
}

MessagePtr takeRequest(client_t &client) noexcept {
    char key[] = "request";
    return MessagePtr{static_cast<message_t *>(bus_mk_q_delete(client.message_queue, key))};
}

void answerRequest(client_t &client, const message_t &request, oncall_callback handler) noexcept {
    const payload_t *const payload = request.payload;
    bus_mk_text text;
    if (handler) {
        BUS_LOG(1, "  %s %s oncall func begin\n", TAG, client.name.get());
        text.reset(handler(client.userdata, &client, request.url, payload ? payload->data : nullptr,
                           payload ? payload->len : 0));
        BUS_LOG(1, "  %s %s oncall func end\n", TAG, client.name.get());
    }
    const bool given = text && fitsPayload(std::strlen(text.get()));
    const char *const data = given ? text.get() : kNoHandlerAnswer;
    MessagePtr response;
    bus_mk_sent sent{};
    const auto post = [&] {
        if (!response) {
            response = newResponse(client, request, data);
        }
        sent = postToServer(*client.server, response);
        return sent == bus_mk_sent::kDone;
    };
    if (attemptAgain(post)) { // a place is kept for it
        count(client.counters.sent);
        return;
    }
    countLost(sent, client.counters.bus_full, client.counters.no_memory);
    BUS_LOG(5, "  %s %s ==> server call response failed, queue is full\n", TAG, client.name.get());
}

} // namespace bus

char *busClientCall(client_t *client, const char *url, const char *data, int len) noexcept {
    if (!client || !client->server || !url) {
        bus::logExited(client ? client->name.get() : "NULL", url);
        return nullptr;
    }
    if (data && len < 0) {
        bus::logFormatError();
        return nullptr;
    }
    const std::string_view bytes{data, data ? static_cast<std::size_t>(len) : 0};
    char *response = nullptr;
    bus::callInTurn(*client, {url, bytes, bus::deadlineOf(*client->server), nullptr}, &response);
    return response;
}
