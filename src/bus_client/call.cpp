#include "bus_client/internal.h"

#include <cstring>
#include <optional>

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

// Whether a running bus knows the node.
bool isOnBus(const client_t &client) noexcept {
    return client.registered.load(std::memory_order_acquire) && client.server->running.load() == 1;
}

void logExited(const char *name, const char *url) noexcept {
    BUS_LOG(2, "  %s %s alaredy exit, url: %s\n", kClientTag, name, orNull(url));
}

using Post = bool (*)(server_t &server, MessagePtr &message);

bool postBounded(server_t &server, MessagePtr &message) noexcept {
    return handOver(server.message_queue, message, -1);
}

// Posts a request and waits for its answer. Run while the caller owns wait_callresponse.
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
        if (!post(*client.server, request)) {
            BUS_LOG(4, "  %s %s ==> server call failed, url: %s, queue is full\n", kClientTag,
                    client.name.get(), url);
            return Call::kRefused;
        }
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

constexpr int kResponseAttempts = 1000;

bool postResponse(client_t &client, const message_t &request, const char *text) noexcept {
    MessagePtr response{busClientExMessageNew(client.name.get(), nullptr, request.url,
                                              action::kResponse, &client, request.request_name,
                                              text, static_cast<int>(std::strlen(text)))};
    if (response) {
        BUS_CLIENT_TRACE("==>", &client, response.get());
    }
    return postToServer(*client.server, response);
}

} // namespace

Call call(client_t &client, const char *url, const char *data, int len, char **response) noexcept {
    const bus_mk_guard turn{client.wait_callresponse};
    if (!mayCall(client, url)) { // looked at now: the node may have left during another call
        logExited(client.name.get(), url);
        return Call::kRefused;
    }
    return exchange(client, url, data, len, postBounded, response);
}

void leaveBus(client_t &client) noexcept {
    // Owned for both steps, or another thread's join could come between them.
    const bus_mk_guard turn{client.wait_callresponse};
    if (!isOnBus(client)) {
        logExited(client.name.get(), kDisjoinUrl);
    }
    // Once, unless memory was short on either side: the server must not keep the record.
    while (isOnBus(client)) {
        char *response = nullptr;
        if (exchange(client, kDisjoinUrl, nullptr, 0, postToServer, &response) == Call::kRefused) {
            platform::yieldThread();
        }
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
    // A place is kept for it; memory may come back.
    for (int attempt = 0; attempt < kResponseAttempts; ++attempt, platform::yieldThread()) {
        if (postResponse(client, request, data)) {
            return;
        }
    }
    BUS_LOG(5, "  %s %s ==> server call response failed, queue is full\n", kClientTag,
            client.name.get());
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
    char *response = nullptr;
    bus::call(*client, url, data, len, &response);
    return response;
}
