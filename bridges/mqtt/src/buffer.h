// Publications on their way to the broker, in order, until there is room for them under way.
#ifndef ZELVO_MQTT_BUFFER_H
#define ZELVO_MQTT_BUFFER_H

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
    void countDrop(std::uint64_t number = 1);

    struct Fill {
        std::size_t messages, bytes;
        std::uint64_t dropped; // since the start
    };
    Fill fill() const;

private:
    static std::size_t sizeOf(const Publication &p) { return p.topic.size() + p.payload.size(); }

    const std::size_t mostMessages_, mostBytes_;
    mutable std::mutex mutex_; // of everything below
    std::deque<Publication> queue_;
    std::size_t bytes_ = 0;
    std::uint64_t dropped_ = 0;
};

} // namespace zelvo_mqtt

#endif
