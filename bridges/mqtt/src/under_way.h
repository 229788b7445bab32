// Publications that have been handed to the broker.
#ifndef ZELVO_MQTT_UNDER_WAY_H
#define ZELVO_MQTT_UNDER_WAY_H

#include "buffer.h"

#include <cstddef>
#include <deque>
#include <optional>

namespace zelvo_mqtt {

// What is handed over, in order: first what a lost connection has left without acknowledgement,
// then what the buffer holds. Not for several threads.
class UnderWay {
public:
    explicit UnderWay(Buffer &buffer) : buffer_{buffer} {}

    // The next one to be handed over, where the broker takes so many at a time. Afterwards it is
    // either sent() or back(), or done with.
    std::optional<Publication> next(std::size_t window);
    void sent(int mid, Publication publication);
    void back(Publication publication) { again_.push_front(std::move(publication)); }

    // Acknowledged, one way or the other. Nothing: it is none of these.
    std::optional<Publication> done(int mid);
    // All are handed over again. blamed: it was the broker that ended the connection, and the
    // first of them may be why. It is then tried alone, and returned in the end to be given up.
    std::optional<Publication> connectionLost(bool blamed);

    std::size_t unfinished() const { return sent_.size() + again_.size(); }

private:
    static constexpr std::size_t kMostBytes = std::size_t{4} << 20; // or a single one
    static constexpr int kMostTries = 3;

    struct Sent {
        int mid = 0;
        Publication publication;
    };

    Buffer &buffer_;
    std::deque<Publication> again_;
    std::deque<Sent> sent_;
    std::size_t bytes_ = 0; // sent
};

} // namespace zelvo_mqtt

#endif
