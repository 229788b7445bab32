#include "bus_protocol.h"

#include <gtest/gtest.h>

#include <string>

namespace bus {
namespace {

TEST(Protocol, url_is_split_at_the_first_slash_behind_the_host) {
    const std::string longest(kMaxHost, 'n');
    const std::string path(5000, 'p');
    const struct {
        std::string url, host, path; // no path: the url is refused
    } kCases[] = {{"/bus/join", "bus", "/join"},
                  {"/nodeA/play/next", "nodeA", "/play/next"},
                  {"/nodeA/", "nodeA", "/"},
                  {"XnodeA/x", "nodeA", "/x"},
                  {"//x/y", "/x", "/y"},
                  {"/" + longest + "/x", longest, "/x"},
                  {"/a/" + path, "a", "/" + path},
                  {"/" + longest + "n/x", "", ""},
                  {"/bus", "", ""},
                  {"nodeA", "", ""},
                  {"//a", "", ""},
                  {"/", "", ""},
                  {"", "", ""}};
    for (const auto &c : kCases) {
        const auto url = splitUrl(c.url);
        ASSERT_EQ(url.has_value(), !c.path.empty()) << c.url;
        if (url) {
            EXPECT_EQ(url->host, c.host) << c.url;
            EXPECT_EQ(url->path, c.path) << c.url;
        }
    }
}

TEST(Protocol, reserved_host_is_reached_by_its_prefixes_only) {
    const struct {
        const char *host;
        bool bus, keys;
    } kCases[] = {{"bus", true, false},   {"bu", true, false},          {"b", true, false},
                  {"bus2", false, false}, {"Bus", false, false},        {"localKeys", false, true},
                  {"local", false, true}, {"localKeysX", false, false}, {"", false, false}};
    for (const auto &c : kCases) {
        EXPECT_EQ(selects(c.host, kBusHost), c.bus) << c.host;
        EXPECT_EQ(selects(c.host, kKeysHost), c.keys) << c.host;
    }
}

TEST(Protocol, callable_names_are_those_that_an_address_leads_to) {
    const std::string longest(kMaxHost, 'n');
    for (const std::string &name :
         {std::string{"player"}, std::string{"/x"}, longest, std::string{"bus2"}, std::string{"b"},
          std::string{"l"}, std::string{}, longest + "n", std::string{"a/b"}}) {
        const std::string address = "/" + name + "/x";
        const auto url = splitUrl(address);
        const bool reached =
            url && url->host == name && !selects(name, kBusHost) && !selects(name, kKeysHost);
        EXPECT_EQ(isCallable(name), reached) << name;
    }
}

TEST(Protocol, names_cannot_break_a_notice) {
    EXPECT_EQ(joinNotice("player"), R"({"event":"join", "name": "player"})");
    EXPECT_EQ(disjoinNotice("player"), R"({"event":"disjoin", "name":"player"})");
    EXPECT_EQ(joinNotice("a\"b\\c"), R"({"event":"join", "name": "a\"b\\c"})");
    const std::string name(3000, 'x');
    EXPECT_EQ(disjoinNotice(name.c_str()), R"({"event":"disjoin", "name":")" + name + "\"}");
    EXPECT_EQ(kDeadlockNotice.size(), 86U);
}

} // namespace
} // namespace bus
