// The host monitor in two processes, with an MQTT broker between them; script/two_processes starts
// all three.
//   two_processes host URL SECONDS      the nodes that measure and keep
//   two_processes console URL SECONDS   the node that prints and asks
// The nodes are those of the host monitor, unchanged.
#include "../host_monitor/archive.h"
#include "../host_monitor/console.h"
#include "../host_monitor/sampler.h"

#include <zelvo/bus.hpp>
#include <zelvo/mqtt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

zelvo::Config config() {
    zelvo::Config config;
    config.level = zelvo::Level::errors;
    config.call_timeout = std::chrono::seconds(3);
    return config;
}

constexpr const char *kFigures =
    R"(["host.cpu","host.memory","host.load",{"topic":"host.info","retain":true}])";

class Bridge {
public:
    Bridge(const zelvo::Bus &bus, const std::string &url, const std::string &members)
        : bridge_(zelvo_mqtt_open(bus.native(),
                                  ("{\"url\":\"" + url + "\"," + members + "}").c_str())) {
        if (!bridge_) {
            throw std::runtime_error("the bridge could not be opened");
        }
    }
    // Another call into the bus may have to end first.
    ~Bridge() {
        while (zelvo_mqtt_close(bridge_) != 0) {}
    }
    Bridge(const Bridge &) = delete;
    Bridge &operator=(const Bridge &) = delete;

private:
    zelvo_mqtt_t *bridge_;
};

void runHost(const std::string &url, int seconds) {
    const zelvo::Bus bus(config());
    const Archive archive(bus);
    const Sampler sampler(bus);
    const Bridge bridge(bus, url,
                        std::string(R"("site":"host","serve":["archive"],"out":)") + kFigures);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
}

// The other process may come later: what has not arrived is asked for again.
std::string firstInfo(Console &console) {
    for (int tries = 1;; ++tries) {
        try {
            return console.take("host.info");
        } catch (const std::runtime_error &) {
            if (tries == 10) {
                throw;
            }
        }
    }
}

void runConsole(const std::string &url, int seconds) {
    const zelvo::Bus bus(config());
    Console console(bus);
    const Bridge bridge(
        bus, url,
        R"("site":"console","call":["host"],"in":["host.cpu","host.memory","host.load","host.info"])");
    std::printf("console: the host is %s\n", firstInfo(console).c_str());
    for (int second = 0; second < seconds; ++second) {
        std::printf("console: cpu %s %%, memory %s MiB\n", console.take("host.cpu").c_str(),
                    console.take("host.memory").c_str());
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    std::printf("console: /host/archive/peak/cpu is answered %s\n",
                console.call("/host/archive/peak/cpu").text.c_str());
    std::printf("console: /host/sampler/interval is not served: %s\n",
                console.call("/host/sampler/interval").text.c_str());
}

} // namespace

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        if (argc == 4 && std::strcmp(argv[1], "host") == 0) {
            runHost(argv[2], std::atoi(argv[3]));
        } else if (argc == 4 && std::strcmp(argv[1], "console") == 0) {
            runConsole(argv[2], std::atoi(argv[3]));
        } else {
            std::fprintf(stderr, "usage: %s host|console URL SECONDS\n", argv[0]);
            return 2;
        }
    } catch (const std::exception &error) {
        std::fprintf(stderr, "two_processes: %s\n", error.what());
        return 1;
    }
    return 0;
}
