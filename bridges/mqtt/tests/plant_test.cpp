// What a plant asks of bridges: that refusals are told, gaps leave nothing wrong, a login does what
// its rules say, time and names are kept.
#include "bridged.h"
#include "broker.h"
#include "session.h"

#include <gtest/gtest.h>
#include <mqtt_protocol.h>

#include <future>

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<long> secondsAhead{0}; // of the clocks of this program
constexpr const char *kPersistent =
    "allow_anonymous true\npersistence true\npersistence_location DIR/\n";

// ---- what the broker refuses ----

TEST(Plant, a_login_does_what_its_rules_say) {
    Broker broker{std::string{"allow_anonymous true\nacl_file "} + ZELVO_SOURCE
                  "/docs/plant.acl\nmax_queued_messages 1000\n"};
    Bridged north{broker.url(), "north",
                  R"("user":"north","out":["north.level","south.level"],"in":["plant.mode"],)"
                  R"("serve":["pump"])"};
    Bridged console{broker.url(), "console",
                    R"("user":"console","out":["plant.mode"],"in":["north.level"],)"
                    R"("call":["north"],"callTimeout":2000)"};
    Listener pump{north.bus, "pump", "[]"};
    hear(north, R"(["plant.mode"])");
    hear(console, R"(["north.level"])");
    publish(north, "north.level", "1");
    publish(console, "plant.mode", "auto");
    EXPECT_TRUE(console.listener.hears("north.level 1") && north.listener.hears("plant.mode auto"));
    EXPECT_EQ(console.listener.call("/north/pump/start"), "/pump/start<null");
    EXPECT_EQ(console.listener.call("/north/pump/stop"), kRefused);
    for (int i = 0; i < 20; ++i) {
        publish(north, "south.level", "9");
    }
    EXPECT_TRUE(eventually([&] { return says(north.state(), R"("refused":20)"); }));
    EXPECT_TRUE(says(north.log(),
                     "a publication of 1 bytes to zelvo/topic/south.level is refused: Not auth"));
    EXPECT_TRUE(north.logs("more have been refused: Not authorized"));
    Peer south{broker, "zelvo/#", "south"}; // a login that has got into the wrong hands
    EXPECT_EQ(south.publish("zelvo/answer/console/south", "own"), 0);
    for (const char *const topic : {"zelvo/answer/console/north", "zelvo/topic/north.level",
                                    "zelvo/call/north/pump/start", "zelvo/site/north"}) {
        EXPECT_EQ(south.publish(topic, "x"), MQTT_RC_NOT_AUTHORIZED) << topic;
    }
}

TEST(Plant, a_subscription_that_is_refused_is_named) {
    std::string path; // a part of mosquitto
    for (const auto &entry : std::filesystem::directory_iterator{"/usr/lib"}) {
        const auto plugin = entry.path() / "mosquitto_dynamic_security.so";
        path = std::filesystem::exists(plugin) ? plugin.string() : path;
    }
    Broker broker{"allow_anonymous true\nmax_queued_messages 1000\nplugin " + path +
                      "\nplugin_opt_config_file DIR/rules\n",
                  false};
    std::ofstream{broker.directory().file("rules")}
        << R"({"defaultACLAccess":{"publishClientSend":true,"publishClientReceive":true,)"
           R"("subscribe":true,"unsubscribe":true},"roles":[{"rolename":"r","acls":[)"
           R"({"acltype":"subscribeLiteral","topic":"zelvo/topic/secret","allow":false},)"
           R"({"acltype":"publishClientSend","topic":"zelvo/site/site","allow":false}]}],)"
           R"("groups":[{"groupname":"g","roles":[{"rolename":"r"}]}],"anonymousGroup":"g"})";
    broker.start();
    Bridged site{broker.url(), "site", R"("in":["secret","open"])"};
    EXPECT_TRUE(eventually([&] {
        return says(site.state(), R"("denied":["zelvo/site/site","zelvo/topic/secret"])");
    }));
    EXPECT_TRUE(says(site.log(), "the subscription to zelvo/topic/secret is refused: Not auth"));
    EXPECT_TRUE(says(site.log(), "the presence of this site on zelvo/site/site is refused"));
}

