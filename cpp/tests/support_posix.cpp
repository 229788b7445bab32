#include "support.h"

#include <fstream>

#include <poll.h>

bool isReadable(const zelvo::PolledNode &node, std::chrono::milliseconds limit) {
    pollfd wait{node.fd(), POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(limit.count())) == 1;
}

std::string threadName() {
    std::string name;
    std::getline(std::ifstream{"/proc/thread-self/comm"}, name);
    return name;
}
