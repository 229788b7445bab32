// What differs by system: whose malloc it is, the name of a thread, and what a loop can wait for.
#ifndef ZELVO_DETAIL_SYSTEM_HPP
#define ZELVO_DETAIL_SYSTEM_HPP

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <system_error>

#if defined(_WIN32)
// As <windows.h> declares them, which a header must not drag into a user's program.
extern "C" {
struct HINSTANCE__;
__declspec(dllimport) HINSTANCE__ *__stdcall GetModuleHandleA(const char *name);
__declspec(dllimport) long long(__stdcall *__stdcall GetProcAddress(HINSTANCE__ *module,
                                                                    const char *name))();
struct _SECURITY_ATTRIBUTES;
__declspec(dllimport) void *__stdcall CreateEventA(_SECURITY_ATTRIBUTES *attributes, int manual,
                                                   int set, const char *name);
__declspec(dllimport) int __stdcall SetEvent(void *event);
__declspec(dllimport) int __stdcall ResetEvent(void *event);
__declspec(dllimport) int __stdcall CloseHandle(void *handle);
}
#else
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#endif

// What a message that is handled as usual does not come to: kept out of what it does, and compiled
// for size. For nothing that users call in any case: it would make their own functions rare, too.
#if defined(__GNUC__)
#define ZELVO_RARE [[gnu::cold, gnu::noinline]]
#define ZELVO_APART [[gnu::noinline]] // used in many places, none of which gains by a copy
#else
#define ZELVO_RARE
#define ZELVO_APART
#endif

namespace zelvo::detail {

// The malloc whose memory the library can free: on Windows that of msvcrt.dll, which the DLL has
// loaded, whatever this program is linked to.
inline void *libraryMalloc(std::size_t size) noexcept {
#if defined(_WIN32)
    using Malloc = void *(*)(std::size_t);
    static const auto its = reinterpret_cast<Malloc>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("msvcrt.dll"), "malloc")));
    return its ? its(size) : nullptr;
#else
    return std::malloc(size);
#endif
}

// Names the calling thread for top, debuggers and profilers, as far as there is room.
inline void nameThread(const std::string &name) noexcept {
#if defined(__linux__)
    char text[16] = {}; // what the system has room for
    name.copy(text, sizeof text - 1);
    static_cast<void>(pthread_setname_np(pthread_self(), text));
#else
    static_cast<void>(name);
#endif
}

// What a loop can wait for, beside other things: a file descriptor that can be read while it is
// set, or a handle of Windows that is signalled.
class Signal {
public:
#if defined(_WIN32)
    using Native = void *;
    Signal() : event_{CreateEventA(nullptr, 1, 0, nullptr)} {
        require(event_ != nullptr);
    }
    ~Signal() {
        CloseHandle(event_);
    }
    Native native() const noexcept {
        return event_;
    }
    void set() noexcept {
        SetEvent(event_);
    }
    void clear() noexcept {
        ResetEvent(event_);
    }
#else
    using Native = int;
    Signal() {
        require(pipe(ends_) == 0);
        for (const int end : ends_) {
            fcntl(end, F_SETFD, FD_CLOEXEC);
        }
    }
    ~Signal() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Native native() const noexcept {
        return ends_[0];
    }
    // Each once, and in turns, so that neither waits.
    void set() noexcept {
        while (write(ends_[1], "", 1) < 0) {} // interrupted
    }
    void clear() noexcept {
        char byte = 0;
        while (read(ends_[0], &byte, 1) < 0) {}
    }
#endif
    Signal(const Signal &) = delete;
    Signal &operator=(const Signal &) = delete;

private:
    static void require(bool made) {
        if (!made) {
            throw std::system_error{errno, std::generic_category(), "zelvo: no signal for a loop"};
        }
    }

#if defined(_WIN32)
    void *const event_;
#else
    int ends_[2] = {};
#endif
};

} // namespace zelvo::detail

#endif
