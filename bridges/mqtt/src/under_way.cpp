#include "under_way.h"

#include <algorithm>

namespace zelvo_mqtt {

std::optional<Publication> UnderWay::next(std::size_t window) {
    const bool suspect = !sent_.empty() && sent_.front().publication.tries > 0;
    if (suspect || sent_.size() >= window || bytes_ >= kMostBytes) {
        return std::nullopt;
    }
    if (again_.empty()) {
        return buffer_.pop();
    }
    Publication publication = std::move(again_.front());
    again_.pop_front();
    return publication;
}

void UnderWay::sent(int mid, Publication publication) {
    bytes_ += publication.size();
    sent_.push_back({mid, std::move(publication)});
}

std::optional<Publication> UnderWay::done(int mid) {
    const auto found = std::find_if(sent_.begin(), sent_.end(),
                                    [mid](const Sent &each) { return each.mid == mid; });
    if (found == sent_.end()) {
        return std::nullopt;
    }
    Publication publication = std::move(found->publication);
    bytes_ -= publication.size();
    sent_.erase(found);
    return publication;
}

std::optional<Publication> UnderWay::connectionLost(bool blamed) {
    std::optional<Publication> givenUp;
    if (blamed && !sent_.empty() && ++sent_.front().publication.tries >= kMostTries) {
        givenUp = done(sent_.front().mid);
    }
    for (; !sent_.empty(); sent_.pop_back()) {
        again_.push_front(std::move(sent_.back().publication));
    }
    bytes_ = 0;
    return givenUp;
}

} // namespace zelvo_mqtt