TEST(Plant, a_publication_at_which_the_broker_disconnects_is_given_up) {
    Broker broker{"allow_anonymous true\nmemory_limit 6000000\n"};
    Bridged from{broker.url(), "from", R"("out":["t"])"};
    publish(from, "t", std::string(9'000'000, 'x'));
    publish(from, "t", "after");
    Peer peer{broker, "zelvo/topic/t"};
    EXPECT_EQ(peer.next("zelvo/topic/t"), "after");
    EXPECT_TRUE(eventually([&] { return says(from.state(), R"("underWay":0)"); }));
    EXPECT_TRUE(says(from.state(), R"("refused":1)")) << from.state();
    EXPECT_TRUE(says(from.log(), "a publication of 9000000 bytes to zelvo/topic/t is refused"));
}

TEST(Plant, a_broker_that_knows_less_is_used_for_what_is_left) {
    Broker broker{"max_qos 0\nallow_anonymous true\nretain_available false\n"};
    Bridged from{broker.url(), "from", R"("out":[{"topic":"t","retain":true}],"call":["to"])"};
    Bridged to{broker.url(), "to", R"("in":["t"],"serve":["listener"])"};
    hear(to, R"(["t"])");
    publish(from, "t", "x");
    EXPECT_TRUE(to.listener.hears("t x"));
    EXPECT_EQ(from.listener.call("/to/listener/x"), "/listener/x<null");
    EXPECT_TRUE(says(from.log(), "\"qos\" 0 at most") && says(from.log(), "retains nothing"));
}

// ---- gaps ----

TEST(Gaps, sticky_topics_are_right_afterwards) {
    Broker broker{std::string{kPersistent} + "max_queued_messages 10\n"};
    Bridged to{broker.url(), "to", R"("in":["same","changed","emptied","flood","live"])"};
    hear(to, R"(["same","changed","emptied","flood","live"])");
    for (const char *const topic : {"same", "changed", "emptied", "flood"}) {
        Peer{broker, "x"}.publish(std::string{"zelvo/topic/"} + topic, "1", true);
        EXPECT_TRUE(to.listener.hears(std::string{topic} + " 1"));
    }
    broker.kill(SIGTERM);
    broker.start(true); // whom the bridge does not reach
    {
        Peer peer{broker, "x"};
        peer.publish("zelvo/topic/changed", "2", true, correlationData()); // not kept for anybody
        peer.publish("zelvo/topic/emptied", "", true, correlationData());
        for (int i = 2; i <= 60; ++i) { // more than is kept
            peer.publish("zelvo/topic/flood", std::to_string(i), true);
        }
    }
    broker.kill(SIGTERM);
    broker.start();
    EXPECT_TRUE(to.listener.hears("changed 2") && to.listener.hears("emptied null"));
    Peer{broker, "x"}.publish("zelvo/topic/live", "on");
    EXPECT_TRUE(to.listener.hears("live on"));
    Listener late{to.bus, "late", R"(["same","changed","emptied","flood"])"};
    late.call("/bus/nodes"); // behind the subscription
    EXPECT_TRUE(late.hears("same 1") && late.hears("changed 2") && late.hears("flood 60"));
    EXPECT_EQ(late.heard().size(), 3U);
    const auto heard = to.listener.heard();
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "same 1"), 1);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "live null"), 0);
}

