#include "session.h"

#include "node.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cerrno>
#include <csignal>
#include <mutex>
#include <system_error>

namespace zelvo_mqtt {
namespace {

std::mutex libraryMutex; // its counter of users has none

void require(int result, const std::string &what) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw OpenError{what + ": " + mosquitto_strerror(result)};
    }
}

// Of one client, so that the broker knows it again after a restart.
std::string clientId(const Config &config) {
    return escapedLevel(config.prefix) + "-" + escapedLevel(config.site);
}

// The library turns SIGPIPE off for the whole process. The bridge's threads block it, so it can
// stay as the application has it.
mosquitto *newHandle(const std::string &id, void *userdata) {
    struct sigaction before {};
    sigaction(SIGPIPE, nullptr, &before);
    mosquitto *const handle = mosquitto_new(id.c_str(), false, userdata);
    sigaction(SIGPIPE, &before, nullptr);
    return handle;
}

const char *orNull(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

} // namespace

std::string errorText(int result) {
    if (result == MOSQ_ERR_ERRNO) {
        return std::generic_category().message(errno);
    }
    return result >= 128 ? mosquitto_reason_string(result) : mosquitto_strerror(result);
}

void PropertiesDelete::operator()(mosquitto_property *properties) const {
    mosquitto_property_free_all(&properties);
}

Session::Library::Library() {
    const std::lock_guard lock{libraryMutex};
    mosquitto_lib_init();
}

Session::Library::~Library() {
    const std::lock_guard lock{libraryMutex};
    mosquitto_lib_cleanup();
}

void Session::Destroy::operator()(mosquitto *handle) const {
    mosquitto_destroy(handle);
}

Session::Session(const Config &config, const Topics &topics, void *userdata)
    : handle_{newHandle(clientId(config), userdata)} {
    if (!handle_) {
        throw OpenError{"the MQTT library gives no client"};
    }
    mosquitto *const handle = handle_.get();
    require(mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
    // Without it a request waits for the acknowledgement of what went before.
    require(mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
    if (!config.user.empty()) {
        require(mosquitto_username_pw_set(handle, config.user.c_str(), orNull(config.password)),
                "\"user\" and \"password\"");
    }
    if (config.tls) {
        setTls(config);
    }
    const std::string presence = topics.presence(config.site);
    require(mosquitto_will_set_v5(handle, presence.c_str(), 7, "offline", 1, true, nullptr),
            "the will");
    setExpiry(config);
}

void Session::setTls(const Config &config) {
    mosquitto *const handle = handle_.get();
    if (config.ca.empty()) {
        require(mosquitto_int_option(handle, MOSQ_OPT_TLS_USE_OS_CERTS, 1), "the system's \"ca\"");
    }
    // A password of a key would be asked for on the terminal.
    constexpr auto noPassword = [](char *, int, int, void *) { return 0; };
    if (!config.ca.empty() || !config.certificate.empty()) {
        require(mosquitto_tls_set(handle, orNull(config.ca), nullptr, orNull(config.certificate),
                                  orNull(config.key), noPassword),
                "\"ca\", \"cert\" or \"key\"");
    }
}

// The library keeps the properties of a connection for every later one, but has no function that
// takes them without connecting. An empty host ends that at once.
void Session::setExpiry(const Config &config) {
    if (config.sessionExpiry == 0) {
        return;
    }
    mosquitto_property *list = nullptr;
    require(mosquitto_property_add_int32(&list, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                         config.sessionExpiry),
            "\"sessionExpiry\"");
    const Properties properties{list};
    mosquitto_connect_bind_v5(handle_.get(), "", config.port, 0, nullptr, properties.get());
}

} // namespace zelvo_mqtt
