#include "bus_mk_pool.h"

#include "bus_mk_thread.h"
#include "platform/platform.h"

#include <cstdlib>
#include <new>
#include <type_traits>

namespace {

// A free block. Only the first one of a batch uses next_batch.
struct Block {
    Block *next;
    Block *next_batch;
    unsigned count;
};
static_assert(sizeof(Block) <= bus_mk_pool_block);

struct Batch {
    Block *first = nullptr;
    unsigned count = 0;
};

constexpr unsigned kBatch = 32;
constexpr unsigned kKept = 2;
constexpr unsigned kMostWaiting = 8192;

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

void freeAll(Batch batch) noexcept {
    while (Block *const block = batch.first) {
        batch.first = block->next;
        std::free(block);
    }
}

// The batches that threads leave to each other.
class Depot {
public:
    constexpr Depot() noexcept = default;
    ~Depot() { clear(); }
    Depot(const Depot &) = delete;
    Depot &operator=(const Depot &) = delete;

    void clear() noexcept {
        for (Batch batch = take(); batch.count > 0; batch = take()) {
            freeAll(batch);
        }
    }
    void leave(Batch batch) noexcept {
        if (batch.count == 0) {
            return;
        }
        {
            const bus_mk_guard lock{mutex_};
            if (waiting_ + batch.count <= kMostWaiting) {
                batch.first->next_batch = top_;
                batch.first->count = batch.count;
                top_ = batch.first;
                waiting_ += batch.count;
                return;
            }
        }
        freeAll(batch);
    }
    // Nothing: an empty batch.
    Batch take() noexcept {
        const bus_mk_guard lock{mutex_};
        const Batch batch{top_, top_ ? top_->count : 0};
        top_ = top_ ? top_->next_batch : nullptr;
        waiting_ -= batch.count;
        return batch;
    }

private:
    bus_mk_thread_mutex_t mutex_{bus_mk_thread_mutex_ready};
    Block *top_ BUS_MK_GUARDED_BY(mutex_) = nullptr;
    unsigned waiting_ BUS_MK_GUARDED_BY(mutex_) = 0;
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
        if (used_.count == 0) {
            used_ = full_.count > 0 ? full_ : depot.take();
            full_ = {};
        }
        Block *const block = used_.first;
        if (block) {
            used_.first = block->next;
            --used_.count;
        }
        return block;
    }
    void put(void *memory) noexcept {
        if (ended_) {
            std::free(memory);
            return;
        }
        if (used_.count == kBatch) {
            depot.leave(full_);
            full_ = used_;
            used_ = {};
        }
        used_.first = new (memory) Block{used_.first, nullptr, 0};
        ++used_.count;
    }
    void trim() noexcept {
        if (used_.count + full_.count > kKept) {
            leaveAll();
        }
    }
    void leaveAll() noexcept {
        depot.leave(used_);
        depot.leave(full_);
        used_ = {};
        full_ = {};
    }
    void end() noexcept {
        leaveAll();
        ended_ = true;
    }

private:
    Batch used_;
    Batch full_;
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
