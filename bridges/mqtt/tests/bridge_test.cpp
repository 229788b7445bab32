// Bridges and a real broker.
#include "bridged.h"
#include "broker.h"
#include "json.h"
#include "session.h"

#include <gtest/gtest.h>

#include <future>

namespace {

class Bridges : public testing::Test {
protected:
    Broker broker{"allow_anonymous true\npersistence true\npersistence_location DIR/\n"};
};

TEST_F(Bridges, publications_of_any_topic_and_content_pass) {
    std::vector<std::string> topics = {"a/b", "+",      "#",    "",         "$SYS",
                                       "%41", "\x01\n", "\xff", "t\xc3\xbc"};
    Bridged to{broker.url(), "to", "\"in\":" + zelvo_mqtt::jsonArray(topics)};
    hear(to, zelvo_mqtt::jsonArray(topics));
    Bridged from{broker.url(), "from", "\"out\":" + zelvo_mqtt::jsonArray(topics)};
    for (const std::string &topic : topics) {
        for (const std::string &payload : {std::string{"x\0\xff", 3}, std::string{}}) {
            publish(from, topic, payload);
        }
    }
    for (const std::string &topic : topics) {
        EXPECT_TRUE(to.listener.hears(topic + " " + std::string{"x\0\xff", 3})) << topic;
        EXPECT_TRUE(to.listener.hears(topic + " null")) << topic;
    }
}

TEST_F(Bridges, a_retained_publication_is_sticky_until_it_is_emptied) {
    Bridged from{broker.url(), "from", R"("out":[{"topic":"kept","retain":true},"once"])"};
    publish(from, "kept", "1", true);
    for (int time = 0; time < 2; ++time) { // the broker keeps the session of the first
        Bridged before{broker.url(), "to", R"("in":["kept"])"};
        hear(before, R"(["kept"])");
        EXPECT_TRUE(before.listener.hears("kept 1"));
    }
    Bridged to{broker.url(), "to", R"("in":["kept","once"])"};
    hear(to, R"(["once","kept"])");
    EXPECT_TRUE(to.listener.hears("kept 1"));
    publish(from, "kept", "2"); // plain: the broker keeps it all the same
    EXPECT_TRUE(to.listener.hears("kept 2"));
    EXPECT_TRUE((Listener{to.bus, "second", R"(["kept"])"}.hears("kept 2")));
    publish(from, "kept", "");
    publish(from, "once", "end");
    ASSERT_TRUE(to.listener.hears("once end"));
    Listener last{to.bus, "last", R"(["kept"])"};
    last.call("/bus/nodes"); // behind the subscription
    EXPECT_TRUE(last.heard().empty());
}

TEST_F(Bridges, a_ring_of_sites_is_stopped) {
    Bridged site{broker.url(), "in", R"("in":["t"])"};
    hear(site, R"(["t"])");
    zelvo_mqtt_t *const back = site.another(R"("site":"out","out":["t"])");
    Peer{broker, "x"}.publish("zelvo/topic/t", "round");
    const auto rounds = [&] {
        const auto heard = site.listener.heard();
        return std::count(heard.begin(), heard.end(), "t round");
    };
    EXPECT_TRUE(eventually([&] { return rounds() == 1 + 8; }));
    EXPECT_EQ(zelvo_mqtt_close(back), 0);
    EXPECT_EQ(rounds(), 1 + 8);
}

TEST_F(Bridges, calls_reach_what_is_served_and_nothing_else) {
    Bridged one{broker.url(), "one", R"("call":["two"],"callTimeout":60000)"};
    Bridged two{broker.url(), "two", R"("serve":["listener","localKeys","bus"])"};
    Listener &caller = one.listener;
    EXPECT_EQ(caller.call("/two/listener/p/q+%", "data"), "/listener/p/q+%<data");
    broker.kill(SIGTERM);
    EXPECT_TRUE(one.logs("no connection") && two.logs("no connection"));
    broker.start();
    EXPECT_TRUE(one.isConnected() && two.isConnected());
    Peer peer{broker, "zelvo/site/two"};
    EXPECT_EQ(peer.next("zelvo/site/two"), "online");
    EXPECT_EQ(caller.call("/two/listener/x"), "/listener/x<null");
    EXPECT_EQ(caller.call("/two/localKeys/k", R"({"operation":"set","data":"v"})"),
              R"({"data":""})");
    for (const char *const url : {"/two/bus/disjoin", "/two/b/nodes", "/two/local/k",
                                  "/two/mqtt.two/state", "/two/", "/two//x", "/two/listener"}) {
        EXPECT_EQ(caller.call(url), kRefused) << url;
    }
    EXPECT_TRUE(says(caller.call("/two/bus/nodes"), "\"mqtt.two\""));
    EXPECT_TRUE(two.logs("/b/nodes from outside is refused: that node is not served"));
    two.close();
    EXPECT_EQ(peer.next("zelvo/site/two"), "offline");
    EXPECT_TRUE(eventually([&] {
        return one.listener.call("/two/listener/x") == kRefused &&
               says(one.log(), "is not answered: the site is offline");
    }));
}

TEST_F(Bridges, late_and_foreign_answers_are_dropped) {
    Bridged one{broker.url(), "one", R"("call":["two","three"],"callTimeout":1000)"};
    Peer two{broker, "zelvo/call/two/#"};
    const auto ask = [&] {
        return std::async(std::launch::async, [&] { return one.listener.call("/two/n/x", "d"); });
    };
    auto answer = ask();
    const Peer::Message late = two.nextMessage("zelvo/call/two/n/x");
    EXPECT_EQ(late.expiry, 1U);
    EXPECT_EQ(answer.get(), kRefused);
    EXPECT_TRUE(one.logs("given none within"));
    answer = ask();
    const std::string right = two.nextMessage("zelvo/call/two/n/x").correlation;
    const auto give = [&](const char *topic, const std::string &correlation, const char *text) {
        two.publish(topic, text, false, correlationData(correlation));
    };
    give("zelvo/answer/one/two", late.correlation, "late");
    give("zelvo/answer/one/three", right, "forged by a site that was not asked");
    give("zelvo/answer/one/two", right, "right");
    EXPECT_EQ(answer.get(), "right");
    EXPECT_TRUE(one.logs("answer/one/two is dropped") && one.logs("answer/one/three is dropped"));
    answer = ask();
    two.next("zelvo/call/two/n/x");
    two.publish("zelvo/site/two", "offline");
    EXPECT_EQ(answer.get(), kRefused);
    EXPECT_TRUE(one.logs("/two/n/x is not answered: the site is offline"));
}

TEST_F(Bridges, bad_input_from_the_broker_hurts_nobody) {
    Bridged site{broker.url(), "site", R"("in":["t"],"serve":["listener"],"call":["two"])"};
    hear(site, R"(["t"])");
    Peer peer{broker, "zelvo/answer/#"};
    peer.publish("zelvo/topic/t", "malformed", false,
                 zelvo_mqtt::userProperty("zelvo-hops", "-3x").release());
    peer.publish("zelvo/call/site/listener/x", "no answer wanted");
    peer.request("%6Cistener/x");
    peer.request("listener/x", "", nullptr, "zelvo/topic/t");
    peer.request("listener/x", "", "1x");
    peer.publish("zelvo/site/two", std::string(1000, '?'));
    peer.publish("zelvo/topic/t", std::string(2 << 20, 'x')); // larger than "maxPacket"
    peer.request("listener/end");
    peer.publish("zelvo/topic/t", "end");
    EXPECT_TRUE(site.listener.hears("t end"));
    EXPECT_EQ(site.listener.heard().size(), 2U + 1U); // two states, the end
    EXPECT_EQ(peer.next("zelvo/answer/p/site"), "/listener/end<null");
    EXPECT_EQ(site.listener.call("/mqtt.site/other"), "{\"msg\":\"not implement\"}");
    for (const char *const line :
         {"its number of hops is none", "topic is none of this site", "of milliseconds is none",
          "call/site/%6Cistener/x is dropped: its topic is not in the form"}) {
        EXPECT_TRUE(site.logs(line)) << line;
    }
}

TEST_F(Bridges, publications_wait_for_a_broker_that_is_away) {
    Bridged from{broker.url(), "from",
                 R"("out":["t",{"topic":"command","expiry":1}],"buffer":{"messages":10})"};
    Bridged to{broker.url(), "to", R"("in":["t","command"])"};
    hear(to, R"(["t","command"])");
    publish(from, "t", "before");
    ASSERT_TRUE(to.listener.hears("t before"));
    EXPECT_TRUE(eventually([&] { return says(from.state(), R"("underWay":0)"); }));
    broker.kill(SIGTERM);
    EXPECT_TRUE(eventually([&] { return says(from.state(), R"("connected":false)"); }));
    for (int i = 1; i <= 30; ++i) {
        publish(from, "t", std::to_string(i));
    }
    publish(from, "command", "late");
    const auto published = std::chrono::steady_clock::now();
    EXPECT_TRUE(says(from.state(), R"("dropped":21)"));
    EXPECT_TRUE(from.logs("21 publications were dropped"));
    EXPECT_LE(count(from.log(), "no connection: Connection refused"), 1U);      // of several tries
    std::this_thread::sleep_until(published + std::chrono::milliseconds{1100}); // it expires
    broker.start(); // which knows the receiver's session, so the order of their return is no matter
    EXPECT_TRUE(to.listener.hears("t 30") && to.listener.hears("t 22"));
    EXPECT_FALSE(to.listener.hears("t 21", std::chrono::milliseconds{0}));
    EXPECT_TRUE(eventually([&] { return says(from.state(), R"("refused":0,"expired":1,)"); }));
    EXPECT_FALSE(to.listener.hears("command late", std::chrono::milliseconds{0}));
}

TEST_F(Bridges, what_the_bus_does_not_take_waits_at_the_broker) {
    Bridged site{broker.url(), "site", R"("in":["t"])"};
    hear(site, R"(["t"])");
    site.bus.stop();
    Peer peer{broker, "x"};
    for (int i = 1; i <= 3'000; ++i) { // more than the bus's queue of 2,048 places
        peer.publish("zelvo/topic/t", std::to_string(i));
    }
    EXPECT_TRUE(site.logs("the bus takes no publications"));
    site.bus.start();
    EXPECT_TRUE(site.listener.hears("t 3000"));
    EXPECT_EQ(site.listener.heard().size(), 2U + 3'000U); // two states
}

TEST_F(Bridges, several_on_one_bus_leave_it_as_it_was) {
    Bridged one{broker.url(), "site", R"("in":["a"])"};
    const std::string alone = one.listener.call("/bus/nodes");
    zelvo_mqtt_t *const second =
        one.another(R"("site":"site","prefix":"p","call":["x","y"],"serve":["s","t"])");
    const std::string nodes = one.listener.call("/bus/nodes");
    EXPECT_TRUE(says(nodes, "mqtt.site.2\"") && says(nodes, "mqtt.site.2.serve.2")) << nodes;
    std::size_t blocked = 0; // threads that no signal comes to
    for (const auto &task : std::filesystem::directory_iterator{"/proc/self/task"}) {
        blocked += count(readFile(task.path().string() + "/status"), "SigBlk:\tf");
    }
    EXPECT_GE(blocked, 2U + 2U + 2U + 5U); // of links and nodes
    EXPECT_FALSE(one.another(R"("site":"third","serve":["s"],"call":["listener"])"));
    EXPECT_EQ(zelvo_mqtt_close(second), 0);
    EXPECT_EQ(one.listener.call("/bus/nodes"), alone);
    EXPECT_FALSE(zelvo_mqtt_open(nullptr, "{}"));
    one.close();
    const std::string state = R"(mqtt.state {"bridge":"mqtt.site","connected":false,"why":")";
    EXPECT_TRUE(one.listener.hears(state + "connecting\"}") &&
                one.listener.hears(state + "closed\"}"));
    EXPECT_FALSE(says(one.log(), "lost"));
    Listener late{one.bus, "late", R"(["mqtt.state"])"};
    EXPECT_EQ(late.call("/bus/nodes").find("mqtt"), std::string::npos);
    EXPECT_TRUE(late.heard().empty());
}

TEST_F(Bridges, as_many_sticky_topics_go_out_as_a_bus_has) {
    Bridged from{broker.url(), "from"};
    Peer peer{broker, "zelvo/topic/+"};
    std::vector<std::string> topics;
    for (int i = 0; i < 2047; ++i) {
        publish(from, topics.emplace_back(std::to_string(i)), "x", true);
        from.listener.call("/bus/nodes"); // which has taken it
    }
    zelvo_mqtt_t *const bridge =
        from.another(R"("site":"second","out":)" + zelvo_mqtt::jsonArray(topics));
    for (const std::string &topic : topics) {
        ASSERT_EQ(peer.next("zelvo/topic/" + topic), "x");
    }
    EXPECT_EQ(zelvo_mqtt_close(bridge), 0);
    topics.emplace_back("one more");
    EXPECT_FALSE(from.another(R"("site":"second","out":)" + zelvo_mqtt::jsonArray(topics)));
}

// ---- TLS and password ----

TEST(Secured, the_certificate_and_the_password_decide) {
    Broker broker{"password_file DIR/users\ncafile DIR/ca.pem\ncertfile DIR/server.pem\n"
                  "keyfile DIR/server.key\nrequire_certificate true\n",
                  false};
    const std::string at = broker.directory().path();
    const std::string commands = "cd " + at + R"( && set -e && exec >log 2>&1
        make() { openssl req -x509 -newkey ec -nodes -days 9 \
            -pkeyopt ec_paramgen_curve:P-256 "$@"; }
        make -subj /CN=ca -keyout ca.key -out ca.pem
        make -subj /CN=localhost -addext subjectAltName=DNS:localhost -keyout server.key \
            -CA ca.pem -CAkey ca.key -out server.pem
        mosquitto_passwd -b -c users user secret && echo secret >password)";
    ASSERT_EQ(std::system(commands.c_str()), 0) << readFile(at + "/log");
    broker.start();
    const auto members = [&](const std::string &password) {
        return "\"ca\":\"" + at + "/ca.pem\",\"cert\":\"" + at + "/server.pem\",\"key\":\"" + at +
               "/server.key\",\"user\":\"user\",\"password\":" + password;
    };
    const std::string url = broker.url("mqtts", "localhost");
    Bridged right{url, "right", members("{\"file\":\"" + at + "/password\"}") + R"(,"in":["t"])"};
    hear(right, R"(["t"])");
    {
        Bridged from{url, "from", members("\"secret\"") + R"(,"out":["t"])"};
        publish(from, "t", std::string(100'000, 'x'));
        EXPECT_TRUE(right.listener.hears("t " + std::string(100'000, 'x')));
    }
    const std::string certificate = "no connection: the broker's certificate is refused: ";
    for (const auto &[where, with, why] : std::vector<std::array<std::string, 3>>{
             {url, members("\"other\""), "no connection: the broker refuses: Not authorized"},
             {url, "\"qos\":0", certificate + "self-signed certificate in certificate chain"},
             {broker.url("mqtts", "127.0.0.1"), members("\"secret\""),
              certificate + "IP address mismatch"},
             {"mqtts://127.0.0.1:1", "\"qos\":0", "no connection: The connection was lost"}}) {
        Bridged refused{where, "refused", with, false};
        EXPECT_TRUE(refused.logs(why)) << refused.log();
        EXPECT_FALSE(says(refused.log(), "other"));
    }
    EXPECT_FALSE(says(right.log(), "secret"));
}

// ---- closing ----

TEST_F(Bridges, close_ends_whatever_the_broker_and_the_bus_do) {
    Bridged site{broker.url(), "site", R"("call":["two"],"out":["t"],"callTimeout":600000)"};
    auto answer = std::async(std::launch::async, [&] { return site.listener.call("/two/n/x"); });
    broker.pause();
    publish(site, "t", "x");
    EXPECT_TRUE(isQuick([&] { site.close(); }));
    EXPECT_EQ(answer.get(), kRefused);
    broker.resume();
    Bridged stopped{broker.url(), "site", R"("serve":["listener"],"call":["two"],"in":["t"])"};
    stopped.bus.stop();
    Peer{broker, "x"}.publish("zelvo/topic/t", "x");
    EXPECT_TRUE(isQuick([&] { stopped.close(); }));
    EXPECT_TRUE(says(stopped.log(), "publications may be lost: the bus has not handed them over"));
    stopped.bus.start();
}

} // namespace
