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

int scaled(int rounds) {
    return rounds / 10;
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

struct Child::Process {
    PROCESS_INFORMATION process{};
    HANDLE output = nullptr;
};

Child::Child(const std::string &argument) : process_{std::make_unique<Process>()} {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    HANDLE input = nullptr;
    EXPECT_TRUE(CreatePipe(&process_->output, &input, &inherited, 0));
    SetHandleInformation(process_->output, HANDLE_FLAG_INHERIT, 0);
    std::string line;
    for (const std::string &word : childCommand(argument)) {
        line += '"' + word + "\" ";
    }
    STARTUPINFOA start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = input;
    EXPECT_TRUE(CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                               &start, &process_->process));
    CloseHandle(input);
}

Child::~Child() {
    TerminateProcess(process_->process.hProcess, 1);
    WaitForSingleObject(process_->process.hProcess, INFINITE);
    CloseHandle(process_->process.hProcess);
    CloseHandle(process_->process.hThread);
    CloseHandle(process_->output);
}

bool Child::hasTold() {
    char byte = 0;
    DWORD count = 1;
    while (byte != kTold && count == 1 && ReadFile(process_->output, &byte, 1, &count, nullptr)) {}
    return byte == kTold;
}
