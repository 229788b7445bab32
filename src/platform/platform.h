// What the library asks of the operating system. One contract, one source file for each system
// behind it; nothing above this folder asks which system it runs on. Clocks and heap come from
// the C++ standard library and need no entry here. Paths are UTF-8 on Windows, and neither the C
// library nor std::filesystem takes them as such.
#ifndef ZELVO_PLATFORM_PLATFORM_H
#define ZELVO_PLATFORM_PLATFORM_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <system_error>

namespace platform {

// A word that threads can sleep on. Locks and events are built on it once for all systems, so
// their fast paths are plain atomic operations and only a thread that sleeps costs a system call.
using Word = std::atomic<std::uint32_t>;

// Sleeps while word holds expected. The comparison and the falling asleep are one step against
// wakeOne and wakeAll. Returns at once when the values differ, after a wake, and at any time
// without a reason: the caller looks at the word again. No time limit.
void waitWord(Word &word, std::uint32_t expected) noexcept;

// The same for at most the given time; also returns when it has passed, to the system's own steps:
// on Windows those of its timer, 16 ms where no program asks for finer ones.
void waitWordFor(Word &word, std::uint32_t expected, std::uint32_t milliseconds) noexcept;

// Wakes one sleeper, or all of them. Only the address is used: the word may already have been
// released by a thread that saw the value stored before the call.
void wakeOne(Word &word) noexcept;
void wakeAll(Word &word) noexcept;

// Whether the destructor of a thread_local object may look at it. mingw-w64's compiler gives the
// object's memory back before.
#if defined(__MINGW32__)
inline constexpr bool kThreadLocalDestructors = false;
#else
inline constexpr bool kThreadLocalDestructors = true;
#endif

// Gives up the processor to another runnable thread, if there is one.
void yieldThread() noexcept;

// Tells the processor that the thread is about to look at a word again.
inline void relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// The kernel's numbers of the calling thread and of the process; they are never 0. A thread asks
// for them once, and after a fork the child's once more; a bare clone of the process must not ask.
std::uint32_t threadId() noexcept;
std::uint32_t processId() noexcept;

using ThreadBody = void (*)(void *arg);

// Starts a thread that runs body(arg). stack is its size in bytes: 0 takes the system's default,
// a size below the system's least is raised to it. The handle is given back by threadJoin, once
// for each started thread; null: no thread was started.
void *threadStart(ThreadBody body, void *arg, std::size_t stack) noexcept;

// Waits without time limit until the thread has ended and releases the handle. Null: no effect.
void threadJoin(void *handle) noexcept;

// The C library's fopen and remove, errno of fopen included; false: nothing was removed. A mode has
// two letters. Programs that this one begins do not hold the file, but on Windows, where also a
// file that is open can't be removed, renamed or replaced.
std::FILE *openFile(const char *path, const char *mode) noexcept;
bool removeFile(const char *path) noexcept;

// Where a stream stands, and where it ends once it has been moved there, in bytes from its
// beginning; negative: that can't be told.
std::int64_t filePosition(std::FILE *file) noexcept;
std::int64_t seekEnd(std::FILE *file) noexcept;

enum class FileKind { kNone, kRegular, kOther, kUnknown };

// What can be seen of a file without opening it.
struct FileLook {
    FileKind kind = FileKind::kUnknown;
    std::int64_t size = 0; // in bytes
    std::int64_t time = 0; // when its content was last changed, in units of the system
    bool operator==(const FileLook &) const = default;
};

// What path names, through symbolic links. kNone is certain; kUnknown: error says why nothing is.
FileLook lookAtFile(const char *path, std::error_code &error) noexcept;

// What path names once symbolic links are followed, which need not exist; path where they lead
// nowhere for another reason (on Windows for any). Throws std::bad_alloc.
std::string followLinks(const std::string &path);

// Makes an empty file that is its owner's alone. An error (std::errc::file_exists is one): nothing
// was made, and what has the name is as it was.
std::error_code makeFile(const char *path) noexcept;

enum class FileResult { kDone, kDoneInPlace, kNotOpened, kNotWritten };

// What a file is replaced by.
struct Replacement {
    std::string_view data;
    bool flush = true;           // whether it is to be on the disk when the call returns
    const char *aside = nullptr; // a file that gives its name to the one that is replaced, or null
};

// Replaces the file path, which is no link, as a whole: the data go to a file beside it that is
// made for this call, and to the disk, before that takes the name. At every instant, also if the
// process or the machine dies, path is the old file or the new one, except that with aside, for an
// instant, it is neither. Without flush that holds for the process's death, not for the machine's.
// The new file has the old one's mode and owner (on Windows its access list); one that is the first
// is its owner's alone. A file that may not be written is not replaced. kDoneInPlace: the directory
// lets nobody make or replace files, or the owner can't be kept, and so the file was written where
// it is; a death or a full disk in its midst tears it. Not with aside. kNotOpened, kNotWritten:
// error says why; path is as it was unless it was torn as said, or with aside, if the system does
// not let it have its name again: then aside is the old file.
FileResult replaceFile(const char *path, const Replacement &with, std::error_code &error) noexcept;

// Removes what calls of replaceFile for path left beside it whose processes, on this machine or on
// another, have died. Files that somebody still writes stay.
void removeLeftovers(const char *path) noexcept;

// Receives the file name, without directory, of the executable that a process runs; valid during
// the call. True ends the visit.
using ExecutableVisitor = bool (*)(const char *name, void *arg);

// Hands visit the executable of each process that the caller can see, in any order; processes that
// start or end meanwhile may be missed. Of the kernel's own, Windows names some and Linux none.
// False: the system gives no list of processes, or memory is short.
bool visitExecutables(ExecutableVisitor visit, void *arg) noexcept;

} // namespace platform

#endif