TEST(Gaps, what_a_full_bus_refuses_is_sticky_in_the_end) {
    Broker broker;
    Bridged site{broker.url(), "site", R"("in":["kept","emptied","t"])"};
    Peer peer{broker, "x"};
    peer.publish("zelvo/topic/emptied", "1", true, correlationData());
    hear(site, R"(["kept","emptied"])");
    EXPECT_TRUE(site.listener.hears("emptied 1"));
    site.bus.stop();
    for (int i = 0; i < 3'000; ++i) {
        publish(site, "other", "x");
    }
    peer.publish("zelvo/topic/kept", "2", true, correlationData());
    peer.publish("zelvo/topic/emptied", "", true, correlationData());
    peer.publish("zelvo/topic/t", "x", false,
                 zelvo_mqtt::userProperty("zelvo-hops", "x").release());
    EXPECT_TRUE(site.logs("its number of hops is none")); // behind the others
    site.bus.start();
    EXPECT_TRUE(site.listener.hears("kept 2") && site.listener.hears("emptied null"));
    EXPECT_TRUE(site.logs("kept is something else on the bus"));
    Listener late{site.bus, "late", R"(["emptied","kept"])"};
    EXPECT_TRUE(late.hears("kept 2"));
    EXPECT_EQ(late.heard().size(), 1U);
    // A node that does not give in is left with what it wants.
    const auto insist = [](void *, client_t *node, char *topic, char *data, int length) {
        if (data && std::string_view(data, static_cast<std::size_t>(length)) != "on") {
            busClientPublishSticky(node, topic, "on", 2);
        }
        return 0;
    };
    Node stubborn{site.bus.get(), "stubborn", insist};
    busClientSubscribe(stubborn.get(), R"(["kept"])");
    peer.publish("zelvo/topic/kept", "3", true, correlationData());
    EXPECT_TRUE(site.logs("kept is something else on the bus than at the broker, and left so"));
}

// A second bridge of the name cuts the connections of the first.
TEST(Gaps, commands_that_were_acknowledged_are_not_sent_again) {
    Broker broker{kPersistent};
    Bridged from{broker.url(), "from", R"("out":["command"])"};
    Peer machine{broker, "zelvo/topic/command"};
    publish(from, "command", "open-valve");
    EXPECT_EQ(machine.next("zelvo/topic/command"), "open-valve");
    EXPECT_TRUE(eventually([&] { return says(from.state(), R"("underWay":0)"); }));
    { const Bridged second{broker.url(), "from"}; }
    EXPECT_TRUE(from.logs("another bridge has the name of this site"));
    publish(from, "command", "close-valve");
    EXPECT_EQ(machine.next("zelvo/topic/command"), "close-valve");
}

TEST(Gaps, a_topic_that_is_no_longer_configured_is_unsubscribed) {
    Broker broker{kPersistent};
    Peer peer{broker, "zelvo/site/site"};
    { const Bridged before{broker.url(), "site", R"("in":["kept","old"])"}; }
    Bridged site{broker.url(), "site", R"("in":["kept"])"};
    hear(site, R"(["kept"])");
    peer.publish("zelvo/topic/old", "x");
    EXPECT_TRUE(site.logs("a message to zelvo/topic/old is dropped: a bridge before"));
    EXPECT_TRUE(eventually(
        [&] { return peer.publish("zelvo/topic/old", "x") == MQTT_RC_NO_MATCHING_SUBSCRIBERS; }));
    peer.publish("zelvo/topic/kept", "x");
    EXPECT_TRUE(site.listener.hears("kept x"));
    while (peer.next("zelvo/site/site") != "online" || peer.next("zelvo/site/site") != "offline") {}
    EXPECT_EQ(peer.next("zelvo/site/site"), "online");
    peer.publish("zelvo/site/site", "", true); // it is there all the same
    while (peer.next("zelvo/site/site") != "") {}
    EXPECT_EQ(peer.next("zelvo/site/site"), "online");
}

// ---- load and time ----

TEST(Plant, a_flood_of_requests_has_a_bound_and_close_is_asked_again_while_one_is_not_answered) {
    Broker broker{"allow_anonymous true\n"};
    Bridged site{broker.url(), "site", R"("serve":["slow","listener"])"};
    std::atomic<bool> answers{false};
    std::atomic<int> calls{0};
    const Node slow{site.bus, "slow", [&](client_t *, const std::string &, const std::string &) {
                        ++calls;
                        eventually([&] { return answers.load(); });
                        return mallocText("done");
                    }};
    Peer peer{broker, "zelvo/answer/p/site"};
    peer.request("slow/x", "", "60000");
    ASSERT_TRUE(eventually([&] { return calls > 0; }));
    peer.request("slow/x", "", "1"); // too late then, and not run
    const std::string large(1'000'000, 'x');
    for (int i = 0; i < 40; ++i) {
        peer.request("slow/x", large, "60000");
    }
    for (int i = 0; i < 40 - 8; ++i) { // 16 MiB may wait for both nodes
        EXPECT_EQ(peer.next("zelvo/answer/p/site"), kRefused);
    }
    answers = true;
    for (int i = 0; i < 1 + 8; ++i) {
        EXPECT_EQ(peer.next("zelvo/answer/p/site"), "done");
    }
    EXPECT_TRUE(site.logs("1 calls from outside to slow are dropped: they have waited too long"));
    answers = false;
    peer.request("slow/x"); // there is room again
    EXPECT_TRUE(eventually([&] { return calls == 1 + 8 + 1; }));
    EXPECT_TRUE(isQuick([&] { EXPECT_EQ(zelvo_mqtt_close(site.get()), -1); }));
    answers = true;
    site.close();
}

