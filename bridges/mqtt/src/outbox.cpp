#include "outbox.h"

#include <algorithm>

namespace zelvo_mqtt {
namespace {

constexpr std::size_t kMostUnderWay = std::size_t{4} << 20; // bytes, or a single one
constexpr int kMostTries = 3;

} // namespace

void Outbox::Queue::insert(Place where, Publication publication) {
    bytes += publication.size();
    all.insert(where, std::move(publication));
}

Publication Outbox::Queue::take(Place which) {
    Publication publication = std::move(*which);
    all.erase(which);
    bytes -= publication.size();
    return publication;
}

void Outbox::push(Publication publication) {
    const std::size_t size = publication.size();
    const std::lock_guard lock{mutex_};
    if (size > mostBytes_) {
        ++dropped;
        return;
    }
    while (!waiting_.all.empty() &&
           (waiting_.all.size() >= mostMessages_ || waiting_.bytes + size > mostBytes_)) {
        waiting_.take(waiting_.all.begin());
        ++dropped;
    }
    waiting_.insert(waiting_.all.end(), std::move(publication));
}

std::optional<Publication> Outbox::next(std::size_t window) {
    const std::lock_guard lock{mutex_};
    const bool isSuspect = !sent_.all.empty() && sent_.all.front().tries > 0;
    if (waiting_.all.empty() || isSuspect || sent_.all.size() >= window ||
        sent_.bytes >= kMostUnderWay) {
        return std::nullopt;
    }
    return waiting_.take(waiting_.all.begin());
}

void Outbox::sent(Publication publication) {
    const std::lock_guard lock{mutex_};
    sent_.insert(sent_.all.end(), std::move(publication));
}

void Outbox::back(Publication publication) {
    const std::lock_guard lock{mutex_};
    waiting_.insert(waiting_.all.begin(), std::move(publication));
}

std::optional<Publication> Outbox::done(int mid) {
    const std::lock_guard lock{mutex_};
    const auto found = std::find_if(sent_.all.begin(), sent_.all.end(),
                                    [mid](const Publication &each) { return each.mid == mid; });
    return found == sent_.all.end() ? std::nullopt : std::optional{sent_.take(found)};
}

std::optional<Publication> Outbox::connectionLost(bool blamed) {
    const std::lock_guard lock{mutex_};
    std::optional<Publication> givenUp;
    if (blamed && !sent_.all.empty() && ++sent_.all.front().tries >= kMostTries) {
        givenUp = sent_.take(sent_.all.begin());
    }
    while (!sent_.all.empty()) {
        waiting_.insert(waiting_.all.begin(), sent_.take(std::prev(sent_.all.end())));
    }
    return givenUp;
}

Outbox::Fill Outbox::fill() const {
    const std::lock_guard lock{mutex_};
    return {waiting_.all.size(), waiting_.bytes, sent_.all.size()};
}

} // namespace zelvo_mqtt
