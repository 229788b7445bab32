// What differs by system: whose malloc it is, the name of a thread, and what a loop can wait for.
#ifndef ZELVO_DETAIL_SYSTEM_HPP
#define ZELVO_DETAIL_SYSTEM_HPP

#include <cstddef>
#include <cstdlib>
#include <string>

#if defined(_WIN32)
// As <windows.h> declares them, which a header must not drag into a user's program.
extern "C" {
struct HINSTANCE__;
__declspec(dllimport) HINSTANCE__ *__stdcall GetModuleHandleA(const char *name);
__declspec(dllimport) long long(__stdcall *__stdcall GetProcAddress(HINSTANCE__ *module,
                                                                    const char *name))();
}
#else
#include <pthread.h>
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

} // namespace zelvo::detail

#endif
