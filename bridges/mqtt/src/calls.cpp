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

Calls::Site::Site(Calls &its, Zelvo_t *bus, const Config::Call &call)
    : calls{its},
      site{call.site},
      name{call.node},
      answerTopic{its.topics_.answers(its.config_.site, call.site)},
      node{bus, call.node, nullptr, onCall, this} {}

Calls::Calls(Zelvo_t *bus, const Config &config, const Topics &topics, CallLink &link, Log &log)
    : config_{config},
      topics_{topics},
      link_{link},
      log_{log} {
    for (const Config::Call &call : config.call) {
        sites_.emplace_back(*this, bus, call);
    }
}

// NOLINTNEXTLINE(readability-non-const-parameter): the bus gives the type
char *Calls::onCall(void *self, client_t *, char *url, char *data, int len) {
    Site &site = *static_cast<Site *>(self);
    Log &log = site.calls.log_;
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
    const std::string topic = topics_.call(site.site, path);
    if (path.size() < 2 || path[1] == '/') {
        return "the address names no node of the site";
    }
    if (topic.size() > kLongestTopic) {
        return "the address is too long for MQTT";
    }
    const std::string correlation = randomCorrelation();
    Direct message{topic, std::string{data}, site.answerTopic, correlation, config_.callTimeout};
    std::unique_lock lock{mutex_};
    const std::string_view refused = refusal(site);
    if (!refused.empty()) {
        return refused;
    }
    site.correlation = correlation;
    lock.unlock();
    if (!link_.send(std::move(message))) {
        return link_.isConnected() ? "too many messages wait for the broker"
                                   : "there is no connection to the broker";
    }
    const auto until = Clock::now() + config_.callTimeout;
    const auto isEnded = [&site] { return site.correlation.empty(); };
    link_.readUntil(until, [&] {
        const std::lock_guard held{mutex_};
        return isEnded();
    });
    lock.lock();
    if (!site.ended.wait_until(lock, until, isEnded)) {
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
        site.ended.notify_one();
        site.calls.link_.wakeGuest();
    }
}

// Only the site that was asked may write to the topic of its answers.
void Calls::answer(const Incoming &incoming) {
    std::unique_lock lock{mutex_};
    const auto found = std::find_if(sites_.begin(), sites_.end(), [&](const Site &site) {
        return !site.correlation.empty() && site.correlation == incoming.correlation &&
               site.answerTopic == incoming.topic;
    });
    if (found == sites_.end()) {
        lock.unlock();
        log_.warning("an answer on " + incoming.topic +
                     " is dropped: no call of that site waits for it, or no more");
        return;
    }
    found->answer = incoming.payload;
    found->failure = {};
    found->correlation.clear();
    lock.unlock(); // what is woken is not to wait for it
    found->ended.notify_one();
    link_.wakeGuest();
}

// An empty state: somebody has taken it away, and the site will say it again.
void Calls::presence(std::string_view site, std::string_view state) {
    const std::lock_guard lock{mutex_};
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
    const std::lock_guard lock{mutex_};
    for (Site &site : sites_) {
        site.offline = false;
        end(site, "the connection to the broker is lost");
    }
}

void Calls::close() {
    const std::lock_guard lock{mutex_};
    closing_ = true;
    for (Site &site : sites_) {
        end(site, refusal(site));
    }
}

} // namespace zelvo_mqtt
