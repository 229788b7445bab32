#include "bus_mk_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

namespace {

TEST(Pool, block_is_used_again_but_by_one_at_a_time) {
    for (const std::size_t count : {1U, 33U, 65U, 500U}) {
        std::set<void *> seen;
        for (int round = 0; round < 8; ++round) {
            std::set<void *> blocks;
            while (blocks.size() < count) {
                ASSERT_TRUE(blocks.insert(bus_mk_pool_get()).second);
            }
            seen.insert(blocks.begin(), blocks.end());
            // A thread that ends leaves to the others what it has kept.
            const auto giveBack = [&] { std::ranges::for_each(blocks, bus_mk_pool_put); };
            round % 2 == 0 ? std::thread{giveBack}.join() : giveBack();
            bus_mk_pool_trim();
        }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__MINGW32__) // where every block is the heap's
        EXPECT_LE(seen.size(), count + 64);
#endif
        bus_mk_pool_clear();
    }
}

// Guards the end of this program: a static object is destroyed after the thread's own ones.
const struct UsesPoolLate {
    ~UsesPoolLate() { bus_mk_pool_put(bus_mk_pool_get()); }
} g_usesPoolLate;

} // namespace
