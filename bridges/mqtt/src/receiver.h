// Hands each message from the broker to the part that it is for. All of it comes from outside: what
// fits nothing is dropped, with a line in the log.
#ifndef ZELVO_MQTT_RECEIVER_H
#define ZELVO_MQTT_RECEIVER_H

#include "calls.h"
#include "incoming.h"
#include "inflow.h"
#include "log.h"
#include "serving.h"
#include "topics.h"

#include <optional>

namespace zelvo_mqtt {

class Receiver {
public:
    Receiver(const Topics &topics, std::optional<Inflow> &inflow, Calls &calls, Serving &serving,
             Log &log)
        : topics_{topics},
          inflow_{inflow},
          calls_{calls},
          serving_{serving},
          log_{log} {}

    // The link's thread's; does not block. Throws std::bad_alloc.
    void receive(const Incoming &incoming);

private:
    const Topics &topics_;
    std::optional<Inflow> &inflow_;
    Calls &calls_;
    Serving &serving_;
    Log &log_;
};

} // namespace zelvo_mqtt

#endif
