#include "bus_client/internal.h"

#include <cstring>
#include <optional>

namespace bus {
namespace {

// The node's one call at a time. Testing and setting is one step, so that two threads never share
// the slot.
class CallSlot {
public:
    explicit CallSlot(client_t &client) noexcept : taken_{client.wait_callresponse} {
        while (taken_.exchange(1, std::memory_order_acquire) == 1) {
            platform::yieldThread();
        }
    }
    ~CallSlot() { taken_.store(0, std::memory_order_release); }
    CallSlot(const CallSlot &) = delete;
    CallSlot &operator=(const CallSlot &) = delete;

private:
    std::atomic<int> &taken_;
};

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

void logExited(const char *name, const char *url) noexcept {
    BUS_LOG(2, "  %s %s alaredy exit, url: %s\n", kClientTag, name, orNull(url));
}

using Post = int (*)(server_t &server, message_t *message);

int postBounded(server_t &server, message_t *message) noexcept {
    return bus_mk_q_send(server.message_queue, message, -1);
}

// Posts a request and waits for its answer. Run with the node's call slot taken.
Call exchange(client_t &client, const char *url, const char *data, int len, Post post,
              char **response) noexcept {
    MessagePtr request{busClientExMessageNew(client.name.get(), nullptr, url, action::kRequest,
                                             &client, client.name.get(), data, len)};
    if (request) {
        BUS_CLIENT_TRACE("==>", &client, request.get());
    }
    {
        // Held until the wait, so that the answer cannot come before the caller is ready for it.
        const bus_mk_guard lock{client.oncall_mutex};
        if (!request || post(*client.server, request.get()) != 0) {
            BUS_LOG(4, "  %s %s ==> server call failed, url: %s, queue is full\n", kClientTag,
                    client.name.get(), url);
            return Call::kRefused;
        }
        static_cast<void>(request.release());
        client.call_response.reset();
        client.answered = false;
        while (!client.answered) {
            bus_mk_thread_cond_wait(&client.oncall_cond, &client.oncall_mutex);
        }
        *response = client.call_response.get();
    }
    BUS_LOG(2, "  %s %s call response, %s\n", kClientTag, client.name.get(), orNull(*response));
    return Call::kAnswered;
}

} // namespace

Call call(client_t &client, const char *url, const char *data, int len, char **response) noexcept {
    if (!mayCall(client, url)) {
        logExited(client.name.get(), url);
        return Call::kRefused;
    }
    const CallSlot slot{client};
    if (!mayCall(client, url)) { // the node may have left while another call had the slot
        logExited(client.name.get(), url);
        return Call::kRefused;
    }
    return exchange(client, url, data, len, postBounded, response);
}

void leaveBus(client_t &client) noexcept {
    // One slot for both steps, or another thread's join could come between them.
    const CallSlot slot{client};
    if (client.registered.load(std::memory_order_acquire)) {
        char *response = nullptr;
        exchange(client, kDisjoinUrl, nullptr, 0, postToServer, &response);
    } else {
        logExited(client.name.get(), kDisjoinUrl);
    }
    client.running.store(0, std::memory_order_release);
}

MessagePtr takeRequest(client_t &client) noexcept {
    char key[] = "request";
    return MessagePtr{static_cast<message_t *>(bus_mk_q_delete(client.message_queue, key))};
}

void answerRequest(client_t &client, const message_t &request, oncall_callback handler) noexcept {
    const payload_t *const payload = request.payload;
    bus_mk_text text;
    if (handler) {
        BUS_LOG(1, "  %s %s oncall func begin\n", kClientTag, client.name.get());
        text.reset(handler(client.userdata, &client, request.url, payload ? payload->data : nullptr,
                           payload ? payload->len : 0));
        BUS_LOG(1, "  %s %s oncall func end\n", kClientTag, client.name.get());
    }
    const char *const data = text ? text.get() : kNoHandlerAnswer;
    MessagePtr response{busClientExMessageNew(client.name.get(), nullptr, request.url,
                                              action::kResponse, &client, request.request_name,
                                              data, static_cast<int>(std::strlen(data)))};
    if (response) {
        BUS_CLIENT_TRACE("==>", &client, response.get());
    }
    if (!response || postToServer(*client.server, response.get()) != 0) {
        BUS_LOG(5, "  %s %s ==> server call response failed, queue is full\n", kClientTag,
                client.name.get());
        return;
    }
    static_cast<void>(response.release());
}

} // namespace bus

char *busClientCall(client_t *client, const char *url, const char *data, int len) noexcept {
    if (!client || !client->server || !url) {
        bus::logExited(client ? client->name.get() : "NULL", url);
        return nullptr;
    }
    if (data && len < 0) {
        BUS_LOG(5, "  %s  params format error\n", bus::kClientTag);
        return nullptr;
    }
    char *response = nullptr;
    bus::call(*client, url, data, len, &response);
    return response;
}
