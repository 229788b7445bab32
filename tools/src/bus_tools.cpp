#include "bus_tools.h"

#include <chrono>

namespace bus {

double clock_gettimestamp() noexcept {
    using namespace std::chrono;
    const auto now = floor<milliseconds>(steady_clock::now().time_since_epoch());
    return static_cast<double>(now.count()) / 1000.0;
}

} // namespace bus
