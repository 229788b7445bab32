#include "buffer.h"

namespace zelvo_mqtt {

void Buffer::push(Publication publication) {
    const std::size_t size = publication.size();
    const std::lock_guard lock{mutex_};
    if (size > mostBytes_) {
        ++dropped_;
        return;
    }
    while (!queue_.empty() && (queue_.size() >= mostMessages_ || bytes_ + size > mostBytes_)) {
        bytes_ -= queue_.front().size();
        queue_.pop_front();
        ++dropped_;
    }
    queue_.push_back(std::move(publication));
    bytes_ += size;
}

std::optional<Publication> Buffer::pop() {
    const std::lock_guard lock{mutex_};
    if (queue_.empty()) {
        return std::nullopt;
    }
    Publication publication = std::move(queue_.front());
    queue_.pop_front();
    bytes_ -= publication.size();
    return publication;
}

void Buffer::countDrop() {
    const std::lock_guard lock{mutex_};
    ++dropped_;
}

Buffer::Fill Buffer::fill() const {
    const std::lock_guard lock{mutex_};
    return {queue_.size(), bytes_, dropped_};
}

} // namespace zelvo_mqtt
