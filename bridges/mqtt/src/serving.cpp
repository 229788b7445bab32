#include "serving.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace zelvo_mqtt {
namespace {

// For so long after a call the node's thread waits for the next one itself.
constexpr std::chrono::milliseconds kLinger{50};

// What else the bus does when it is asked, it does to the node that asks: here the bridge's.
bool isAboutCaller(std::string_view url) {
    constexpr std::string_view bus = "/bus/";
    constexpr std::string_view others[] = {"/bus/nodes", "/bus/stats"};
    return url.starts_with(bus) &&
           std::find(std::begin(others), std::end(others), url) == std::end(others);
}

} // namespace

Serving::Caller::Caller(Serving &its, const std::string &name, std::string served)
    : serving{its},
      callee{std::move(served)},
      node{its.common_, name, nullptr, nullptr, nullptr} {}

Serving::Serving(Common &common, CallLink &link) : common_{common}, link_{link} {
    for (const std::string &served : common.config.serve) {
        const std::string number = std::to_string(callers_.size() + 1);
        callers_.emplace_back(*this, common.name + ".serve." + number, served);
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
    const auto path =
        unescaped(std::string_view{incoming.topic}.substr(common_.topics.requests().size()));
    const char *const fault = !path ? "its topic is not in the form that a bridge gives it"
                              : !common_.topics.isForOwnAnswers(incoming.answerTopic)
                                  ? "its answer's topic is none of this site"
                              : !incoming.timeout ? "its number of milliseconds is none"
                                                  : nullptr;
    if (fault) {
        common_.log.warning("a request to " + incoming.topic + " is dropped: " + fault);
        return;
    }
    Request request{"/" + *path, std::string{incoming.payload}, incoming.answerTopic,
                    incoming.correlation, Clock::now() + timeFor(incoming)};
    Caller *const caller = callerOf(request.url);
    const char *const refusal = refusalOf(request, caller);
    if (refusal) {
        refuse(request, refusal);
    } else if (!append(*caller, std::move(request))) {
        common_.log.warning("the call " + *path + " from outside is dropped: the bus takes none");
    }
}

// What is left to the caller, by its milliseconds less what the broker says it has kept the
// request, in whole seconds. The clocks of two machines are not compared.
std::chrono::milliseconds Serving::timeFor(const Incoming &incoming) const {
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    const milliseconds left = seconds{incoming.expiry};
    if (*incoming.timeout == 0) {
        return incoming.expiry == 0 ? common_.config.callTimeout
                                    : std::min(common_.config.callTimeout, left);
    }
    const milliseconds whole{*incoming.timeout};
    const milliseconds kept = std::chrono::ceil<seconds>(whole) - left;
    return whole - (incoming.expiry == 0 ? milliseconds{0} : std::max(kept, milliseconds{0}));
}

const char *Serving::refusalOf(const Request &request, Caller *caller) const {
    if (!caller) {
        return "that node is not served";
    }
    if (isAboutCaller(request.url)) {
        return "of the bus, only \"/nodes\" and \"/stats\" are served";
    }
    if (closing_) {
        return "the bridge closes";
    }
    if (!hasRoom(*caller, request.size())) {
        dropExpired(*caller);
    }
    return hasRoom(*caller, request.size()) ? nullptr : "too many calls wait";
}

bool Serving::hasRoom(const Caller &caller, std::size_t size) const {
    const std::size_t share =
        std::max<std::size_t>(kMostBytes / callers_.size(), common_.config.maxPacket);
    return caller.requests.size() < kMostWaiting && caller.bytes + size <= share;
}

// Nobody waits for them any more.
void Serving::dropExpired(Caller &caller) const {
    const auto now = Clock::now();
    const auto dropped = std::erase_if(caller.requests, [&](const Request &request) {
        const bool isExpired = now >= request.until;
        caller.bytes -= isExpired ? request.size() : 0;
        return isExpired;
    });
    if (dropped > 0) {
        common_.log.warning(std::to_string(dropped) + " calls from outside to " + caller.callee +
                            " are dropped: they have waited too long");
    }
}

bool Serving::append(Caller &caller, Request request) {
    if (!caller.scheduled && busClientSettimer(caller.node.get(), onTimer, 0, 0, &caller) < 0) {
        return false;
    }
    caller.scheduled = true;
    caller.bytes += request.size();
    caller.requests.push_back(std::move(request));
    link_.awaken(caller.come);
    return true;
}

int Serving::onTimer(void *self, client_t *, int) {
    Caller &caller = *static_cast<Caller *>(self);
    Serving &serving = caller.serving;
    while (const std::optional<Request> request = serving.next(caller)) {
        try {
            serving.call(caller, *request);
        } catch (const std::exception &failure) {
            serving.common_.log.error(
                {"the call ", request->url, " from outside fails: ", failure.what()});
        }
    }
    return 0;
}

std::optional<Serving::Request> Serving::next(Caller &caller) {
    Link::Lock lock = link_.lock();
    link_.await(lock, caller.come, Clock::now() + kLinger,
                [&] { return !caller.requests.empty() || closing_; });
    if (caller.requests.empty()) {
        caller.scheduled = false;
        return std::nullopt;
    }
    Request request = std::move(caller.requests.front());
    caller.requests.pop_front();
    caller.bytes -= request.size();
    return request;
}

void Serving::call(Caller &caller, const Request &request) {
    if (Clock::now() >= request.until) {
        common_.log.warning("the call " + request.url +
                            " from outside is dropped: it has waited too long");
        return;
    }
    const char *const data = request.data.empty() ? nullptr : request.data.data();
    const char *const text = busClientCall(caller.node.get(), request.url.c_str(), data,
                                           static_cast<int>(request.data.size()));
    const Link::Lock lock = link_.lock();
    if (text) {
        answer(request, text);
    } else {
        refuse(request, "the bus gives no answer");
    }
}

void Serving::answer(const Request &request, const char *text) {
    const std::string_view failure =
        link_.send({request.answerTopic, text, {}, request.correlation});
    if (!failure.empty()) {
        common_.log.warning("the answer of " + request.url +
                            " is dropped: " + std::string{failure});
    }
}

void Serving::refuse(const Request &request, const std::string &why) {
    common_.log.warning("the call " + request.url + " from outside is refused: " + why);
    answer(request, kNotImplement);
}

void Serving::close() {
    const Link::Lock lock = link_.lock();
    closing_ = true;
    for (Caller &caller : callers_) {
        caller.requests.clear();
        link_.awaken(caller.come);
    }
}

} // namespace zelvo_mqtt
