#include "bus_protocol.h"

#include <gtest/gtest.h>

namespace bus {

TEST(Protocol, name_that_an_address_leads_to_is_callable) {
    const std::string longest(kMaxHost, 'n');
    // Whose an address with the name is: the bus's, the keys', that node's, nobody's.
    const std::pair<std::string, char> kCases[] = {
        {"bus", 'b'},   {"b", 'b'},           {"localKeys", 'k'},  {"l", 'k'},
        {"bus2", 'n'},  {"Bus", 'n'},         {"localKeysX", 'n'}, {"/x", 'n'},
        {longest, 'n'}, {longest + 'n', '-'}, {"a/b", '-'},        {"", '-'}};
    for (const auto &[name, whose] : kCases) {
        const std::string address = '/' + name + "/path/x";
        const auto url = splitUrl(address);
        const bool whole = url && url->host == name && url->path == "/path/x";
        const char owner = selects(name, kBusHost) ? 'b' : selects(name, kKeysHost) ? 'k' : 'n';
        EXPECT_EQ(whole ? owner : '-', whose) << name;
        EXPECT_EQ(isCallable(name), whose == 'n') << name;
    }
    EXPECT_EQ(joinNotice("a\"b\\c"), R"({"event":"join", "name": "a\"b\\c"})");
}

} // namespace bus
