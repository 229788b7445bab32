# shellcheck shell=bash
# Sourced by the scripts of this folder and of packaging/check; every path is relative to the root.
# With --help each prints its own head and does nothing.
set -euo pipefail

case ${1:-} in
-h | --help)
    sed -n '2,/^[^#]/ { s/^# \{0,1\}//p }' "$0"
    exit
    ;;
esac

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

step() { printf -- '-- %s\n' "$*"; }

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# Whether as_root can do anything; sudo may ask for a password.
has_root() { ((EUID == 0)) || { command -v sudo >/dev/null && sudo true; }; }

# as_root COMMAND...: as root or with sudo.
as_root() {
    if ((EUID == 0)); then
        "$@"
    else
        sudo "$@"
    fi
}

# by_administrator WHY COMMAND: fails with the line for somebody who is root.
by_administrator() {
    fail "$1 needs root's rights, and sudo gives none. An administrator can run this line:
$2"
}

# project_version: that of CMakeLists.txt.
project_version() { sed -n 's/^project(Zelvo VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt; }

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
