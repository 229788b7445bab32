// Publications on their way to the broker.
#ifndef ZELVO_MQTT_OUTBOX_H
#define ZELVO_MQTT_OUTBOX_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace zelvo_mqtt {

struct Publication {
    std::string topic; // the broker's
    std::string payload;
    bool retain = false;
    int hops = 1;
    std::chrono::steady_clock::time_point until = std::chrono::steady_clock::time_point::max();
    int tries = 0; // connections that the broker has ended at it
    int mid = 0;   // its number there, once it has been handed over

    std::size_t size() const { return topic.size() + payload.size(); }
};

// They are handed over in order. What waits is bounded by messages and by bytes of topic and
// payload. Any thread may push; the rest is one thread's. Nothing blocks.
class Outbox {
public:
    Outbox(std::size_t messages, std::size_t bytes) : mostMessages_{messages}, mostBytes_{bytes} {}

    // Where there is no room the oldest are dropped, or the new one where it is larger than all the
    // room.
    void push(Publication publication);

    // The next one to be handed over, where the broker takes so many at a time. Afterwards it is
    // either sent() or back(), or done with.
    std::optional<Publication> next(std::size_t window);
    void sent(Publication publication);
    void back(Publication publication);
    // Acknowledged, one way or the other. Nothing: it is none of these.
    std::optional<Publication> done(int mid);
    // What is under way waits again, before all others. blamed: it was the broker that ended the
    // connection, and the first of them may be why. It is then tried alone, and returned in the end
    // to be given up.
    std::optional<Publication> connectionLost(bool blamed);

    struct Fill {
        std::size_t messages, bytes; // that wait
        std::size_t underWay;        // handed over, and not acknowledged
    };
    Fill fill() const;
    // Since the start, wherever they are lost.
    std::atomic<std::uint64_t> dropped{0}, refused{0}, expired{0};

private:
    struct Queue {
        std::deque<Publication> all;
        std::size_t bytes = 0;

        using Place = std::deque<Publication>::iterator;
        void insert(Place where, Publication publication);
        Publication take(Place which);
    };

    const std::size_t mostMessages_, mostBytes_;
    mutable std::mutex mutex_; // of everything below
    Queue waiting_, sent_;
};

} // namespace zelvo_mqtt

#endif
