#define WIN32_LEAN_AND_MEAN
#define NOMINMAX

#include "test_system.h"

#include <gtest/gtest.h>

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

// The open handle keeps others from removing the file, the view from emptying it.
void whileOccupied(const std::string &path, const std::function<void()> &body) {
    const HANDLE file =
        CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    const HANDLE mapping = CreateFileMappingA(file, nullptr, PAGE_READWRITE, 0, 0, nullptr);
    void *const view = MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
    EXPECT_NE(view, nullptr);
    body();
    UnmapViewOfFile(view);
    CloseHandle(mapping);
    CloseHandle(file);
}

std::string fullDevice() {
    return "";
}

StandardError::StandardError() {
    testing::internal::CaptureStderr();
}

std::string StandardError::text() {
    return testing::internal::GetCapturedStderr();
}

bool whileKilled(int /*times*/, const std::function<void()> & /*work*/,
                 const std::function<void()> & /*look*/) {
    return false;
}
