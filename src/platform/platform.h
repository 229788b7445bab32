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

// The kernel's numbers of the calling thread and of the process; they are never 0.
std::uint32_t threadId() noexcept;
std::uint32_t processId() noexcept;

using ThreadBody = void (*)(void *arg);

// Starts a thread that runs body(arg). stack is its size in bytes: 0 takes the system's default,
// a size below the system's least is raised to it. The handle is given back by threadJoin, once
// for each started thread; null: no thread was started.
void *threadStart(ThreadBody body, void *arg, std::size_t stack) noexcept;

// Waits without time limit until the thread has ended and releases the handle. Null: no effect.
void threadJoin(void *handle) noexcept;

// The C library's fopen and remove, errno of fopen included; false: nothing was removed. On Windows
// a file that is open can't be removed, renamed or replaced.
std::FILE *openFile(const char *path, const char *mode) noexcept;
bool removeFile(const char *path) noexcept;

enum class FileKind { kNone, kRegular, kOther };

// What path names, through symbolic links; kNone too where that cannot be found out.
FileKind fileKind(const char *path) noexcept;

enum class FileResult { kDone, kNotOpened, kNotWritten };

// Replaces the file path as a whole by size bytes of data: they go to a file beside it, path with
// ".new" behind it, and to the disk, before that takes the name. At every instant, also if the
// process or the machine dies, path is the old file or the new one. Any other result leaves path
// as it was.
FileResult replaceFile(const char *path, const char *data, std::size_t size) noexcept;

// Gives the file from the name to, unless that exists. False: nothing is changed.
bool renameFile(const char *from, const char *to) noexcept;

// Receives the file name, without directory, of the executable that a process runs; valid during
// the call. True ends the visit.
using ExecutableVisitor = bool (*)(const char *name, void *arg);

// Hands visit the executable of each process that the caller can see, in any order; processes that
// start or end meanwhile may be missed. Of the kernel's own, Windows names some and Linux none.
// False: the system gives no list of processes, or memory is short.
bool visitExecutables(ExecutableVisitor visit, void *arg) noexcept;

} // namespace platform

#endif
