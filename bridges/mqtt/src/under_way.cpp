#include "under_way.h"

#include <algorithm>

namespace zelvo_mqtt {

std::optional<Publication> UnderWay::next() {
    if (again_.empty()) {
        return buffer_.pop();
    }
    Publication publication = std::move(again_.front());
    again_.pop_front();
    return publication;
}

void UnderWay::sent(int mid, Publication publication) {
    sent_.push_back({mid, std::move(publication)});
}

bool UnderWay::done(int mid, bool kept) {
    const auto found = std::find_if(sent_.begin(), sent_.end(),
                                    [mid](const Sent &each) { return each.mid == mid; });
    if (found == sent_.end()) {
        return false;
    }
    if (kept && found->publication.payload.size() <= kLargestKept) {
        kept_.push_back({std::chrono::steady_clock::now(), std::move(found->publication)});
        if (kept_.size() > kMostKept) {
            kept_.pop_front();
        }
    }
    sent_.erase(found);
    return true;
}

void UnderWay::connectionLost() {
    const auto oldest = std::chrono::steady_clock::now() - kLongestKept;
    while (!sent_.empty()) {
        again_.push_front(std::move(sent_.back().publication));
        sent_.pop_back();
    }
    while (!kept_.empty()) {
        if (kept_.back().when >= oldest) {
            again_.push_front(std::move(kept_.back().publication));
        }
        kept_.pop_back();
    }
}

} // namespace zelvo_mqtt
