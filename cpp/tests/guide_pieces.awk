# Makes a function of each ```cpp block, and a table of them: of those that need the libraries of
# script/setup test, or with libraries=0 of the others. A thread sanitizer does not know GLib's locks.
/^```cpp$/ { inside = 1; line = NR + 1; text = ""; next }
/^```$/ && inside {
    inside = 0
    if ((text ~ /asio::|g_main|json\.hpp|pollfd/) != libraries) next
    guard = text ~ /g_main/ ? "!defined(__SANITIZE_THREAD__)" : "1"
    printf "#if %s\nvoid piece%d(zelvo::Bus &bus, zelvo::Node &lamp, zelvo::Node &panel) {\n", guard, ++count
    printf "#line %d \"docs/cpp.md\"\n%s}\n#endif\n", line, text
    table = table sprintf("#if %s\n    piece%d,\n#endif\n", guard, count)
    next
}
inside { text = text $0 "\n" }
END { printf "constexpr Piece kPieces[] = {\n%s};\n", table }
