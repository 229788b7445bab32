// The little JSON that this example writes.
#ifndef HOST_MONITOR_JSON_H
#define HOST_MONITOR_JSON_H

#include <cstdio>
#include <string>
#include <string_view>

// text as a JSON string, with its quotes.
inline std::string jsonString(std::string_view text) {
    std::string json = "\"";
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
            json += code;
        } else {
            json += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
        }
    }
    return json + '"';
}

// value as a JSON number with one decimal.
inline std::string jsonNumber(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

#endif
