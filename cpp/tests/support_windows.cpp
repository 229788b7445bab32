#include "support.h"

#include <windows.h>

bool isReadable(const zelvo::PolledNode &node, std::chrono::milliseconds limit) {
    return WaitForSingleObject(node.fd(), static_cast<DWORD>(limit.count())) == WAIT_OBJECT_0;
}

std::set<std::string> threadNames() {
    return {};
}
