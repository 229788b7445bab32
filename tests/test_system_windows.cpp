#define WIN32_LEAN_AND_MEAN
#define NOMINMAX

#include "test_system.h"

#include <windows.h>

std::uint32_t ownProcessId() {
    return GetCurrentProcessId();
}

std::uint32_t ownThreadId() {
    return GetCurrentThreadId();
}

// Handles have no limit of their own here.
bool withoutFiles(const std::function<void()> & /*body*/) {
    return false;
}

bool asNobody(const std::function<void()> & /*body*/) {
    return false;
}

bool withFullDisk(std::size_t /*size*/, const std::function<void()> & /*body*/) {
    return false;
}

bool whileKilled(int /*times*/, const std::function<void()> & /*work*/,
                 const std::function<void()> & /*look*/) {
    return false;
}
