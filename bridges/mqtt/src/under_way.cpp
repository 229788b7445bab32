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
    std::deque<Publication> again;
    for (Kept &each : kept_) {
        if (each.when >= oldest) {
            again.push_back(std::move(each.publication));
        }
    }
    for (Sent &each : sent_) {
        again.push_back(std::move(each.publication));
    }
    std::move(again_.begin(), again_.end(), std::back_inserter(again));
    again_ = std::move(again);
    kept_.clear();
    sent_.clear();
}

} // namespace zelvo_mqtt
