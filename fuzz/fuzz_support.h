// What the fuzzers share.
#ifndef ZELVO_FUZZ_SUPPORT_H
#define ZELVO_FUZZ_SUPPORT_H

#include "running.h"

#include <cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// An input that violates one is reported and kept, as one that crashes.
#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "violated: %s\n", #condition);                                    \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

struct JsonDelete {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

// Whatever follows it.
inline bool isJsonObject(const std::string &text) {
    const Json json{cJSON_Parse(text.c_str())};
    return cJSON_IsObject(json.get());
}

// A call that has to be answered.
inline std::string answered(const Node &node, const std::string &url,
                            const std::string &data = {}) {
    const char *const text =
        busClientCall(node.get(), url.c_str(), data.empty() ? nullptr : data.data(),
                      static_cast<int>(data.size()));
    REQUIRE(text);
    return text;
}

#endif
