// Publications that have been handed to the broker.
#ifndef ZELVO_MQTT_UNDER_WAY_H
#define ZELVO_MQTT_UNDER_WAY_H

#include "buffer.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>

namespace zelvo_mqtt {

// What is handed over, in order: first what a lost connection has left, then what the buffer holds.
// A broker that dies may have acknowledged publications that it had not yet stored: so the latest
// of those are handed over again too, before the others. Not for several threads.
class UnderWay {
public:
    explicit UnderWay(Buffer &buffer) : buffer_{buffer} {}

    // The next one to be handed over. Afterwards it is either underway() or back().
    std::optional<Publication> next();
    void sent(int mid, Publication publication);
    void back(Publication publication) { again_.push_front(std::move(publication)); }

    // False: it is none of these. kept: it has been acknowledged, and may be needed again.
    bool done(int mid, bool kept);
    void connectionLost(); // where memory is short for it: to be called again

    std::size_t size() const { return sent_.size(); } // without acknowledgement
    std::size_t unfinished() const { return sent_.size() + again_.size(); }

private:
    static constexpr std::size_t kMostKept = 20;
    static constexpr std::size_t kLargestKept = std::size_t{64} << 10; // bytes
    static constexpr std::chrono::seconds kLongestKept{5};

    struct Sent {
        int mid = 0;
        Publication publication;
    };
    struct Kept {
        std::chrono::steady_clock::time_point when;
        Publication publication;
    };

    Buffer &buffer_;
    std::deque<Publication> again_;
    std::deque<Sent> sent_;
    std::deque<Kept> kept_;
};

} // namespace zelvo_mqtt

#endif
