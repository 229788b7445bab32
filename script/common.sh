# shellcheck shell=bash
# Sourced by the scripts of this folder and of packaging/check; every path is relative to the root.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

step() { printf -- '-- %s\n' "$*"; }

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# sources [FOLDER...]: the C and C++ files of those of the folders that exist, by default of all.
sources() {
    (($#)) || set -- src tools cpp tests examples bench fuzz bridges apps
    local folder
    for folder in "$@"; do
        [[ ! -d $folder ]] || find "$folder" -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.c'
    done | sort
}

# build_preset PRESET [CONFIGURE-OPTION...]: configures and builds build/PRESET.
build_preset() {
    local preset=$1
    shift
    step "configure build/$preset"
    cmake --preset "$preset" "$@" --log-level=WARNING >/dev/null
    step "build build/$preset"
    cmake --build "build/$preset" --parallel "$(nproc)"
}
