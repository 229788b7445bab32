#include "bus_mk_pool.h"

#include "bus_mk_thread.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

namespace {

// A free block that carries pointers to others. Threads exchange blocks with what it carries, so
// that who gets a block back does not read it: it may still be in another processor's cache.
constexpr std::size_t kCarried = 30;
struct Batch {
    Batch *next; // in the depot
    std::size_t count;
    void *blocks[kCarried];
};
static_assert(sizeof(Batch) <= bus_mk_pool_block);

std::size_t blocksOf(const Batch *batch) noexcept {
    return batch ? batch->count + 1 : 0;
}

constexpr std::size_t kKept = 2;
constexpr std::size_t kMostWaiting = 8192;

// A sanitizer that watches the heap would not see a block used after it was given back.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kWatched = true;
#elif defined(__has_feature)
constexpr bool kWatched = __has_feature(address_sanitizer);
#else
constexpr bool kWatched = false;
#endif

// A thread that ends leaves what it kept to the others, from a destructor.
constexpr bool kPooled = !kWatched && platform::kThreadLocalDestructors;

void freeAll(Batch *batch) noexcept {
    std::for_each(batch->blocks, batch->blocks + batch->count, std::free);
    std::free(batch);
}

// The batches that threads leave to each other.
class Depot {
public:
    constexpr Depot() noexcept = default;
    ~Depot() { clear(); }
    Depot(const Depot &) = delete;
    Depot &operator=(const Depot &) = delete;

    void clear() noexcept {
        while (Batch *const batch = take()) {
            freeAll(batch);
        }
    }
    // Null is accepted.
    void leave(Batch *batch) noexcept {
        if (!batch) {
            return;
        }
        {
            const bus_mk_guard lock{mutex_};
            if (waiting_ + blocksOf(batch) <= kMostWaiting) {
                batch->next = top_;
                top_ = batch;
                waiting_ += blocksOf(batch);
                return;
            }
        }
        freeAll(batch);
    }
    // Null: there is none.
    Batch *take() noexcept {
        const bus_mk_guard lock{mutex_};
        Batch *const batch = top_;
        if (batch) {
            top_ = batch->next;
            waiting_ -= blocksOf(batch);
        }
        return batch;
    }

private:
    bus_mk_thread_mutex_t mutex_{bus_mk_thread_mutex_ready};
    Batch *top_ BUS_MK_GUARDED_BY(mutex_) = nullptr;
    std::size_t waiting_ BUS_MK_GUARDED_BY(mutex_) = 0;
};
constinit Depot depot;

// What one thread keeps: a batch in use, and a full one, so that a thread which gets and gives back
// in turn does not go to the depot each time.
class Cache {
public:
    void *get() noexcept {
        if (ended_) {
            return nullptr;
        }
        if (!used_) {
            used_ = full_ ? full_ : depot.take();
            full_ = nullptr;
        }
        if (used_ && used_->count > 0) {
            void *const block = used_->blocks[--used_->count];
            return block;
        }
        return std::exchange(used_, nullptr);
    }
    void put(void *memory) noexcept {
        if (ended_) {
            std::free(memory);
        } else if (used_ && used_->count < kCarried) {
            used_->blocks[used_->count++] = memory;
        } else {
            depot.leave(used_ ? std::exchange(full_, used_) : nullptr);
            used_ = new (memory) Batch;
            used_->count = 0;
        }
    }
    void trim() noexcept {
        if (blocksOf(used_) + blocksOf(full_) > kKept) {
            leaveAll();
        }
    }
    void leaveAll() noexcept {
        depot.leave(std::exchange(used_, nullptr));
        depot.leave(std::exchange(full_, nullptr));
    }
    void end() noexcept {
        leaveAll();
        ended_ = true;
    }

private:
    Batch *used_ = nullptr;
    Batch *full_ = nullptr;
    bool ended_ = false;
};
static_assert(std::is_trivially_destructible_v<Cache>);
constinit thread_local Cache threadsCache;

// Ends the cache with its thread. The cache outlives it: later destructors of the thread, and of
// static objects, may still use the bus.
class CacheEnd {
public:
    constexpr CacheEnd() noexcept = default;
    ~CacheEnd() { threadsCache.end(); }
    CacheEnd(const CacheEnd &) = delete;
    CacheEnd &operator=(const CacheEnd &) = delete;

    Cache &cache() const noexcept { return threadsCache; }
};
thread_local CacheEnd cacheEnd;

} // namespace

void *bus_mk_pool_get() noexcept {
    void *const block = kPooled ? cacheEnd.cache().get() : nullptr;
    return block ? block : std::malloc(bus_mk_pool_block);
}

void bus_mk_pool_put(void *block) noexcept {
    if (kPooled) {
        cacheEnd.cache().put(block);
    } else {
        std::free(block);
    }
}

void bus_mk_pool_trim() noexcept {
    if (kPooled) {
        cacheEnd.cache().trim();
    }
}

void bus_mk_pool_clear() noexcept {
    if (kPooled) {
        cacheEnd.cache().leaveAll();
        depot.clear();
    }
}
