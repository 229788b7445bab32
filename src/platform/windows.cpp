#define _WIN32_WINNT 0x0602 // Windows 8, the first with WaitOnAddress
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX

#include "platform/platform.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string>

#include <process.h>
#include <windows.h>

#include <tlhelp32.h>

namespace platform {
namespace {

struct HandleClose {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, HandleClose>;

// CreateFileW and the snapshot give this in place of null.
Handle handleOrNull(HANDLE handle) noexcept {
    return Handle{handle == INVALID_HANDLE_VALUE ? nullptr : handle};
}

struct Thread {
    ThreadBody body;
    void *arg;
};

unsigned int __stdcall runThread(void *thread) {
    const std::unique_ptr<Thread> self{static_cast<Thread *>(thread)};
    self->body(self->arg);
    return 0;
}

// Bytes that are no UTF-8 become U+FFFD.
std::wstring wide(const char *text) {
    const int size = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, result.data(), size);
    result.pop_back(); // the NUL
    return result;
}

std::string narrow(const wchar_t *text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
    result.pop_back();
    return result;
}

bool writeAll(HANDLE file, const char *data, std::size_t size) noexcept {
    constexpr std::size_t kMost = 1U << 30;
    while (size > 0) {
        DWORD written = 0;
        const auto part = static_cast<DWORD>(std::min(size, kMost));
        if (!WriteFile(file, data, part, &written, nullptr)) {
            return false;
        }
        data += written;
        size -= written;
    }
    return true;
}

} // namespace

// WaitOnAddress compares the bare 32-bit integer inside the atomic.
static_assert(sizeof(Word) == sizeof(std::uint32_t) && Word::is_always_lock_free);

void waitWord(Word &word, std::uint32_t expected) noexcept {
    WaitOnAddress(&word, &expected, sizeof expected, INFINITE);
}

void waitWordFor(Word &word, std::uint32_t expected, std::uint32_t milliseconds) noexcept {
    WaitOnAddress(&word, &expected, sizeof expected, std::min<DWORD>(milliseconds, INFINITE - 1));
}

void wakeOne(Word &word) noexcept {
    WakeByAddressSingle(&word);
}

void wakeAll(Word &word) noexcept {
    WakeByAddressAll(&word);
}

void yieldThread() noexcept {
    SwitchToThread();
}

std::uint32_t threadId() noexcept {
    return GetCurrentThreadId();
}

std::uint32_t processId() noexcept {
    return GetCurrentProcessId();
}

// _beginthreadex and not CreateThread: the body uses the C runtime.
void *threadStart(ThreadBody body, void *arg, std::size_t stack) noexcept {
    std::unique_ptr<Thread> thread{new (std::nothrow) Thread{body, arg}};
    if (!thread || stack > UINT_MAX) {
        return nullptr;
    }
    const std::uintptr_t handle =
        _beginthreadex(nullptr, static_cast<unsigned int>(stack), runThread, thread.get(),
                       STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (handle == 0) {
        return nullptr;
    }
    static_cast<void>(thread.release()); // the started thread frees it
    return reinterpret_cast<void *>(handle);
}

void threadJoin(void *handle) noexcept {
    const Handle thread{handle};
    if (thread) {
        WaitForSingleObject(thread.get(), INFINITE);
    }
}

std::FILE *openFile(const char *path, const char *mode) noexcept try {
    return _wfopen(wide(path).c_str(), wide(mode).c_str());
} catch (const std::bad_alloc &) {
    return nullptr;
}

bool removeFile(const char *path) noexcept try {
    return DeleteFileW(wide(path).c_str());
} catch (const std::bad_alloc &) {
    return false;
}

FileKind fileKind(const char *path) noexcept try {
    const DWORD attributes = GetFileAttributesW(wide(path).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return FileKind::kNone;
    }
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ? FileKind::kRegular : FileKind::kOther;
} catch (const std::bad_alloc &) {
    return FileKind::kNone;
}

FileResult replaceFile(const char *path, const char *data, std::size_t size) noexcept try {
    const std::wstring name = wide(path);
    const std::wstring beside = name + L".new";
    Handle file = handleOrNull(CreateFileW(beside.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        return FileResult::kNotOpened;
    }
    const bool written = writeAll(file.get(), data, size) && FlushFileBuffers(file.get());
    file.reset(); // an open one can't be renamed
    // Written through: the new name is on the disk too when the call returns.
    if (!written || !MoveFileExW(beside.c_str(), name.c_str(),
                                 MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        DeleteFileW(beside.c_str());
        return FileResult::kNotWritten;
    }
    return FileResult::kDone;
} catch (const std::bad_alloc &) {
    return FileResult::kNotOpened;
}

// The call itself would rename directories too.
bool renameFile(const char *from, const char *to) noexcept try {
    return fileKind(from) == FileKind::kRegular &&
           MoveFileExW(wide(from).c_str(), wide(to).c_str(), MOVEFILE_WRITE_THROUGH);
} catch (const std::bad_alloc &) {
    return false;
}

bool visitExecutables(ExecutableVisitor visit, void *arg) noexcept try {
    const Handle snapshot = handleOrNull(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    bool more = snapshot && Process32FirstW(snapshot.get(), &entry);
    while (more && !visit(narrow(entry.szExeFile).c_str(), arg)) {
        more = Process32NextW(snapshot.get(), &entry);
    }
    return snapshot != nullptr;
} catch (const std::bad_alloc &) {
    return false;
}

} // namespace platform
