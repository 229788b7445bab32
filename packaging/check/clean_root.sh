# shellcheck shell=bash
# Sourced: a root of its own with nothing but a minimal Debian, in $clean, a folder outside the tree that
# goes with the script. A tar file in build/ spares the next one Debian's servers. Needs has_root.
clean=
PATH=$PATH:/usr/sbin:/sbin # where a shell of root's that is no login has none

remove_root() {
    [[ -z $clean ]] || as_root rm -rf --one-file-system "$clean"
}

# make_root: the root of this Debian, once for a script; removed by remove_root.
make_root() {
    local archive release
    release=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    archive=$root/build/clean-root-$release.tar
    clean=$(mktemp -d -p /var/tmp zelvo-root.XXXXXX)
    if [[ ! -e $archive ]]; then
        script/setup root
        step "make a clean root"
        as_root debootstrap --variant=minbase "$release" "$clean" http://deb.debian.org/debian \
            >"$work/log" 2>&1 || {
            tail -n 20 "$work/log"
            fail "debootstrap failed"
        }
        mkdir -p build
        as_root tar -C "$clean" -c . >"$archive.new"
        mv "$archive.new" "$archive"
    else
        as_root tar -C "$clean" -x -p -f "$archive"
    fi
    as_root chmod 755 "$clean"
    as_root cp -L /etc/resolv.conf /etc/hosts "$clean/etc"
    as_root chmod 1777 "$clean/dev/shm"
}

# inside COMMAND...: as root in the clean root, with processes of its own, none of which outlives it, and
# terminals of its own where the system allows it. A root that is no mount of its own, as that of a
# container can be, has no propagation to change.
inside() {
    local propagation=private
    as_root unshare --mount true 2>/dev/null || propagation=unchanged
    # shellcheck disable=SC2016 # for the shell inside
    as_root unshare --mount --propagation "$propagation" --pid --fork --kill-child \
        --mount-proc="$clean/proc" sh -c '
            mount -t devpts -o newinstance,ptmxmode=666 devpts "$0/dev/pts" 2>/dev/null
            exec chroot "$0" env -i LC_ALL=C.UTF-8 HOME=/root DEBIAN_FRONTEND=noninteractive \
                PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"' "$clean" "$@"
}

# logged COMMAND...: inside; its output only where it fails.
logged() {
    inside "$@" >"$work/log" 2>&1 || {
        tail -n 40 "$work/log"
        fail "in the clean root: $*"
    }
}
