#include "bus_mk_str.h"

#include <cstring>

char *bus_mk_strdup(const char *data) noexcept {
    if (!data) {
        return nullptr;
    }
    const std::size_t size = std::strlen(data) + 1;
    auto *const copy = static_cast<char *>(std::malloc(size));
    if (copy) {
        std::memcpy(copy, data, size);
    }
    return copy;
}
