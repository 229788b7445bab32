// The MQTT library's handle of one client, set up for the broker of a configuration.
#ifndef ZELVO_MQTT_SESSION_H
#define ZELVO_MQTT_SESSION_H

#include "config.h"
#include "topics.h"

#include <mosquitto.h>

#include <memory>
#include <string>

namespace zelvo_mqtt {

// What a result of the library, or a reason code, means; errno belongs to some results.
std::string errorText(int result);

struct PropertiesDelete {
    void operator()(mosquitto_property *properties) const;
};
using Properties = std::unique_ptr<mosquitto_property, PropertiesDelete>;

// Every use of the handle, the destructor included, is the caller's to keep apart.
class Session {
public:
    // userdata goes to the callbacks. Throws OpenError, naming what is refused.
    Session(const Config &config, const Topics &topics, void *userdata);
    mosquitto *get() const { return handle_.get(); }

private:
    // The library's own state is one for the process.
    struct Library {
        Library();
        Library(const Library &) = delete;
        Library &operator=(const Library &) = delete;
        ~Library();
    };
    struct Destroy {
        void operator()(mosquitto *handle) const;
    };
    void setTls(const Config &config);
    void setExpiry(const Config &config);

    Library library_;
    std::unique_ptr<mosquitto, Destroy> handle_;
};

} // namespace zelvo_mqtt

#endif
