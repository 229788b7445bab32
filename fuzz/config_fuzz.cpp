// An input is the configuration of a bus, which then has to work, whatever it says.
// Only names inside a temporary directory are let through: a log file is emptied, and deleted when
// it is large.
#include "fuzz_support.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kLarge = "large";
constexpr std::uintmax_t kLargeSize = 2 * 1024 * 1024; // above the least limit, a megabyte

// The working directory, each time with the same few things to name in it.
void furnish() {
    for (const fs::directory_entry &entry : fs::directory_iterator{"."}) {
        if (!entry.is_symlink()) {
            fs::remove_all(entry.path());
        }
    }
    fs::create_directory("home");
    std::ofstream{"home/keys.json"} << R"({"kept":1})";
    std::ofstream{"file"} << "not a directory\n";
    std::ofstream{std::string{kLarge}};
    fs::resize_file(kLarge, kLargeSize);
}

const char *textOf(const cJSON *config, const char *member) {
    const char *const text = cJSON_GetStringValue(cJSON_GetObjectItem(config, member));
    return text ? text : "";
}

bool staysInside(const cJSON *config, const char *member) {
    const std::string_view text = textOf(config, member);
    return !text.starts_with('/') && text.find("..") == text.npos;
}

// Then a call, and the connect, may go without an answer.
bool isShort(const cJSON *config) {
    const cJSON *const timeout = cJSON_GetObjectItem(config, "callTimeout");
    return timeout && timeout->valueint > 0 && timeout->valueint < 60'000;
}

void checkAnswers(const Node &node) {
    REQUIRE(answered(node, "/bus/nodes") == "{\n\t\"data\":\t[\"node\"]\n}");
    REQUIRE(isJsonObject(answered(node, "/bus/stats")));
    answered(node, "/localKeys/kept", R"({"operation":"get"})");
    answered(node, "/localKeys/new", R"({"operation":"set","persist":"true","data":[7]})");
    REQUIRE(answered(node, "/localKeys/new", R"({"operation":"get"})") == "[7]");
}

// Where the log or the store can only have gone to the named file, it has.
void checkFiles(const cJSON *config, std::string_view log) {
    const std::string home = textOf(config, "homePath");
    if (home == "home") {
        const std::string store = readFile("home/keys.json");
        REQUIRE(log.starts_with("home") ||
                (isJsonObject(store) && store.find("kept") != store.npos));
    }
    const cJSON *const level = cJSON_GetObjectItem(config, "level");
    if (log == "new.log" && (!level || level->valueint <= 3)) {
        REQUIRE(readFile("new.log").find("busManager new\n") != std::string::npos);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    static const TempDir directory;
    REQUIRE(std::freopen("/dev/null", "w", stdout)); // the log of most inputs
    fs::current_path(directory.path());
    fs::create_symlink("/dev/full", "full");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text{reinterpret_cast<const char *>(data), size};
    const Json config{cJSON_Parse(text.c_str())};
    if (!staysInside(config.get(), "path") || !staysInside(config.get(), "homePath")) {
        return -1;
    }
    furnish();
    {
        const RunningBus bus{text};
        const Node node{bus.get(), "node"};
        if (!isShort(config.get())) {
            REQUIRE(node.get());
            checkAnswers(node);
        }
    }
    if (!isShort(config.get())) {
        checkFiles(config.get(), textOf(config.get(), "path"));
    }
    return 0;
}
