#define _WIN32_WINNT 0x0602 // Windows 8, the first with WaitOnAddress
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX

#include "platform/beside.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <io.h>
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

// Bytes that are no UTF-8 become U+FFFD. Empty where the system converts nothing.
std::wstring wide(std::string_view text) {
    const int bytes = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), bytes, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(std::max(size, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), bytes, result.data(), size);
    return result;
}

std::string narrow(std::wstring_view text) {
    const int units = static_cast<int>(text.size());
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), units, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(std::max(size, 0)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), units, result.data(), size, nullptr, nullptr);
    return result;
}

std::error_code lastError() noexcept {
    return {static_cast<int>(GetLastError()), std::system_category()};
}

bool failedWith(const std::error_code &error, DWORD code) noexcept {
    return error.value() == static_cast<int>(code);
}

// A look at what path leads to, which disturbs nobody who has it open.
Handle openToLook(const char *path) {
    return handleOrNull(CreateFileW(wide(path).c_str(), FILE_READ_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

bool fill(HANDLE file, const Replacement &with) noexcept {
    constexpr std::size_t kMost = 1U << 30;
    std::string_view data = with.data;
    while (!data.empty()) {
        DWORD written = 0;
        const auto part = static_cast<DWORD>(std::min(data.size(), kMost));
        if (!WriteFile(file, data.data(), part, &written, nullptr)) {
            return false;
        }
        data.remove_prefix(written);
    }
    return !with.flush || FlushFileBuffers(file);
}

// The access list of a file, empty where it has none or it can't be read.
std::vector<unsigned char> accessOf(const std::wstring &name) {
    DWORD size = 0;
    GetFileSecurityW(name.c_str(), DACL_SECURITY_INFORMATION, nullptr, 0, &size);
    std::vector<unsigned char> descriptor(size);
    const bool read = size > 0 && GetFileSecurityW(name.c_str(), DACL_SECURITY_INFORMATION,
                                                   descriptor.data(), size, &size);
    return read ? descriptor : std::vector<unsigned char>{};
}

// Room is made first: a full disk is to be found before the old one is gone.
bool overwrite(HANDLE file, const Replacement &with) noexcept {
    LARGE_INTEGER old{};
    LARGE_INTEGER size{};
    size.QuadPart = static_cast<LONGLONG>(with.data.size());
    const LARGE_INTEGER begin{};
    return GetFileSizeEx(file, &old) &&
           (size.QuadPart <= old.QuadPart ||
            (SetFilePointerEx(file, size, nullptr, FILE_BEGIN) && SetEndOfFile(file))) &&
           SetFilePointerEx(file, begin, nullptr, FILE_BEGIN) && fill(file, with) &&
           SetEndOfFile(file);
}

FileResult writeInPlace(const std::wstring &name, const Replacement &with,
                        std::error_code &error) noexcept {
    const Handle file = handleOrNull(CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr,
                                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    const bool done = file && overwrite(file.get(), with);
    error = done ? std::error_code{} : lastError();
    return done   ? FileResult::kDoneInPlace
           : file ? FileResult::kNotWritten
                  : FileResult::kNotOpened;
}

enum class Step { kDone, kAgain, kInPlace, kNotOpened, kNotWritten };

// Gives the old file its other name, and the new one the old name, or takes back what it can.
// Written through: a new name is on the disk too when the call returns.
Step swapIn(const std::wstring &beside, const std::wstring &name, const Replacement &with,
            std::error_code &error) {
    const DWORD how = MOVEFILE_REPLACE_EXISTING | (with.flush ? MOVEFILE_WRITE_THROUGH : 0);
    const std::wstring aside = with.aside ? wide(with.aside) : L"";
    if (with.aside && !MoveFileExW(name.c_str(), aside.c_str(), how)) {
        error = lastError();
        return Step::kNotWritten;
    }
    if (MoveFileExW(beside.c_str(), name.c_str(), how)) {
        return Step::kDone;
    }
    error = lastError();
    if (with.aside) {
        MoveFileExW(aside.c_str(), name.c_str(), how);
        return Step::kNotWritten;
    }
    // Not found: somebody took it for a leftover.
    return failedWith(error, ERROR_FILE_NOT_FOUND) ? Step::kAgain : Step::kNotWritten;
}

Step replaceOnce(const char *path, const Replacement &with, std::error_code &error) {
    const std::wstring name = wide(path);
    const std::wstring beside = wide(besideName(path));
    std::vector<unsigned char> access = accessOf(name);
    SECURITY_ATTRIBUTES security{sizeof security, access.data(), FALSE};
    Handle file = handleOrNull(CreateFileW(beside.c_str(), GENERIC_WRITE, 0,
                                           access.empty() ? nullptr : &security, CREATE_NEW,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        error = lastError();
        const bool denied = failedWith(error, ERROR_ACCESS_DENIED) && !with.aside;
        return failedWith(error, ERROR_FILE_EXISTS) ? Step::kAgain
               : denied                             ? Step::kInPlace
                                                    : Step::kNotOpened;
    }
    const bool written = fill(file.get(), with);
    error = lastError();
    file.reset(); // an open one can't be renamed
    const Step step = written ? swapIn(beside, name, with, error) : Step::kNotWritten;
    if (step != Step::kDone) {
        DeleteFileW(beside.c_str());
    }
    return step;
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

std::int64_t filePosition(std::FILE *file) noexcept {
    return _ftelli64(file);
}

std::int64_t seekEnd(std::FILE *file) noexcept {
    return _fseeki64(file, 0, SEEK_END) == 0 ? filePosition(file) : -1;
}

FileLook lookAtFile(const char *path, std::error_code &error) noexcept try {
    const Handle file = openToLook(path);
    BY_HANDLE_FILE_INFORMATION information{};
    if (!file || !GetFileInformationByHandle(file.get(), &information)) {
        error = lastError();
        const bool missing = !file && (failedWith(error, ERROR_FILE_NOT_FOUND) ||
                                       failedWith(error, ERROR_PATH_NOT_FOUND));
        return {missing ? FileKind::kNone : FileKind::kUnknown};
    }
    error.clear();
    const bool directory = (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    const FILETIME time = information.ftLastWriteTime;
    return {directory ? FileKind::kOther : FileKind::kRegular,
            std::int64_t{information.nFileSizeHigh} << 32 | information.nFileSizeLow,
            std::int64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime};
} catch (const std::bad_alloc &) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return {};
}

std::string followLinks(const std::string &path) {
    const DWORD attributes = GetFileAttributesW(wide(path).c_str());
    const bool isLink =
        attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    const Handle file = isLink ? openToLook(path.c_str()) : nullptr;
    const DWORD size = file ? GetFinalPathNameByHandleW(file.get(), nullptr, 0, 0) : 0;
    std::wstring target(size, L'\0');
    const DWORD length = size ? GetFinalPathNameByHandleW(file.get(), target.data(), size, 0) : 0;
    return length > 0 && length < size ? narrow(target.substr(0, length)) : path;
}

std::error_code makeFile(const char *path) noexcept try {
    const Handle file = handleOrNull(CreateFileW(wide(path).c_str(), GENERIC_WRITE, 0, nullptr,
                                                 CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    const std::error_code error = file ? std::error_code{} : lastError();
    return failedWith(error, ERROR_FILE_EXISTS) ? std::make_error_code(std::errc::file_exists)
                                                : error;
} catch (const std::bad_alloc &) {
    return std::make_error_code(std::errc::not_enough_memory);
}

FileResult replaceFile(const char *path, const Replacement &with, std::error_code &error) noexcept
    try {
    Step step = Step::kAgain;
    for (int i = 0; i < kBesideAttempts && step == Step::kAgain; ++i) {
        step = replaceOnce(path, with, error);
    }
    if (step == Step::kInPlace) {
        return writeInPlace(wide(path), with, error);
    }
    if (step != Step::kDone) {
        return step == Step::kNotWritten ? FileResult::kNotWritten : FileResult::kNotOpened;
    }
    error.clear();
    return FileResult::kDone;
} catch (const std::bad_alloc &) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return FileResult::kNotOpened;
}

// One that is still written is open and can't be deleted; its writer makes another where it is hit
// between closing and renaming it.
void removeLeftovers(const char *path) noexcept try {
    const std::string file{path};
    const std::size_t slash = file.find_last_of("/\\");
    const std::string directory = slash == std::string::npos ? "" : file.substr(0, slash + 1);
    const std::string base = file.substr(directory.size());
    WIN32_FIND_DATAW entry{};
    const HANDLE search = FindFirstFileW(wide(file + ".*.new").c_str(), &entry);
    for (bool more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileW(search, &entry)) {
        const std::string name = narrow(&entry.cFileName[0]);
        if (isBesideName(name, base)) {
            DeleteFileW(wide(directory + name).c_str());
        }
    }
    if (search != INVALID_HANDLE_VALUE) {
        FindClose(search);
    }
} catch (const std::bad_alloc &) { // then they stay for another time
}

bool visitExecutables(ExecutableVisitor visit, void *arg) noexcept try {
    const Handle snapshot = handleOrNull(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    bool more = snapshot && Process32FirstW(snapshot.get(), &entry);
    while (more && !visit(narrow(&entry.szExeFile[0]).c_str(), arg)) {
        more = Process32NextW(snapshot.get(), &entry);
    }
    return snapshot != nullptr;
} catch (const std::bad_alloc &) {
    return false;
}

} // namespace platform
