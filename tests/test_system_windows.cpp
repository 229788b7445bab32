#include "test_support.h"

bool asNobody(const Body & /*body*/) {
    return false;
}

bool withFullDisk(std::size_t /*size*/, const Body & /*body*/) {
    return false;
}
