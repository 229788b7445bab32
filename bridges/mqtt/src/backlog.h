// Whether nodes of the bus are so far behind that more publications would be lost on them. Only a
// bus with "stats" tells.
#ifndef ZELVO_MQTT_BACKLOG_H
#define ZELVO_MQTT_BACKLOG_H

#include <zelvo/bus_client.h>

#include <map>
#include <string>

namespace zelvo_mqtt {

class Backlog {
public:
    enum class Look { kNone, kShrinks, kStands };

    // Calls the bus on behalf of client, whose own queue does not count. A node that has taken
    // nothing since the look before stands.
    Look look(client_t *client);
    // A node that stands, for good perhaps, does not count until it moves.
    void pass() { passed_ = seen_; }

private:
    using Taken = std::map<std::string, double>; // by node
    Look judge(const char *stats);

    bool told_ = true; // the bus has "stats"
    Taken seen_, passed_;
};

} // namespace zelvo_mqtt

#endif
