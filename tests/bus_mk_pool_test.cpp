#include "bus_mk_pool.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

namespace {

using Blocks = std::vector<void *>;

Blocks take(std::size_t count) {
    Blocks blocks(count);
    for (void *&block : blocks) {
        block = bus_mk_pool_get();
    }
    return blocks;
}
void giveBack(const Blocks &blocks) {
    for (void *const block : blocks) {
        bus_mk_pool_put(block);
    }
}
bool differ(const Blocks &blocks) {
    return std::set<void *>(blocks.begin(), blocks.end()).size() == blocks.size();
}

TEST(Pool, no_block_is_handed_out_twice) {
    for (const std::size_t count : {1U, 33U, 64U, 65U, 500U}) {
        const Blocks first = take(count);
        std::thread{giveBack, first}.join(); // what a thread kept goes to the others with its end
        const Blocks second = take(2 * count);
        EXPECT_TRUE(differ(second)) << count;
        giveBack(second);
        bus_mk_pool_trim();
        bus_mk_pool_clear();
    }
}

// A static object's destructor runs when the thread's own objects have ended.
struct UsesPoolLate {
    ~UsesPoolLate() {
        const Blocks blocks = take(200);
        if (!differ(blocks)) {
            std::_Exit(1);
        }
        giveBack(blocks);
    }
};

TEST(PoolDeathTest, static_objects_may_still_use_it) {
    EXPECT_EXIT(
        {
            static const UsesPoolLate late;
            giveBack(take(60));
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
