#include "bus_protocol.h"
#include "running.h"

#include <gtest/gtest.h>

// Guards an application's heap and the C library's: the blocks of the one are none of the other.
TEST(Json, functions_that_an_application_sets_while_a_bus_runs_get_their_blocks_back) {
    static int given = 0;
    const auto get = [](std::size_t size) -> void * {
        ++given;
        return static_cast<char *>(std::malloc(size + 16)) + 16;
    };
    cJSON_Hooks own{get, [](void *block) { std::free(static_cast<char *>(block) - 16); }};
    {
        const Bus bus{6};
        cJSON_InitHooks(&own);
        Bus{6}; // beside the first
        Node node{bus, "node"};
        node.call("/localKeys/k", R"({"operation":"set","data":[1]})");
        EXPECT_EQ(node.call("/localKeys/k", R"({"operation":"get"})"), "[1]");
    }
    EXPECT_GT(std::exchange(given, 0), 0);
    Bus{6}; // the first again
    EXPECT_EQ(given, 0);
}
