# Makes a function of each ```cpp block, and a table of them.
/^```cpp$/ { inside = 1; printf "void piece%d(zelvo::Bus &bus, zelvo::Node &lamp, zelvo::Node &panel) {\n", ++count; print "#line " NR + 1 " \"docs/cpp.md\""; next }
/^```$/ && inside { inside = 0; print "}"; next }
inside { print }
END {
    print "constexpr Piece kPieces[] = {"
    for (i = 1; i <= count; ++i) print "    piece" i ","
    print "};"
}
