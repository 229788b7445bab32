#!/bin/sh
# wrong_uses.sh COMPILER INCLUDE SOURCE: compiles the source without its wrong lines, then with them:
# that has to give one error for each, with the text that stands beside it, and no warning.
set -u
compiler=$1 include=$2 source=$3

# Reads a source.
compile() {
    "$compiler" -std=c++17 -fsyntax-only -I "$include" -x c++ - 2>&1
}

grep -v '// wrong: ' "$source" | compile || exit 1
said=$(compile <"$source")
wanted=$(grep -c '// wrong: ' "$source")
given=$(printf '%s\n' "$said" | grep -c 'error:\|warning:')
sed -n 's,.*// wrong: ,,p' "$source" | {
    status=0
    while IFS= read -r words; do
        printf '%s\n' "$said" | grep 'error:' | grep -qF "$words" || {
            echo "no error says: $words"
            status=1
        }
    done
    exit $status
} && [ "$given" -eq "$wanted" ] && exit 0
printf '%s errors, %s wanted:\n%s\n' "$given" "$wanted" "$said"
exit 1
