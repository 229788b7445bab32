// What must not compile: each line that says so has one error, with the text that stands beside it.
// Without them it compiles.
#include <zelvo/bus.hpp>

#include <any>
#include <map>

constexpr zelvo::Topic<int> count{"count"};
constexpr zelvo::Topic<double> heat{"heat"};
constexpr zelvo::Topic<std::map<int, int>> table{"table"};
constexpr zelvo::Service<int, std::string> lookup{"/store/lookup"};
constexpr zelvo::Service<int, int> half{"/store/half"};

struct Room {
    operator double() const { return 21.5; }
};

void use(zelvo::Bus &bus, zelvo::Node &node) {
    node.publish(count, 21.5);     // wrong: deleted
    node.publish(count, Room{});   // wrong: deleted
    node.publish("t", nullptr);    // wrong: deleted
    node.call(lookup, "chair");    // wrong: no matching
    node.publish(table, {{1, 2}}); // wrong: zelvo/json.hpp
    node.subscribe({"t"}, [](std::string_view) {});
    node.subscribe("t", [](int) {});                // wrong: of a topic takes
    node.subscribe(count, [](std::string_view) {}); // wrong: of this topic takes
    node.subscribe(heat, [](const int &) {});       // wrong: of this topic takes
    node.subscribe(heat, [](const std::any &) {});
    node.subscribe(heat, [](auto value) { return value / 2; });
    node.on_call("/x", [](int) { return 1; });               // wrong: of a call takes
    node.on_call("/x", [] { return std::map<int, int>{}; }); // wrong: gives a text
    node.on_call("/x", [] { return nullptr; });              // wrong: gives a text
    node.on_call(lookup, [](int) { return 1; });             // wrong: of this service takes
    node.on_call(half, [](int x) { return x / 2.0; });       // wrong: of this service takes
    node.on_call(half, [](bool x) { return x ? 1 : 0; });    // wrong: of this service takes
    node.call_async("/x", [](int) {});                       // wrong: of a call takes
    node.after(std::chrono::seconds{1}, [](int) {});         // wrong: function takes
    zelvo::Node gui{bus, "gui", [](int) {}};                 // wrong: executor takes
    zelvo::Node panel{zelvo::PolledNode{bus, "panel"}};      // wrong: deleted
}
