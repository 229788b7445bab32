#include "bus_protocol.h"
#include "running.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Protocol, name_that_an_address_leads_to_is_callable) {
    const std::string longest(kMaxHost, 'n');
    const Texts kNames[] = {{"bus", "b", "localKeys", "l", "a/b", "", longest + 'n'},
                            {"bus2", "Bus", "localKeysX", "/x", longest}};
    for (const bool callable : {false, true}) {
        for (const std::string &name : kNames[callable]) {
            const std::string address = '/' + name + "/path/x";
            const auto url = splitUrl(address);
            const bool reserved = selects(name, kBusHost) || selects(name, kKeysHost);
            EXPECT_EQ(url && url->host == name && !reserved, callable) << name;
            EXPECT_EQ(isCallable(name), callable) << name;
        }
    }
    EXPECT_EQ(joinNotice("a\"b\\c"), R"({"event":"join", "name": "a\"b\\c"})");
}

// Guards an application's heap and the C library's: the blocks of the one are none of the other.
TEST(Json, functions_that_an_application_sets_while_a_bus_runs_get_their_blocks_back) {
    static int given = 0;
    const auto get = [](std::size_t size) -> void * {
        ++given;
        return static_cast<char *>(std::malloc(size + 16)) + 16;
    };
    cJSON_Hooks own{get, [](void *block) { std::free(static_cast<char *>(block) - 16); }};
    std::optional<Bus> bus{std::in_place, 6};
    cJSON_InitHooks(&own);
    Bus{6}; // beside the first
    EXPECT_GT(given, 0);
    Node node{*bus, "node"};
    EXPECT_EQ(node.call("/bus/nodes"), "{\n\t\"data\":\t[\"node\"]\n}");
    node.call("/localKeys/k", R"({"operation":"set","data":[1]})");
    EXPECT_EQ(node.call("/localKeys/k", R"({"operation":"get"})"), "[1]");
    node.close();
    bus.reset();
    given = 0;
    Bus{6}; // the first again
    EXPECT_EQ(given, 0);
}

} // namespace bus
