#include "receiver.h"

namespace zelvo_mqtt {

void Receiver::receive(const Incoming &incoming) {
    if (inflow_ && inflow_->takes(incoming.topic)) {
        inflow_->publish(incoming);
    } else if (incoming.topic == topics_.answers()) {
        calls_.answer(incoming.correlation, incoming.payload);
    } else if (incoming.topic.starts_with(topics_.requests())) {
        serving_.request(incoming);
    } else if (topics_.isPresence(incoming.topic)) {
        calls_.presence(topics_.siteOf(incoming.topic).value_or(""), incoming.payload);
    } else {
        log_.warning("a message to " + incoming.topic + " is dropped: it is for nothing here");
    }
}

} // namespace zelvo_mqtt
