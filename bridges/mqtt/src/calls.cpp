#include "calls.h"

#include <algorithm>
#include <array>

#include <sys/random.h>

namespace zelvo_mqtt {
namespace {

// Whoever does not know it can't answer.
std::string randomCorrelation() {
    std::array<char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error{"the system gives no random numbers"};
    }
    return {bytes.data(), bytes.size()};
}

} // namespace

Calls::Site::Site(Calls &its, const Config::Call &call)
    : calls{its},
      site{call.site},
      name{call.node},
      answerTopic{its.common_.topics.answers(its.common_.config.site, call.site)},
      node{its.common_, call.node, nullptr, onCall, this} {}

Calls::Calls(Common &common, CallLink &link) : common_{common}, link_{link} {
    for (const Config::Call &call : common.config.call) {
        sites_.emplace_back(*this, call);
    }
}

// NOLINTNEXTLINE(readability-non-const-parameter): the bus gives the type
char *Calls::onCall(void *self, client_t *, char *url, char *data, int len) {
    Site &site = *static_cast<Site *>(self);
    Log &log = site.calls.common_.log;
    try {
        const std::string_view path = std::string_view{url}.substr(1 + site.name.size());
        const std::string_view failure = site.calls.ask(
            site, path, {data ? data : "", static_cast<std::size_t>(data ? len : 0)});
        if (failure.empty()) {
            return mallocText(site.answer);
        }
        log.warning("the call " + std::string{url} + " is not answered: " + std::string{failure});
    } catch (const std::exception &failure) {
        log.error({"a call to ", url, " fails: ", failure.what()});
    }
    return mallocText(kNotImplement);
}

// Why there is no answer.
std::string_view Calls::ask(Site &site, std::string_view path, std::string_view data) {
    const std::chrono::milliseconds timeout = common_.config.callTimeout;
    const auto until = Clock::now() + timeout;
    const Direct request{common_.topics.call(site.site, path), data, site.answerTopic,
                         randomCorrelation(), timeout};
    if (path.size() < 2 || path[1] == '/') {
        return "the address names no node of the site";
    }
    if (request.topic.size() > kLongestTopic) {
        return "the address is too long for MQTT";
    }
    Link::Lock lock = link_.lock();
    std::string_view failure = refusal(site);
    failure = failure.empty() ? link_.send(request) : failure;
    if (!failure.empty()) {
        return failure;
    }
    site.correlation = request.correlation;
    if (!link_.await(lock, site.ended, until, [&site] { return site.correlation.empty(); })) {
        end(site, "the site has given none within \"callTimeout\"");
    }
    return site.failure;
}

std::string_view Calls::refusal(const Site &site) const {
    return closing_ ? "the bridge closes" : site.offline ? "the site is offline" : "";
}

void Calls::end(Site &site, std::string_view failure) {
    if (!site.correlation.empty()) {
        site.correlation.clear();
        site.failure = failure;
        link_.awaken(site.ended);
    }
}

// Only the site that was asked may write to the topic of its answers.
void Calls::answer(const Incoming &incoming) {
    const auto found = std::find_if(sites_.begin(), sites_.end(), [&](const Site &site) {
        return !site.correlation.empty() && site.correlation == incoming.correlation &&
               site.answerTopic == incoming.topic;
    });
    if (found == sites_.end()) {
        common_.log.warning("an answer on " + incoming.topic +
                            " is dropped: no call of that site waits for it, or no more");
        return;
    }
    found->answer = incoming.payload;
    end(*found, "");
}

// An empty state: somebody has taken it away, and the site will say it again.
void Calls::presence(std::string_view site, std::string_view state) {
    for (Site &each : sites_) {
        if (each.site == site) {
            each.offline = !state.empty() && state != "online";
            if (each.offline) {
                end(each, refusal(each));
            }
        }
    }
}

void Calls::disconnected() {
    for (Site &site : sites_) {
        site.offline = false;
        end(site, "the connection to the broker is lost");
    }
}

void Calls::close() {
    const Link::Lock lock = link_.lock();
    closing_ = true;
    for (Site &site : sites_) {
        end(site, refusal(site));
    }
}

} // namespace zelvo_mqtt
