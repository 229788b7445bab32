// Bridges and a real broker.
#include "bridged.h"
#include "broker.h"

#include <gtest/gtest.h>

namespace {

class Bridges : public testing::Test {
protected:
    Bridges() { broker.start(); }
    Broker broker;
};

TEST_F(Bridges, publications_and_calls_pass_from_bus_to_bus) {
    Bridged one{broker.url(), "one", R"("out":["a.b"],"call":["two"],"serve":["listener"])"};
    Bridged two{broker.url(), "two", R"("in":["a.b"],"call":["one"],"serve":["listener"])"};
    ASSERT_TRUE(one.connects() && two.connects());
    busClientSubscribe(two.listener.node.get(), R"(["a.b"])");
    const std::string bytes{"x\0y\xff", 4};
    EXPECT_TRUE(eventually([&] {
        busClientPublish(one.listener.node.get(), "a.b", bytes.data(), 4);
        return two.listener.hears("a.b=" + bytes, std::chrono::milliseconds{200});
    }));
    EXPECT_EQ(one.listener.node.call("/two/listener/p/q", "data", 4), "/listener/p/q<data");
    EXPECT_EQ(two.listener.node.call("/one/listener/x"), "/listener/x<");
    EXPECT_EQ(two.listener.node.call("/one/bus/nodes"), "{\"data\":\"not implement\"}");
}

} // namespace
