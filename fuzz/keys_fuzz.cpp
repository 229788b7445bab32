// An input is the content of keys.json when the bus starts.
#include "fuzz_support.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

std::string home; // a directory
std::string store() {
    return home + "/keys.json";
}

// A bus with this store, and a node that asks it.
struct Server {
    RunningBus bus{R"({"level":5,"path":"/dev/null","size":0,"homePath":")" + home + "\"}"};
    Node node{bus.get(), "node"};

    std::string ask(const std::string &key, const char *data) {
        return answered(node, "/localKeys/" + key, data);
    }
    std::string get(const std::string &key) { return ask(key, R"({"operation":"get"})"); }
};

// What a get of a member has to answer: the value as the text has it, but for "probe".
void checkMembers(Server &server, const std::string &text) {
    const Json json{cJSON_Parse(text.c_str())};
    const cJSON *const probe = cJSON_GetObjectItem(json.get(), "probe");
    int members = 0;
    for (const cJSON *item = json->child; item && members < 8; item = item->next, ++members) {
        const cJSON *const first = cJSON_GetObjectItem(json.get(), item->string);
        if (first == probe) {
            continue;
        }
        char *const printed = cJSON_Print(first);
        REQUIRE(server.get(item->string) == printed);
        std::free(printed);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    static const TempDir directory;
    home = directory.path();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text{reinterpret_cast<const char *>(data), size};
    const std::string aside = store() + ".bad";
    fs::remove(aside);
    std::ofstream{store(), std::ios::binary} << text;
    const bool valid = isJsonObject(text);
    {
        Server server;
        server.get("probe");
        REQUIRE(readFile(store()) == text);
        if (valid) {
            checkMembers(server, text);
        }
        server.ask("probe", R"({"operation":"set","persist":"true","data":{"a":[1]}})");
    }
    REQUIRE(fs::exists(aside) == (!valid && !text.empty()));
    REQUIRE(valid || readFile(aside) == text);
    const std::string written = readFile(store());
    REQUIRE(isJsonObject(written));
    Server again;
    if (valid) {
        checkMembers(again, text);
    }
    REQUIRE(again.get("probe") == "{\n\t\"a\":\t[1]\n}");
    REQUIRE(readFile(store()) == written);
    return 0;
}
