#include "support.h"

#include <filesystem>
#include <fstream>

#include <poll.h>

bool isReadable(const zelvo::PolledNode &node, std::chrono::milliseconds limit) {
    pollfd wait{node.fd(), POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(limit.count())) == 1;
}

std::set<std::string> threadNames() {
    std::set<std::string> names;
    for (const auto &thread : std::filesystem::directory_iterator{"/proc/self/task"}) {
        std::string name;
        std::getline(std::ifstream{thread.path() / "comm"}, name);
        names.insert(name);
    }
    return names;
}
