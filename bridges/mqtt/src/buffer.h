// Publications on their way to the broker, in order, until there is room for them under way.
#ifndef ZELVO_MQTT_BUFFER_H
#define ZELVO_MQTT_BUFFER_H

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

    std::size_t size() const { return topic.size() + payload.size(); }
};

// Bounded by messages and by bytes of topic and payload. Any thread; nothing blocks.
class Buffer {
public:
    Buffer(std::size_t messages, std::size_t bytes) : mostMessages_{messages}, mostBytes_{bytes} {}

    // Appends; where there is no room the oldest are dropped, or the new one where it is larger
    // than all the room.
    void push(Publication publication);
    std::optional<Publication> pop();
    // A publication that is lost elsewhere.
    void countDrop();

    struct Fill {
        std::size_t messages, bytes;
        std::uint64_t dropped; // since the start
    };
    Fill fill() const;

private:
    const std::size_t mostMessages_, mostBytes_;
    mutable std::mutex mutex_; // of everything below
    std::deque<Publication> queue_;
    std::size_t bytes_ = 0;
    std::uint64_t dropped_ = 0;
};

} // namespace zelvo_mqtt

#endif
