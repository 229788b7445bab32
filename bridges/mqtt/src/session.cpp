#include "session.h"

#include "incoming.h"
#include "node.h"

#include <mqtt_protocol.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <system_error>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace zelvo_mqtt {
namespace {

void require(int result, const std::string &what) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw OpenError{what + ": " + mosquitto_strerror(result)};
    }
}

// Once for the process, for good. The library seeds rand(), which is the application's: it gets
// another state for that moment.
void initialiseLibrary() {
    static std::once_flag once;
    std::call_once(once, [] {
        char state[64];
        char *const before = initstate(1, state, sizeof state);
        mosquitto_lib_init();
        setstate(before);
    });
}

// The library turns SIGPIPE off for the whole process. The bridge's threads block it, so it can
// stay as the application has it.
mosquitto *newHandle(const Purpose &purpose, void *userdata) {
    initialiseLibrary();
    struct sigaction before {};
    sigaction(SIGPIPE, nullptr, &before);
    mosquitto *const handle =
        mosquitto_new(purpose.clientId.c_str(), purpose.expiry == 0, userdata);
    sigaction(SIGPIPE, &before, nullptr);
    return handle;
}

// No child process is to hold the connection, and the system is to notice a broker that is gone
// also while nothing is said or read.
void tune(int file) {
    constexpr int seconds = 15;
    fcntl(file, F_SETFD, FD_CLOEXEC);
    constexpr int options[][3] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                                  {IPPROTO_TCP, TCP_KEEPIDLE, seconds},
                                  {IPPROTO_TCP, TCP_KEEPINTVL, seconds / 3},
                                  {IPPROTO_TCP, TCP_KEEPCNT, 3},
                                  {IPPROTO_TCP, TCP_USER_TIMEOUT, 2 * seconds * 1000}};
    for (const auto &[level, option, value] : options) {
        setsockopt(file, level, option, &value, sizeof value);
    }
}

} // namespace

std::string errorText(int result) {
    switch (result) {
    case MOSQ_ERR_ERRNO:
        return std::generic_category().message(errno);
    case MOSQ_ERR_KEEPALIVE:
        return "the broker has given no sign of life (keepalive)";
    default:
        return result >= 128 ? mosquitto_reason_string(result) : mosquitto_strerror(result);
    }
}

Properties userProperty(const char *name, const std::string &value) {
    mosquitto_property *list = nullptr;
    mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, name, value.c_str());
    return Properties{list};
}

Session::Session(const Config &config, const Target &target, const Purpose &purpose, void *userdata)
    : target_{target},
      keepAlive_{purpose.keepAlive},
      handle_{newHandle(purpose, userdata)} {
    if (!handle_) {
        throw OpenError{"the MQTT library gives no client"};
    }
    mosquitto *const handle = handle_.get();
    require(mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
    // Without it a request waits for the acknowledgement of what went before.
    require(mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
    if (!config.user.empty()) {
        const char *const password = config.password.empty() ? nullptr : config.password.c_str();
        require(mosquitto_username_pw_set(handle, config.user.c_str(), password),
                "\"user\" and \"password\"");
    }
    if (target_.broker.tls) {
        setTls(config);
    }
    if (!purpose.will.empty()) {
        Properties properties = userProperty(kInstance, purpose.instance);
        require(mosquitto_will_set_v5(handle, purpose.will.c_str(), 7, "offline", purpose.willQos,
                                      purpose.willRetain, properties.get()),
                "the will");
        static_cast<void>(properties.release()); // the library has them
    }
    setProperties(config, purpose.expiry);
}

// Its own context, since the library knows the broker by its address only, and does not tell one
// fault of a certificate from another.
void Session::setTls(const Config &config) {
    const std::string &host = target_.broker.host;
    tls_.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX *const tls = tls_.get();
    const auto need = [](bool met, const char *what) {
        if (!met) {
            throw OpenError{std::string{what} + ": the TLS library refuses it"};
        }
    };
    need(tls && SSL_CTX_set_min_proto_version(tls, TLS1_2_VERSION) == 1, "TLS");
    need((config.ca.empty() ? SSL_CTX_set_default_verify_paths(tls)
                            : SSL_CTX_load_verify_locations(tls, config.ca.c_str(), nullptr)) == 1,
         "\"ca\"");
    // A password of a key would be asked for on the terminal.
    SSL_CTX_set_default_passwd_cb(tls, [](char *, int, int, void *) { return 0; });
    if (!config.certificate.empty()) {
        need(SSL_CTX_use_certificate_chain_file(tls, config.certificate.c_str()) == 1, "\"cert\"");
        need(SSL_CTX_use_PrivateKey_file(tls, config.key.c_str(), SSL_FILETYPE_PEM) == 1 &&
                 SSL_CTX_check_private_key(tls) == 1,
             "\"key\"");
    }
    X509_VERIFY_PARAM *const expected = SSL_CTX_get0_param(tls);
    need(X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) == 1 ||
             X509_VERIFY_PARAM_set1_host(expected, host.c_str(), host.size()) == 1,
         "the host's name");
    SSL_CTX_set_verify(tls, SSL_VERIFY_PEER, noteFault);
    SSL_CTX_set_ex_data(tls, 0, this);
    SSL_CTX_set_info_callback(tls, nameHost);
    mosquitto *const handle = handle_.get();
    require(mosquitto_void_option(handle, MOSQ_OPT_SSL_CTX, tls), "TLS");
    require(mosquitto_int_option(handle, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0), "TLS");
}

Session &Session::of(const SSL *ssl) {
    return *static_cast<Session *>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), 0));
}

// At the begin of the handshake, which is to name the host, where the library has named the
// address.
void Session::nameHost(const SSL *ssl, int where, int) {
    if ((where & SSL_CB_HANDSHAKE_START) != 0) {
        SSL_ctrl(const_cast<SSL *>(ssl), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                 of(ssl).target_.broker.host.data());
    }
}

int Session::noteFault(int valid, X509_STORE_CTX *certificate) {
    if (valid == 0) {
        const void *const ssl =
            X509_STORE_CTX_get_ex_data(certificate, SSL_get_ex_data_X509_STORE_CTX_idx());
        of(static_cast<const SSL *>(ssl)).fault_ =
            X509_verify_cert_error_string(X509_STORE_CTX_get_error(certificate));
    }
    return valid;
}

// The library keeps the properties of a connection for every later one, but has no function that
// takes them without connecting. An empty host ends that at once.
void Session::setProperties(const Config &config, std::uint32_t expiry) {
    mosquitto_property *list = nullptr;
    require(mosquitto_property_add_int32(&list, MQTT_PROP_MAXIMUM_PACKET_SIZE, config.maxPacket),
            "\"maxPacket\"");
    Properties properties{list};
    if (expiry > 0) {
        require(mosquitto_property_add_int32(&list, MQTT_PROP_SESSION_EXPIRY_INTERVAL, expiry),
                "\"sessionExpiry\"");
    }
    mosquitto_connect_bind_v5(handle_.get(), "", target_.broker.port, 0, nullptr, list);
}

bool Session::holdsMore() const {
    const auto *const ssl = static_cast<SSL *>(mosquitto_ssl_get(handle_.get()));
    return ssl && SSL_pending(ssl) > 0;
}

int Session::connect() {
    const int result = mosquitto_connect_async(handle_.get(), target_.address.c_str(),
                                               target_.broker.port, keepAlive_);
    if (result == MOSQ_ERR_SUCCESS) { // errno belongs to some of the others
        tune(mosquitto_socket(handle_.get()));
    }
    return result;
}

} // namespace zelvo_mqtt
