// A small host monitor: three nodes on one bus, in one process. With the library installed, in this
// folder; on Windows with host_windows.cpp:
//     c++ main.cpp host_linux.cpp $(pkg-config --cflags --libs zelvo) -pthread -o host_monitor
//
// Threads: this one starts and stops everything, makes the console's calls, and is the only one
// that prints. The bus has a thread of its own, and so has each node for its handlers and timers.
#include "archive.h"
#include "console.h"
#include "sampler.h"
#include "topics.h"

#include <zelvo/bus.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

bool goesOn = false; // until it is interrupted

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// name, and text in one line.
void show(const char *name, std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    std::replace(text.begin(), text.end(), '\t', ' ');
    std::printf("%-20s %s\n", name, text.c_str());
}

// host.info was published once, before the console joined: that it arrives all the same is what
// makes it sticky.
void showSticky(Console &console, Clock::time_point joining) {
    const std::string info = console.take("host.info");
    const std::string load = console.take("host.load");
    const double waited = 1000 * secondsSince(joining);
    show("host.info", info);
    show("host.load", load);
    std::printf("Joined, subscribed and received both in %.1f ms.\n", waited);
}

// The key store still has what the last run has set. Returns the interval in milliseconds.
long showInterval(Console &console) {
    const std::string kept = console.node().keys().get("interval").value_or("");
    const long interval = console.node().call(kSamplerInterval, "").value();
    const std::string shown = std::to_string(interval) + " ms";
    show("interval",
         kept == std::to_string(interval) ? shown + ", from the last run" : "default " + shown);
    return interval;
}

void showLive(Console &console, Clock::time_point start) {
    std::puts("second   cpu %   memory MiB   load over 1, 5, 15 minutes");
    const auto begin = Clock::now();
    while (secondsSince(begin) < 1.8) {
        const std::string cpu = console.take("host.cpu");
        const std::string memory = console.take("host.memory");
        const std::string load = console.take("host.load");
        std::printf("%6.2f %7s %12s   %s\n", secondsSince(start), cpu.c_str(), memory.c_str(),
                    load.c_str());
    }
}

void showCall(Console &console, const std::string &url, const std::string &expected) {
    const std::string answer = console.call(url).text;
    show(url.c_str(), answer);
    if (answer.find(expected) == std::string::npos) {
        throw std::runtime_error("the answer of " + url + " has no " + expected);
    }
}

// What is set for good is in the file before set() returns.
void changeInterval(Console &console, long interval) {
    const std::string value = std::to_string(interval);
    console.node().keys().set("interval", value, true);
    show("set", value);
    showCall(console, "/sampler/interval", value);
}

// Four calls under way at once, each answered when it is ready.
void showPeaks(Console &console) {
    std::vector<std::pair<std::string, std::future<zelvo::Answer>>> calls;
    for (const char *figure : {"cpu", "memory", "load", "attic"}) {
        std::string url = std::string{"/archive/peak/"} + figure;
        auto answer = console.node().call_async(url);
        calls.emplace_back(std::move(url), std::move(answer));
    }
    for (auto &[url, answer] : calls) {
        show(url.c_str(), answer.get().text);
    }
}

// The archive's handler calls the console, which is waiting for the archive. The bus refuses that
// inner call at once, and tells who has subscribed to "bus.error". So the handler goes on, and the
// outer call has its answer.
void showRing(Console &console) {
    showCall(console, "/archive/ring", "refused");
    show("bus.error", console.take("bus.error"));
}

void showNodes(Console &console) {
    std::string names;
    for (const std::string &name : console.node().nodes()) {
        names += name + ' ';
    }
    show("nodes", names);
    if (names != "sampler archive console ") {
        throw std::runtime_error("the nodes are others than expected");
    }
}

// Everything stops when this function is left, also by an exception: the console, the archive, the
// sampler, and last the bus.
void monitor(const std::string &home, const std::string &log) {
    const auto start = Clock::now();
    std::puts("== The bus starts; sampler and archive join");
    zelvo::Config config;
    config.level = zelvo::Level::debug;
    config.log = log;
    config.home = home;
    const zelvo::Bus bus{config};
    Sampler sampler(bus);
    Archive archive(bus);
    show("log", log);
    show("key store", home + "/keys.json");

    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::puts("\n== A second later the console joins: sticky messages reach it at once");
    const auto joining = Clock::now();
    Console console(bus);
    showSticky(console, joining);
    const long interval = showInterval(console);

    std::puts("\n== Live from the sampler; one processor is kept busy for a while");
    const auto work = std::async(std::launch::async, [from = Clock::now()] {
        while (secondsSince(from) < 1.2) {}
    });
    showLive(console, start);

    std::puts("\n== The console sets another interval in the key store and tells the sampler");
    changeInterval(console, interval == 100 ? 250 : 100);
    showLive(console, start);

    std::puts(
        "\n== The console makes four calls to the archive at once, one for what it does not keep");
    showPeaks(console);
    std::puts("\n== It calls a path that the archive answers, and one for which it has no handler");
    showCall(console, "/archive/last", "\"cpu\"");
    showCall(console, "/archive/attic", "not implement");
    showNodes(console);

    std::puts("\n== A ring: the console calls the archive, whose handler calls the console, which "
              "waits.\n"
              "   The bus refuses the inner call and tells of it on bus.error; nobody hangs");
    showRing(console);
    while (goesOn) {
        showLive(console, start);
        showPeaks(console);
        showCall(console, "/archive/last", "\"cpu\"");
        showRing(console);
    }
}

// What the bus must have written meanwhile, in this order.
void checkLog(const std::string &path) {
    std::ifstream log(path);
    std::string line;
    for (const char *wanted :
         {"console node joined", "console <== busServer,  action: publish, topic: host.info",
          R"(url: /localKeys/interval, payload: {"operation":"set")", "archive call console",
          "bus server exist deadlock", "console disjoin", "busServer exit end"}) {
        while (line.find(wanted) == std::string::npos) {
            if (!std::getline(log, line)) {
                throw std::runtime_error("no \"" + std::string(wanted) + "\" in the log " + path);
            }
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    std::string home = "."; // for the log and the key store
    if (argc == 3 && std::strcmp(argv[1], "--home") == 0) {
        home = argv[2];
    } else if (argc == 2 && std::strcmp(argv[1], "--go-on") == 0) {
        goesOn = true;
    } else if (argc != 1) {
        std::fprintf(stderr, "usage: %s [--home DIRECTORY | --go-on]\n", argv[0]);
        return 2;
    }
    const std::string log = home + "/host_monitor.log";
    std::setvbuf(stdout, nullptr, _IONBF, 0); // live through a pipe too
    try {
        // The bus would write to standard output, between our lines.
        if (!std::ofstream(log)) {
            throw std::runtime_error("cannot write the log " + log);
        }
        monitor(home, log);
        checkLog(log);
        std::printf("\n== All nodes have left and the bus has stopped; %s has every message\n",
                    log.c_str());
    } catch (const std::exception &error) {
        std::fprintf(stderr, "host_monitor: %s\n", error.what());
        return 1;
    }
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
}
