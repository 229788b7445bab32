#include "lookup.h"

#include "node.h"

#include <arpa/inet.h>
#include <netdb.h>

namespace zelvo_mqtt {
namespace {

bool isAddress(const std::string &host) {
    in6_addr address{};
    return inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

} // namespace

void Lookup::begin(const std::string &host) {
    if (!done()) {
        return;
    }
    state_->error = 0;
    if (isAddress(host)) {
        return;
    }
    state_->done = false;
    try {
        startThread([state = state_, host] {
            addrinfo hints{};
            hints.ai_socktype = SOCK_STREAM;
            addrinfo *found = nullptr;
            state->error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
            if (state->error == 0) {
                freeaddrinfo(found);
            }
            state->done = true;
        }).detach();
    } catch (...) {
        state_->done = true;
        throw;
    }
}

std::string Lookup::failure() const {
    const int error = state_->error.load();
    return error == 0 ? std::string{} : gai_strerror(error);
}

} // namespace zelvo_mqtt
