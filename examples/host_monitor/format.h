// How figures are written.
#ifndef HOST_MONITOR_FORMAT_H
#define HOST_MONITOR_FORMAT_H

#include <cstdio>
#include <string>

// With one decimal, as JSON takes it too.
inline std::string oneDecimal(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

#endif
