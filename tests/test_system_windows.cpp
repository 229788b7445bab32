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

// Neither files of limited size nor a device that is full are to be had: the tests ask before.
struct FullDisk::Limit {};

bool FullDisk::possible() {
    return false;
}

FullDisk::FullDisk(std::size_t /*size*/) {
    ADD_FAILURE();
}

FullDisk::~FullDisk() = default;

std::string fullDevice() {
    return "";
}

FullOutput::FullOutput() {
    ADD_FAILURE();
}

FullOutput::~FullOutput() = default;

StandardError::StandardError() {
    testing::internal::CaptureStderr();
}

std::string StandardError::text() {
    return testing::internal::GetCapturedStderr();
}

// The open handle keeps others from removing the file, the view from emptying it.
struct Occupied::Hold {
    HANDLE file = nullptr;
    HANDLE mapping = nullptr;
    void *view = nullptr;
};

Occupied::Occupied(const std::string &path) : hold_{std::make_unique<Hold>()} {
    hold_->file =
        CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    hold_->mapping = CreateFileMappingA(hold_->file, nullptr, PAGE_READWRITE, 0, 0, nullptr);
    hold_->view = MapViewOfFile(hold_->mapping, FILE_MAP_WRITE, 0, 0, 0);
    EXPECT_NE(hold_->view, nullptr);
}

Occupied::~Occupied() {
    UnmapViewOfFile(hold_->view);
    CloseHandle(hold_->mapping);
    CloseHandle(hold_->file);
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
