// The library's memory in a simulated world. A block that is free is not handed out again, so
// whoever touches it is found out; and an allocation may be refused.
#ifndef ZELVO_SIMULATION_MEMORY_H
#define ZELVO_SIMULATION_MEMORY_H

#include <cstddef>
#include <cstdint>

namespace simulation {

// Which allocations of the library are refused: one in so many by chance, and the n-th; 0: none.
struct Shortage {
    unsigned oneIn = 0;
    std::uint64_t nth = 0;
};
inline Shortage shortage;

// A block that the library is going to free.
void *allocate(std::size_t size, std::size_t alignment = 16);
// Fails where the library has left blocks.
void expectNothingLeft();
// Fails where address lies in the library's memory, and in no block that it has.
void expectLive(const volatile void *address);

} // namespace simulation

#endif