TEST(Plant, a_broker_that_gives_no_sign_of_life_is_left) {
    Broker broker;
    {
        Bridged site{broker.url(), "site", R"("call":["other"],"callTimeout":3600000)"};
        Peer peer{broker, "zelvo/call/#"};
        auto answer = // comes with the loss of the connection
            std::async(std::launch::async, [&] { return site.listener.call("/other/x/y"); });
        peer.next("zelvo/call/other/x/y");
        broker.pause();
        const auto isLeft = [&] { // one second for each look, by the clock of this program
            ++secondsAhead;
            return says(site.log(), "no connection: the broker has given no sign of life");
        };
        EXPECT_TRUE(eventually(isLeft, std::chrono::hours{10}));
        EXPECT_EQ(answer.get(), kRefused);
        broker.resume();
        EXPECT_TRUE(site.isConnected());
    }
    secondsAhead = 0;
}

TEST(Gaps, of_several_brokers_the_first_that_can_be_reached_is_used) {
    Broker first{"allow_anonymous true\n", false}, second;
    Bridged site{"[\"" + first.url() + "\",\"" + second.url() + "\"]", "site", R"("in":["t"])"};
    hear(site, R"(["t"])");
    for (Broker *const broker : {&second, &first}) {
        Peer peer{*broker, "x"};
        EXPECT_TRUE(eventually([&] { return peer.publish("zelvo/topic/t", broker->url()) == 0; }));
        EXPECT_TRUE(site.listener.hears("t " + broker->url()));
        first.kill(SIGTERM);
        first.start();
        second.kill(SIGTERM);
    }
}

// ---- names ----

std::atomic<bool> nameServiceGoesOn{false};

TEST(Names, close_ends_without_a_broker_and_a_name_service) {
    for (const char *const url :
         {"mqtt://127.0.0.1:1", "mqtt://10.255.255.1", "mqtts://10.255.255.1",
          "mqtt://no-such-host.invalid", "mqtt://hangs.invalid"}) {
        Bridged site{url, "site", R"("out":["t"],"call":["two"])", false};
        publish(site, "t", "x");
        EXPECT_EQ(site.listener.call("/two/n/x"), kRefused);
        EXPECT_TRUE(isQuick([&] { site.close(); }));
        EXPECT_TRUE(says(site.log(), "1 publications are lost")) << url << site.log();
    }
    nameServiceGoesOn = true;
}

TEST(Names, a_host_is_tried_address_by_address_and_its_sockets_are_its_own) {
    Broker broker;
    Broker silent{"listener " + std::to_string(broker.port()) + " 127.0.0.2\n"};
    silent.pause(); // takes connections
    Bridged site{broker.url("mqtt", "several.invalid"), "site"};
    for (int file = 3; file < 1024; ++file) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        EXPECT_TRUE(getpeername(file, reinterpret_cast<sockaddr *>(&peer), &size) != 0 ||
                    peer.sin_family != AF_INET || (fcntl(file, F_GETFD) & FD_CLOEXEC) != 0);
    }
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec *now) {
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    now->tv_sec += secondsAhead;
    return result;
}

// The name service of this program.
extern "C" int getaddrinfo(const char *node, const char *service, const addrinfo *hints,
                           addrinfo **result) {
    static const auto real =
        reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    const std::string name = node ? node : "";
    if (name == "hangs.invalid") {
        eventually([] { return nameServiceGoesOn.load(); });
        return EAI_AGAIN;
    }
    if (name != "several.invalid") {
        return real(node, service, hints, result);
    }
    const int error = real("127.0.0.2", service, hints, result);
    return error != 0 ? error : real("127.0.0.1", service, hints, &(*result)->ai_next);
}
