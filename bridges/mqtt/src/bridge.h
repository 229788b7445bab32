// The bridge as a whole.
#ifndef ZELVO_MQTT_BRIDGE_H
#define ZELVO_MQTT_BRIDGE_H

#include "call_link.h"
#include "calls.h"
#include "config.h"
#include "data_link.h"
#include "inflow.h"
#include "log.h"
#include "outbox.h"
#include "outflow.h"
#include "passing.h"
#include "receiver.h"
#include "serving.h"
#include "topics.h"

#include <mutex>
#include <optional>
#include <string>

namespace zelvo_mqtt {

class Bridge {
public:
    // Joins the bus, without a thread yet. Throws OpenError, std::bad_alloc, std::system_error.
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
    void announce(bool connected, const std::string &why);
    void withdrawState();
    std::string state();
    std::string nodeName(const std::string &site) const;
    template <typename Function>
    void eachNode(Function function);

    const Config config_;
    Log &log_;
    const Topics topics_;
    Passing passing_;
    const std::string name_;
    Outbox outbox_;
    std::optional<Inflow> inflow_;
    CallLink callLink_;
    DataLink dataLink_;
    Outflow outflow_;
    Calls calls_;
    Serving serving_;
    const Receiver receiver_;
    bool closing_ = false;

    std::mutex stateMutex_; // of the next two, and of telling them
    bool connected_ = false;
    std::string why_ = "connecting";
};

} // namespace zelvo_mqtt

#endif
