#include "lookup.h"

#include "node.h"

#include <netdb.h>

namespace zelvo_mqtt {

void Lookup::begin(const std::string &host) {
    if (!done()) {
        return;
    }
    const auto state = std::make_shared<State>();
    startThread([state, host] {
        try {
            state->ask(host);
        } catch (const std::exception &) {
            state->error = EAI_MEMORY;
        }
        state->done = true;
    }).detach();
    state_ = state;
}

void Lookup::State::ask(const std::string &host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    for (const addrinfo *each = error == 0 ? found : nullptr; each; each = each->ai_next) {
        char text[NI_MAXHOST] = "";
        if (getnameinfo(each->ai_addr, each->ai_addrlen, text, sizeof text, nullptr, 0,
                        NI_NUMERICHOST) == 0) {
            addresses.emplace_back(text);
        }
    }
    if (error == 0) {
        freeaddrinfo(found);
    }
}

std::string Lookup::failure() const {
    return state_->error == 0 ? "it has no address" : gai_strerror(state_->error);
}

} // namespace zelvo_mqtt
