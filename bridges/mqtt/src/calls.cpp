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
    const Site &site = *static_cast<Site *>(self);
    try {
        const std::string_view path = std::string_view{url}.substr(1 + site.name.size());
        const std::string answer = site.calls.ask(
            site, path, {data ? data : "", static_cast<std::size_t>(data ? len : 0)});
        return mallocText(answer);
    } catch (const std::exception &failure) {
        site.calls.log_.error({"a call to ", url, " fails: ", failure.what()});
        return mallocText(kNotImplement);
    }
}

std::string Calls::ask(const Site &site, std::string_view path, std::string_view data) {
    Waiting waiting;
    waiting.site = site.site;
    waiting.answerTopic = topics_.answers(config_.site, site.site);
    const std::string topic = topics_.call(site.site, path);
    std::string_view failure;
    if (path.size() < 2 || path[1] == '/') {
        failure = "the address names no node of the site";
    } else if (topic.size() > kLongestTopic) {
        failure = "the address is too long for MQTT";
    } else {
        failure = request(waiting, topic, data);
    }
    if (failure.empty()) {
        return waiting.answer;
    }
    log_.warning("the call /" + site.name + std::string{path} +
                 " is not answered: " + std::string{failure});
    return kNotImplement;
}

// Why there is no answer.
std::string_view Calls::request(Waiting &waiting, const std::string &topic, std::string_view data) {
    const std::string correlation = randomCorrelation();
    Direct message{topic, std::string{data}, waiting.answerTopic, correlation, config_.callTimeout};
    std::unique_lock lock{mutex_};
    const auto online = online_.find(waiting.site);
    if (closing_) {
        return "the bridge closes";
    }
    if (online != online_.end() && !online->second) {
        return "the site is offline";
    }
    const auto entry = waiting_.emplace(correlation, &waiting).first;
    lock.unlock();
    const std::string_view refusal = send(std::move(message));
    lock.lock();
    if (!refusal.empty()) {
        end(waiting, refusal);
    }
    const std::string_view failure = await(waiting, lock);
    waiting_.erase(entry);
    return failure;
}

// Throws nothing, so that no entry outlives the frame it leads to.
std::string_view Calls::send(Direct message) noexcept {
    try {
        if (link_.send(std::move(message))) {
            return {};
        }
    } catch (const std::exception &) {
        return "memory is short";
    }
    return link_.isConnected() ? "too many messages wait for the broker"
                               : "there is no connection to the broker";
}

std::string_view Calls::await(Waiting &waiting, std::unique_lock<std::mutex> &lock) const {
    const bool done =
        waiting.ended.wait_for(lock, config_.callTimeout, [&] { return waiting.done; });
    return done ? waiting.failure : "the site has given none within \"callTimeout\"";
}

void Calls::end(Waiting &waiting, std::string_view failure) {
    if (!waiting.done) {
        waiting.done = true;
        waiting.failure = failure;
        waiting.ended.notify_one();
    }
}

// Only the site that was asked may write to the topic of its answers.
void Calls::answer(const Incoming &incoming) {
    {
        const std::lock_guard lock{mutex_};
        const auto found = waiting_.find(incoming.correlation);
        if (found != waiting_.end() && !found->second->done &&
            found->second->answerTopic == incoming.topic) {
            found->second->answer = incoming.payload;
            end(*found->second, {});
            return;
        }
    }
    log_.warning("an answer on " + incoming.topic +
                 " is dropped: no call of that site waits for it, or no more");
}

void Calls::presence(std::string_view site, std::string_view state) {
    const std::lock_guard lock{mutex_};
    const bool online = state == "online";
    if (state.empty()) { // somebody has taken it away; the site will say it again
        online_.erase(std::string{site});
        return;
    }
    online_.insert_or_assign(std::string{site}, online);
    for (const auto &[correlation, waiting] : waiting_) {
        if (!online && waiting->site == site) {
            end(*waiting, "the site is offline");
        }
    }
}

void Calls::disconnected() {
    const std::lock_guard lock{mutex_};
    online_.clear();
    for (const auto &[correlation, waiting] : waiting_) {
        end(*waiting, "the connection to the broker is lost");
    }
}

void Calls::close() {
    const std::lock_guard lock{mutex_};
    closing_ = true;
    for (const auto &[correlation, waiting] : waiting_) {
        end(*waiting, "the bridge closes");
    }
}

} // namespace zelvo_mqtt
