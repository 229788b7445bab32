# shellcheck shell=bash
# Sourced by the scripts of this folder. $work is a folder of the script's own.
source "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# write_examples FOLDER: the program in C as example.c and example.cpp, and the README's first in C++ as
# face.cpp.
write_examples() {
    cp examples/lamp.c "$1/example.c"
    cp examples/lamp.c "$1/example.cpp"
    awk '/^```cpp$/ { inside = 1; next } inside && /^```$/ { exit } inside' README.md >"$1/face.cpp"
    [[ -s $1/face.cpp ]] || fail "README.md has no program in C++"
}

# compare_output SOURCE OUTPUT: the program of a source has printed what it should.
compare_output() {
    local expected=packaging/check/expected
    [[ $1 != */face.cpp ]] || expected+=_cpp
    diff -u "$expected" "$2" || fail "the program of $1: other output than expected"
}

# check_output PROGRAM SOURCE [LIBRARY-FOLDER]: runs a program.
check_output() {
    (cd "$work" && LD_LIBRARY_PATH=${3:-} timeout 60 "$1") >"$work/output" || fail "$1 failed: $?"
    compare_output "$2" "$work/output"
}
