#include "platform/platform.h"

#ifndef __linux__
#error "waitWord and wake* use Linux futexes; another POSIX kernel needs its own pair here"
#endif

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

#include <linux/futex.h>
#include <linux/types.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {
namespace {

struct Thread {
    ThreadBody body;
    void *arg;
    pthread_t handle;
};

void *runThread(void *thread) {
    const auto *self = static_cast<Thread *>(thread);
    self->body(self->arg);
    return nullptr;
}

std::size_t roundedStack(std::size_t wanted) noexcept {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const auto least = static_cast<std::size_t>(sysconf(_SC_THREAD_STACK_MIN));
    const std::size_t size = std::max(wanted, least);
    return (size + page - 1) / page * page;
}

// The futex operates on the bare 32-bit integer inside the atomic.
static_assert(sizeof(Word) == sizeof(std::uint32_t) && Word::is_always_lock_free);

// The kernel's own record of a time, which is the C library's timespec only where both count the
// seconds alike: on 32 bits that library may count them in 64.
#ifdef SYS_futex
constexpr long kFutex = SYS_futex;
using KernelCount = __kernel_long_t;
#else // 32 bits without the former call
constexpr long kFutex = SYS_futex_time64;
using KernelCount = std::int64_t;
#endif
struct KernelTime {
    KernelCount seconds;
    KernelCount nanoseconds;
};

long futex(Word &word, int operation, std::uint32_t value,
           const KernelTime *limit = nullptr) noexcept {
    return syscall(kFutex, static_cast<void *>(&word), operation | FUTEX_PRIVATE_FLAG, value, limit,
                   nullptr, 0);
}

// What the kernel calls a thread and its process, asked once; the child of a fork asks anew.
constinit thread_local struct Numbers {
    std::uint32_t thread;
    std::uint32_t process;
} known{0, 0};

const Numbers &numbers() noexcept {
    static const bool forgets = pthread_atfork(nullptr, nullptr, [] { known = {}; }) == 0;
    if (known.thread == 0 || !forgets) {
        known = {static_cast<std::uint32_t>(syscall(SYS_gettid)),
                 static_cast<std::uint32_t>(getpid())};
    }
    return known;
}

bool isProcess(const std::filesystem::path &entry) {
    const std::string name = entry.filename().string();
    return name.find_first_not_of("0123456789") == std::string::npos;
}

std::string firstText(const std::filesystem::path &file, char end) {
    std::ifstream stream{file};
    std::string text;
    std::getline(stream, text, end);
    return text;
}

// For a process of another user, whose link to its executable is not for us to read. The kernel
// keeps the first 15 bytes of the name; the command line, which its own threads do not have,
// usually has it whole.
std::string guessedExecutable(const std::filesystem::path &process) {
    const std::filesystem::path command{firstText(process / "cmdline", '\0')};
    std::string whole = command.filename().string();
    std::string name = command.empty() ? "" : firstText(process / "comm", '\n');
    const bool cut = name.size() == 15 && whole.compare(0, 15, name) == 0;
    return cut ? whole : name;
}

// Empty for a process without an executable, or one that has ended.
std::string executableOf(const std::filesystem::path &process) {
    constexpr std::string_view kDeleted = " (deleted)"; // behind the name of a replaced file
    std::error_code error;
    std::string name = std::filesystem::read_symlink(process / "exe", error).filename().string();
    if (error == std::errc::permission_denied) {
        return guessedExecutable(process);
    }
    if (name.ends_with(kDeleted)) {
        name.resize(name.size() - kDeleted.size());
    }
    return name;
}

} // namespace

void waitWord(Word &word, std::uint32_t expected) noexcept {
    futex(word, FUTEX_WAIT, expected);
}

void waitWordFor(Word &word, std::uint32_t expected, std::uint32_t milliseconds) noexcept {
    const KernelTime limit{static_cast<KernelCount>(milliseconds / 1000),
                           static_cast<KernelCount>(milliseconds % 1000) * 1'000'000};
    futex(word, FUTEX_WAIT, expected, &limit);
}

void wakeOne(Word &word) noexcept {
    futex(word, FUTEX_WAKE, 1);
}

void wakeAll(Word &word) noexcept {
    futex(word, FUTEX_WAKE, INT_MAX);
}

void yieldThread() noexcept {
    sched_yield();
}

std::uint32_t threadId() noexcept {
    return numbers().thread;
}

std::uint32_t processId() noexcept {
    return numbers().process;
}

void *threadStart(ThreadBody body, void *arg, std::size_t stack) noexcept {
    std::unique_ptr<Thread> thread{new (std::nothrow) Thread{body, arg, {}}};
    pthread_attr_t attributes;
    if (!thread || pthread_attr_init(&attributes) != 0) {
        return nullptr;
    }
    int result = stack == 0 ? 0 : pthread_attr_setstacksize(&attributes, roundedStack(stack));
    if (result == 0) {
        result = pthread_create(&thread->handle, &attributes, runThread, thread.get());
    }
    pthread_attr_destroy(&attributes);
    return result == 0 ? thread.release() : nullptr;
}

void threadJoin(void *handle) noexcept {
    const std::unique_ptr<Thread> thread{static_cast<Thread *>(handle)};
    if (thread) {
        pthread_join(thread->handle, nullptr);
    }
}

bool visitExecutables(ExecutableVisitor visit, void *arg) noexcept try {
    std::error_code error;
    std::filesystem::directory_iterator entry{"/proc", error};
    for (; !error && entry != end(entry); entry.increment(error)) {
        const std::string name = isProcess(entry->path()) ? executableOf(entry->path()) : "";
        if (!name.empty() && visit(name.c_str(), arg)) {
            return true;
        }
    }
    return !error;
} catch (const std::bad_alloc &) {
    return false;
}

} // namespace platform
