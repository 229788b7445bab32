// The bridge as a whole.
#ifndef ZELVO_MQTT_BRIDGE_H
#define ZELVO_MQTT_BRIDGE_H

#include "calls.h"
#include "data_link.h"
#include "outflow.h"
#include "serving.h"

#include <mutex>
#include <optional>
#include <string>

namespace zelvo_mqtt {

// Hands a message of the connection for calls to the part that it is for. All of it comes from
// outside: what fits nothing is dropped, with a line in the log. With the link's mutex held.
void receive(const Common &common, Calls &calls, Serving &serving, const Incoming &incoming);

class Bridge {
public:
    // Joins the bus, without a connection yet. Throws OpenError, std::bad_alloc, std::system_error.
    Bridge(Zelvo_t *bus, const Config &config, Log &log);
    Bridge(const Bridge &) = delete;
    Bridge &operator=(const Bridge &) = delete;
    // Waits for calls that have not been answered: close() comes first.
    ~Bridge();

    void start();
    // False: a call into the bus has not been answered; to be called again.
    bool close();

private:
    void callsChanged(const std::optional<Target> &target, const std::string &why);
    void dataChanged(bool connected, const std::string &why);
    void stop(); // what goes on with the broker; once more does nothing
    void announce(bool connected, const std::string &why);
    void withdrawState();
    std::string state();

    Common common_;
    bool closing_ = false;
    std::mutex stateMutex_; // of the next two, and of telling them
    bool connected_ = false;
    std::string why_ = "connecting";

    CallLink callLink_;
    DataLink dataLink_;
    Outflow outflow_;
    Calls calls_;
    Serving serving_;
};

} // namespace zelvo_mqtt

#endif
