#include "bus_mk_pool.h"

#include "bus_mk_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

TEST(Pool, block_is_used_again_but_by_one_at_a_time) {
    bus_mk_pool_clear();
    bus_mk_q_t *const idle = bus_mk_q_new(1, nullptr);
    // So many blocks, the last more than are kept, and for how many the heap has to be asked: it
    // may never give one again.
    for (const auto &[number, asked] : {std::pair{20U, 20U}, {500U, 564U}, {9000U, 26'000U}}) {
        std::set<void *> seen;
        for (int round = 0; round < 21; ++round) {
            std::vector<void *> blocks(number);
            const auto get = [&] { std::generate(blocks.begin(), blocks.end(), bus_mk_pool_get); };
            const auto put = [&] { std::for_each(blocks.begin(), blocks.end(), bus_mk_pool_put); };
            // A thread that ends leaves to the others what it has kept; so does one that has
            // nothing to do.
            round % 3 == 0 ? (get(), put(), get()) : std::thread{get}.join();
            round % 3 == 0 ? std::thread{put}.join() : put();
            bus_mk_q_wait(idle, 1);
            std::set<void *> these(blocks.begin(), blocks.end());
            EXPECT_EQ(these.size(), number);
            seen.merge(these);
        }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__MINGW32__) // where every block is the heap's
        EXPECT_LE(seen.size(), asked);
#endif
    }
    bus_mk_q_clear(idle, nullptr, 0);
}
