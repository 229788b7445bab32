#include "support.h"

#include <cstdlib>
#include <new>

namespace {
thread_local int made = 0;
}
int allocations() noexcept {
    return made;
}

// In a file of their own, where the compiler does not take them for those of the library.
void *operator new(std::size_t size, const std::nothrow_t & /*none*/) noexcept {
    ++made;
    return std::malloc(size + 1);
}
void *operator new(std::size_t size) {
    void *const memory = operator new(size, std::nothrow);
    return memory ? memory : throw std::bad_alloc{};
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
