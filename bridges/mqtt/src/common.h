// What the parts of a bridge have in common.
#ifndef ZELVO_MQTT_COMMON_H
#define ZELVO_MQTT_COMMON_H

#include "config.h"
#include "log.h"
#include "passing.h"
#include "topics.h"

#include <string>
#include <vector>

namespace zelvo_mqtt {

class Node;

struct Common {
    Common(Zelvo_t *joined, const Config &its, Log &lines)
        : bus{joined},
          config{its},
          log{lines},
          topics{config.prefix, config.site},
          passing{bus, config.site},
          name{"mqtt." + config.site +
               (passing.number() > 1 ? "." + std::to_string(passing.number()) : "")} {}

    Zelvo_t *const bus;
    const Config config;
    Log &log;
    const Topics topics;
    Passing passing;
    const std::string name;    // of the bridge's own node
    std::vector<Node *> nodes; // all that have joined the bus
};

} // namespace zelvo_mqtt

#endif
