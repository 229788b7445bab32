#include "bus_client/internal.h"
#include "bus_mk_pool.h"

#include <atomic>
#include <memory>
#include <new>

namespace {

constexpr char kVersion[] = "ZELVO 1.0.8";

// The configuration's members; one that is absent, or all of them, give the default.
class Config {
public:
    // Throws std::bad_alloc.
    explicit Config(const char *text) : json_{text ? bus::parseJson(text) : nullptr} {}

    int number(const char *member, int absent) const noexcept {
        const cJSON *const item = cJSON_GetObjectItem(json_.get(), member);
        return item ? item->valueint : absent;
    }
    bool isTrue(const char *member) const noexcept {
        return cJSON_IsTrue(cJSON_GetObjectItem(json_.get(), member)) != 0;
    }
    bool isFalse(const char *member) const noexcept {
        return cJSON_IsFalse(cJSON_GetObjectItem(json_.get(), member)) != 0;
    }
    const char *text(const char *member, const char *absent) const noexcept {
        const cJSON *const item = cJSON_GetObjectItem(json_.get(), member);
        return item ? cJSON_GetStringValue(item) : absent;
    }

private:
    bus::JsonPtr json_;
};

std::atomic<int> buses{0}; // that the process has

bus::server_t *serverOf(const Zelvo_t *busManager) noexcept {
    return busManager ? busManager->server : nullptr;
}

} // namespace

Zelvo_t *busClientNew(const char *jsondata) noexcept try {
    if (buses.load() == 0) {
        bus::useHeapForJson();
    }
    const Config config{jsondata};
    bus::bus_log_init(config.number("level", 2), config.text("path", nullptr),
                      config.number("mode", 0), static_cast<float>(config.number("size", 20)));
    BUS_LOG(3, "  %s, VERSION %s, busManager new\n", bus::TAG, kVersion);
    auto *const manager = new (std::nothrow) Zelvo_t{nullptr};
    if (!manager) {
        return nullptr;
    }
    buses.fetch_add(1);
    manager->server = bus::busServerNew(config.text("homePath", "."));
    if (!manager->server) {
        BUS_LOG(5, "  %s server new failed\n", bus::TAG);
        return manager;
    }
    manager->server->call_timeout = config.number("callTimeout", 0);
    manager->server->has_stats = config.isTrue("stats");
    manager->server->key_file.flush = !config.isFalse("persistSync");
    return manager;
} catch (const std::bad_alloc &) { // a bus with other settings than the given ones is none
    return nullptr;
}

int busClientBindServer(Zelvo_t *busManager) noexcept {
    bus::server_t *const server = serverOf(busManager);
    BUS_LOG(3, "  %s bindServer running, busManager: %p, server: %p\n", bus::TAG,
            static_cast<void *>(busManager), static_cast<void *>(server));
    if (server) {
        bus::busServerRun(server);
    }
    return 0;
}

int busClientServerExit(Zelvo_t *busManager) noexcept {
    BUS_LOG(3, "  %s bindServer exit\n", bus::TAG);
    return bus::busServerExit(serverOf(busManager));
}

int busClientDelete(Zelvo_t *busManager) noexcept {
    BUS_LOG(3, "  %s busManager delete\n", bus::TAG);
    if (busManager) {
        bus::busServerDelete(busManager->server);
        delete busManager;
        buses.fetch_sub(1);
        bus_mk_pool_clear();
        bus::bus_log_exit();
    }
    return 0;
}
