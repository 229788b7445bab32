# shellcheck shell=bash
# Sourced by the scripts of this folder. $work is a folder of the script's own.
source "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# write_example FOLDER: example.c and example.cpp, the README's first ```c block.
write_example() {
    awk '/^```c$/ { inside = 1; next } inside && /^```$/ { exit } inside' README.md >"$1/example.c"
    [[ -s $1/example.c ]] || fail "README.md has no \`\`\`c block"
    cp "$1/example.c" "$1/example.cpp"
}

# check_output PROGRAM [LIBRARY-FOLDER]: the example prints what the file `expected` holds.
check_output() {
    LD_LIBRARY_PATH=${2:-} timeout 60 "$1" >"$work/output" || fail "$1 failed: $?"
    diff -u tests/package/expected "$work/output" || fail "$1: other output than expected"
}
