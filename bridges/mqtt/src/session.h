// The MQTT library's handle of one connection, set up for a broker of a configuration.
#ifndef ZELVO_MQTT_SESSION_H
#define ZELVO_MQTT_SESSION_H

#include "config.h"

#include <mosquitto.h>
#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>

namespace zelvo_mqtt {

// What a result of the library, or a reason code, means; errno belongs to some results.
std::string errorText(int result);

struct PropertiesDelete {
    void operator()(mosquitto_property *properties) const {
        mosquitto_property_free_all(&properties);
    }
};
using Properties = std::unique_ptr<mosquitto_property, PropertiesDelete>;

// One address of a broker.
struct Target {
    Config::Broker broker;
    std::string address; // in figures
};

// What one connection differs in from another.
struct Purpose {
    std::string clientId = {};
    std::uint32_t expiry = 0; // seconds for which the broker keeps the session; 0: it begins anew
    int keepAlive = 0;        // seconds; 0: none
    std::string will = {};    // topic, where "offline" is to stand; empty: none
    int willQos = 1;
    bool willRetain = true;
    std::string instance = {}; // its user property kInstance
};

Properties userProperty(const char *name, const std::string &value);

// Every use of the handle, the destructor included, is the caller's to keep apart.
class Session {
public:
    // userdata goes to the callbacks. Throws OpenError, naming what is refused.
    Session(const Config &config, const Target &target, const Purpose &purpose, void *userdata);
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session() = default;

    mosquitto *get() const { return handle_.get(); }
    int connect(); // begins; a result of the library
    // Why the broker's certificate is refused; empty: it is not.
    const std::string &certificateFault() const { return fault_; }
    // The TLS library has bytes that the socket has no more.
    bool holdsMore() const;

private:
    struct Destroy {
        void operator()(mosquitto *handle) const { mosquitto_destroy(handle); }
        void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    };
    void setTls(const Config &config);
    void setProperties(const Config &config, std::uint32_t expiry);
    static Session &of(const SSL *ssl);
    static void nameHost(const SSL *ssl, int where, int);
    static int noteFault(int valid, X509_STORE_CTX *certificate);

    Target target_; // its host is given to the TLS library
    const int keepAlive_;
    std::string fault_;
    std::unique_ptr<SSL_CTX, Destroy> tls_;
    std::unique_ptr<mosquitto, Destroy> handle_; // last: it ends before what it uses
};

} // namespace zelvo_mqtt

#endif
