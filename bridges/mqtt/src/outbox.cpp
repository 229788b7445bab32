#include "outbox.h"

#include <algorithm>

namespace zelvo_mqtt {
namespace {

constexpr std::size_t kMostUnderWay = std::size_t{4} << 20; // bytes, or a single one
constexpr int kMostTries = 3;

} // namespace

void Outbox::push(Publication publication) {
    const std::size_t size = publication.size();
    const std::lock_guard lock{mutex_};
    if (size > mostBytes_) {
        ++dropped;
        return;
    }
    while (!waiting_.empty() &&
           (waiting_.size() >= mostMessages_ || waitingBytes_ + size > mostBytes_)) {
        takeWaiting();
        ++dropped;
    }
    waiting_.push_back(std::move(publication));
    waitingBytes_ += size;
}

Publication Outbox::take(std::deque<Publication> &queue) {
    Publication publication = std::move(queue.front());
    queue.pop_front();
    return publication;
}

Publication Outbox::takeWaiting() {
    waitingBytes_ -= waiting_.front().size();
    return take(waiting_);
}

std::optional<Publication> Outbox::next(std::size_t window) {
    const std::lock_guard lock{mutex_};
    const bool suspect = !sent_.empty() && sent_.front().publication.tries > 0;
    if (suspect || sent_.size() >= window || sentBytes_ >= kMostUnderWay) {
        return std::nullopt;
    }
    if (!again_.empty()) {
        return take(again_);
    }
    return waiting_.empty() ? std::nullopt : std::optional{takeWaiting()};
}

void Outbox::sent(int mid, Publication publication) {
    const std::lock_guard lock{mutex_};
    sentBytes_ += publication.size();
    sent_.push_back({mid, std::move(publication)});
}

void Outbox::back(Publication publication) {
    const std::lock_guard lock{mutex_};
    again_.push_front(std::move(publication));
}

std::optional<Publication> Outbox::done(int mid) {
    const std::lock_guard lock{mutex_};
    return finish(mid);
}

std::optional<Publication> Outbox::finish(int mid) {
    const auto found = std::find_if(sent_.begin(), sent_.end(),
                                    [mid](const Sent &each) { return each.mid == mid; });
    if (found == sent_.end()) {
        return std::nullopt;
    }
    Publication publication = std::move(found->publication);
    sentBytes_ -= publication.size();
    sent_.erase(found);
    return publication;
}

std::optional<Publication> Outbox::connectionLost(bool blamed) {
    const std::lock_guard lock{mutex_};
    std::optional<Publication> givenUp;
    if (blamed && !sent_.empty() && ++sent_.front().publication.tries >= kMostTries) {
        givenUp = finish(sent_.front().mid);
    }
    for (; !sent_.empty(); sent_.pop_back()) {
        again_.push_front(std::move(sent_.back().publication));
    }
    sentBytes_ = 0;
    return givenUp;
}

Outbox::Fill Outbox::fill() const {
    const std::lock_guard lock{mutex_};
    return {waiting_.size(), waitingBytes_, sent_.size() + again_.size()};
}

} // namespace zelvo_mqtt
