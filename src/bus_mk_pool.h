// Blocks of memory of one size, for small records that one thread makes and another frees all the
// time. Each thread keeps some free blocks, and threads exchange them in batches, so that most
// blocks are had and given back without a lock.
// Threads: any thread may call anything; a block may be given back by another thread.
// Memory:  a thread keeps at most 62 free blocks, and at most 2 once it has trimmed them; at most
//          8,192 more wait in common. The rest goes back to the heap, all of it at process exit.
//          Where the address sanitizer watches the heap, and on Windows, every block comes from
//          there.
#ifndef ZELVO_BUS_MK_POOL_H
#define ZELVO_BUS_MK_POOL_H

#include <cstddef>

inline constexpr std::size_t bus_mk_pool_block = 256; // bytes of a block

// A block with any content, aligned as from malloc. Null when memory is short.
void *bus_mk_pool_get() noexcept;
// Gives a block back.
void bus_mk_pool_put(void *block) noexcept;
// Leaves the calling thread's free blocks to the others; for a thread that is about to sleep.
void bus_mk_pool_trim() noexcept;
// Gives the calling thread's free blocks, and those that wait in common, back to the heap.
void bus_mk_pool_clear() noexcept;

#endif
