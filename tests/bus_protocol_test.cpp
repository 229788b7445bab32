#include "bus_protocol.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Protocol, address_leads_to_the_bus_the_keys_or_a_node) {
    const std::string longest(kMaxHost, 'n');
    // Whose the address is that is made of the name and the path: the bus's, the keys', a node's.
    const std::tuple<std::string, std::string, char> kCases[] = {
        {"bus", "/join", 'b'},       {"b", "/x", 'b'},    {"localKeys", "/k", 'k'},
        {"local", "/k", 'k'},        {"bus2", "/x", 'n'}, {"Bus", "/", 'n'},
        {"localKeysX", "/x/y", 'n'}, {"/x", "/y", 'n'},   {longest, "/x", 'n'},
        {longest + 'n', "/x", '-'},  {"bus", "", '-'},    {"", "/a", '-'}};
    for (const auto &[name, path, whose] : kCases) {
        const std::string address = '/' + name + path;
        const auto url = splitUrl(address);
        ASSERT_EQ(url.has_value(), whose != '-') << address;
        if (url) {
            EXPECT_TRUE(url->host == name && url->path == path) << address;
            EXPECT_EQ(selects(name, kBusHost), whose == 'b') << address;
            EXPECT_EQ(selects(name, kKeysHost), whose == 'k') << address;
        }
        EXPECT_EQ(isCallable(name), whose == 'n') << address;
    }
    EXPECT_FALSE(isCallable("a/b") || splitUrl("") || splitUrl("/") || selects("", kBusHost));
}

TEST(Protocol, names_cannot_break_a_notice) {
    EXPECT_EQ(joinNotice("a\"b\\c"), R"({"event":"join", "name": "a\"b\\c"})");
    EXPECT_EQ(disjoinNotice("player"), R"({"event":"disjoin", "name":"player"})");
    EXPECT_EQ(kDeadlockNotice.size(), 86U);
    EXPECT_TRUE(isJsonArray("[]") && !isJsonArray("{}") && !isJsonArray("["));
    EXPECT_TRUE(parseJson("[] x") && !parseJson("[] x", true));
}

} // namespace bus
