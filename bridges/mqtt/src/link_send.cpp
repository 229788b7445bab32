// How the link sends.
#include "link.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>

namespace zelvo_mqtt {
namespace {

constexpr std::size_t kMostUnsent = 64;
constexpr std::size_t kMostDirect = 2048;

Properties hopProperty(int hops) {
    mosquitto_property *list = nullptr;
    mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, kHops,
                                       std::to_string(hops).c_str());
    return Properties{list};
}

Properties directProperties(const Direct &message) {
    mosquitto_property *list = nullptr;
    if (!message.answerTopic.empty()) {
        mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, message.answerTopic.c_str());
    }
    if (!message.correlation.empty()) {
        mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, message.correlation.data(),
                                      static_cast<std::uint16_t>(message.correlation.size()));
    }
    if (message.expiry > 0) {
        mosquitto_property_add_int32(&list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, message.expiry);
    }
    return Properties{list};
}

bool take(std::vector<int> &mids, int mid) {
    const auto found = std::find(mids.begin(), mids.end(), mid);
    if (found == mids.end()) {
        return false;
    }
    mids.erase(found);
    return true;
}

} // namespace

bool Link::send(Direct message) {
    {
        const std::lock_guard lock{directMutex_};
        if (!isConnected() || direct_.size() >= kMostDirect) {
            return false;
        }
        direct_.push_back(std::move(message));
    }
    kick();
    return true;
}

void Link::kick() {
    if (own_ == this) {
        return; // it looks by itself
    }
    const std::unique_lock lock{mutex_, std::try_to_lock};
    if (lock.owns_lock()) {
        flush();
        if (!connected_ || !mosquitto_want_write(session_->get())) { // there may be no session
            return;
        }
    }
    wake_.set();
}

void Link::flush() {
    if (connected_) {
        flushDirect();
        while (underWay_.size() < window_) {
            std::optional<Publication> publication = underWay_.next();
            if (!publication || !publish(std::move(*publication))) {
                break;
            }
        }
        underWayCount_ = underWay_.unfinished();
    }
}

void Link::flushDirect() {
    while (unsent_.size() < kMostUnsent) {
        Direct message;
        {
            const std::lock_guard lock{directMutex_};
            if (direct_.empty()) {
                return;
            }
            message = std::move(direct_.front());
            direct_.pop_front();
        }
        int mid = 0;
        const int result =
            put(mid, message.topic, message.payload, 0, false, directProperties(message));
        if (result != MOSQ_ERR_SUCCESS) {
            log_.warning("the message to " + message.topic +
                         " can't be sent: " + errorText(result));
        } else if (mid != sentMid_) {
            unsent_.push_back(mid);
        }
    }
}

// False: there is no use in going on now.
bool Link::publish(Publication publication) {
    int mid = 0;
    const int result = put(mid, publication.topic, publication.payload, qos_, publication.retain,
                           hopProperty(publication.hops));
    switch (result) {
    case MOSQ_ERR_SUCCESS:
        if (mid != sentMid_) {
            underWay_.sent(mid, std::move(publication));
        }
        return true;
    case MOSQ_ERR_NO_CONN:
    case MOSQ_ERR_CONN_LOST:
    case MOSQ_ERR_ERRNO:
    case MOSQ_ERR_NOMEM:
        underWay_.back(std::move(publication));
        return false;
    default:
        buffer_.countDrop();
        log_.warning("a publication of " + std::to_string(publication.payload.size()) +
                     " bytes to " + publication.topic + " is dropped: " + errorText(result));
        return true;
    }
}

int Link::put(int &mid, const std::string &topic, const std::string &payload, int qos, bool retain,
              const Properties &properties) {
    sentMid_ = 0;
    return mosquitto_publish_v5(session_->get(), &mid, topic.c_str(),
                                static_cast<int>(payload.size()), payload.data(), qos, retain,
                                properties.get());
}

void Link::onPublish(int mid) {
    if (!underWay_.done(mid, qos_ > 0) && !take(unsent_, mid)) {
        sentMid_ = mid; // within the call that sends it
    }
    underWayCount_ = underWay_.unfinished();
}

void Link::tellDrops() {
    const Buffer::Fill fill = buffer_.fill();
    if (fill.dropped > told_) {
        log_.warning(std::to_string(fill.dropped - told_) +
                     " publications were dropped, the oldest "
                     "first (" +
                     std::to_string(fill.dropped) + " since the start); " +
                     std::to_string(fill.messages) + " wait, of " + std::to_string(fill.bytes) +
                     " bytes");
        told_ = fill.dropped;
    }
}

} // namespace zelvo_mqtt
