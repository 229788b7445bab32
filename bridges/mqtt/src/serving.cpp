#include "serving.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace zelvo_mqtt {
namespace {

// What else the bus does when it is asked, it does to the node that asks: here the bridge's.
bool isAboutCaller(std::string_view url) {
    constexpr std::string_view bus = "/bus/";
    constexpr std::string_view others[] = {"/bus/nodes", "/bus/stats"};
    return url.starts_with(bus) &&
           std::find(std::begin(others), std::end(others), url) == std::end(others);
}

} // namespace

Serving::Caller::Caller(Serving &its, Zelvo_t *bus, const std::string &name, std::string served)
    : serving{its},
      callee{std::move(served)},
      node{bus, name, nullptr, nullptr, nullptr} {}

Serving::Serving(Zelvo_t *bus, const Config &config, const Topics &topics, const std::string &name,
                 Link &link, Log &log)
    : config_{config},
      topics_{topics},
      link_{link},
      log_{log} {
    for (const std::string &served : config.serve) {
        const std::string number = std::to_string(callers_.size() + 1);
        std::string caller = name;
        caller.append(".serve.").append(number);
        callers_.emplace_back(*this, bus, caller, served);
    }
}

// The node is compared as a whole: the bus would take "b" for "bus".
Serving::Caller *Serving::callerOf(std::string_view url) {
    const std::string_view node = url.substr(1, url.find('/', 1) - 1);
    const auto found = std::find_if(callers_.begin(), callers_.end(),
                                    [&](const Caller &caller) { return caller.callee == node; });
    return found == callers_.end() ? nullptr : &*found;
}

void Serving::request(const Incoming &incoming) {
    const auto path = unescaped(std::string_view{incoming.topic}.substr(topics_.requests().size()));
    if (!path || !topics_.isForAnswers(incoming.answerTopic)) {
        log_.warning("a request to " + incoming.topic + " is dropped: " +
                     (path ? "its answer has no topic of this prefix" : "its topic is malformed"));
        return;
    }
    auto time = config_.callTimeout;
    if (incoming.expiry > 0) {
        const std::chrono::milliseconds expiry = std::chrono::seconds{incoming.expiry};
        time = std::min(time, expiry);
    }
    Request request{"/" + *path, std::string{incoming.payload}, incoming.answerTopic,
                    incoming.correlation, Clock::now() + time};
    Caller *const caller = callerOf(request.url);
    if (!caller) {
        refuse(request, "that node is not served");
    } else if (isAboutCaller(request.url)) {
        refuse(request, "of the bus, only \"/nodes\" and \"/stats\" are served");
    } else if (!append(*caller, request)) {
        refuse(request, "too many calls wait for that node");
    }
}

bool Serving::append(Caller &caller, Request request) {
    const std::lock_guard lock{caller.mutex};
    if (caller.closing || caller.requests.size() >= kMostWaiting) {
        return false;
    }
    if (!caller.scheduled && busClientSettimer(caller.node.get(), onTimer, 0, 0, &caller) < 0) {
        return false;
    }
    caller.scheduled = true;
    caller.requests.push_back(std::move(request));
    return true;
}

int Serving::onTimer(void *self, client_t *, int) {
    Caller &caller = *static_cast<Caller *>(self);
    Serving &serving = caller.serving;
    while (const std::optional<Request> request = next(caller)) {
        try {
            serving.call(caller, *request);
        } catch (const std::exception &failure) {
            serving.log_.error(
                {"the call ", request->url, " from outside fails: ", failure.what()});
        }
    }
    return 0;
}

std::optional<Serving::Request> Serving::next(Caller &caller) {
    const std::lock_guard lock{caller.mutex};
    if (caller.requests.empty() || caller.closing) {
        caller.scheduled = false;
        return std::nullopt;
    }
    Request request = std::move(caller.requests.front());
    caller.requests.pop_front();
    return request;
}

void Serving::call(Caller &caller, const Request &request) {
    if (Clock::now() >= request.until) {
        log_.warning("the call " + request.url +
                     " from outside is dropped: it has waited too long");
        return;
    }
    const char *const data = request.data.empty() ? nullptr : request.data.data();
    const char *const text = busClientCall(caller.node.get(), request.url.c_str(), data,
                                           static_cast<int>(request.data.size()));
    if (text) {
        answer(request, text);
    } else {
        refuse(request, "the bus gives no answer");
    }
}

void Serving::answer(const Request &request, const char *text) {
    if (!link_.send({request.answerTopic, text, {}, request.correlation, 0})) {
        log_.warning("the answer of " + request.url + " is dropped: the broker does not take it");
    }
}

void Serving::refuse(const Request &request, const std::string &why) {
    log_.warning("the call " + request.url + " from outside is refused: " + why);
    answer(request, kNotImplement);
}

void Serving::close() {
    for (Caller &caller : callers_) {
        const std::lock_guard lock{caller.mutex};
        caller.closing = true;
        caller.requests.clear();
    }
}

} // namespace zelvo_mqtt
