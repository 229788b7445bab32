#include "support.h"

#include <cstdlib>
#include <new>

thread_local int allocations = 0;

// In a file of their own, where the compiler does not take them for those of the library.
void *operator new(std::size_t size) {
    ++allocations;
    void *const memory = std::malloc(size + 1);
    return memory ? memory : throw std::bad_alloc{};
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
