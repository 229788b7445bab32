#include "test_system.h"

// Handles have no limit of their own here.
bool withoutFiles(const Body & /*body*/) {
    return false;
}

bool asNobody(const Body & /*body*/) {
    return false;
}

bool withFullDisk(std::size_t /*size*/, const Body & /*body*/) {
    return false;
}

bool whileKilled(int /*times*/, const Body & /*work*/, const Body & /*look*/) {
    return false;
}
