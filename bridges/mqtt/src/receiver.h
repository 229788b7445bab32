// Hands each message of the connection for calls to the part that it is for. All of it comes from
// outside: what fits nothing is dropped, with a line in the log.
#ifndef ZELVO_MQTT_RECEIVER_H
#define ZELVO_MQTT_RECEIVER_H

#include "calls.h"
#include "incoming.h"
#include "log.h"
#include "serving.h"
#include "topics.h"

namespace zelvo_mqtt {

struct Receiver {
    const Topics &topics;
    Calls &calls;
    Serving &serving;
    Log &log;

    // The link's thread's; does not block. Throws std::bad_alloc.
    void receive(const Incoming &incoming) const {
        if (topics.isAnswer(incoming.topic)) {
            calls.answer(incoming);
        } else if (incoming.topic.starts_with(topics.requests())) {
            serving.request(incoming);
        } else if (const auto site = topics.siteOf(incoming.topic)) {
            calls.presence(*site, incoming.payload);
        } else {
            log.warning("a message to " + incoming.topic + " is dropped: it is for nothing here");
        }
    }
};

} // namespace zelvo_mqtt

#endif
