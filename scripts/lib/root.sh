# shellcheck shell=bash
# Fresh roots of Debian, of any suite, below build/. Needs root, debootstrap and suites.sh.

# debian_mirror: where this machine gets its own suite from.
debian_mirror() {
    # shellcheck disable=SC2016 # expanded by apt-get
    apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' \
        "Codename: $(suite_of_host)" | head -n 1
}

# bare_root SUITE ROOT [DEBOOTSTRAP_OPTION...]: replaces ROOT. Its packages start no service.
bare_root() {
    local suite=$1 root=$2
    shift 2
    rm -rf "$root"
    debootstrap --variant=minbase "$@" "$suite" "$root" "$(debian_mirror)" &&
        cp /etc/resolv.conf "$root/etc/" && printf '127.0.0.1 localhost\n' >"$root/etc/hosts" &&
        printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d" &&
        chmod 755 "$root/usr/sbin/policy-rc.d"
}

# in_root ROOT COMMAND...: with its own processes and mounts, and the machine's network.
in_root() {
    local root=$1
    shift
    unshare --mount --pid --fork --mount-proc="$root/proc" \
        chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"
}

# suite_build_root SUITE PACKAGE...: build/root-SUITE with the packages, where it stays until their
# list changes. A suite for operators alone has no library that reads command lines: it takes this
# machine's, which is headers only.
suite_build_root() {
    local suite=$1 root=$PWD/build/root-$1 wanted
    shift
    wanted="$*"
    [ "$(cat "$root/made-for" 2>/dev/null)" != "$wanted" ] || return 0
    printf 'making a root of %s in %s\n' "$suite" "$root"
    bare_root "$suite" "$root" >"$root.log" 2>&1 || { tail -n 25 "$root.log"; return 1; }
    if [ "$(packages_for "$suite")" = operator ]; then
        printf 'deb %s %s main\n' "$(debian_mirror)" "$(suite_of_host)" \
            >"$root/etc/apt/sources.list.d/host.list"
        printf 'Package: %s\nPin: release n=%s\nPin-Priority: %d\n\n' \
            '*' "$(suite_of_host)" -1 libcli11-dev "$(suite_of_host)" 500 \
            >"$root/etc/apt/preferences.d/host"
    fi
    { in_root "$root" apt-get update &&
        in_root "$root" apt-get install --yes --no-install-recommends "$@"; } >"$root.log" 2>&1 ||
        { tail -n 25 "$root.log"; return 1; }
    printf '%s\n' "$wanted" >"$root/made-for"
}

# in_suite SUITE NAME=VALUE... COMMAND...: in build/root-SUITE, in this project's tree, whose build
# folder is build/SUITE there.
in_suite() {
    local suite=$1 root=$PWD/build/root-$1
    shift
    mkdir -p "$root/source" "$PWD/build/$suite"
    # shellcheck disable=SC2016 # expanded by the inner shell
    unshare --mount --pid --fork --mount-proc="$root/proc" sh -e -c '
        mount --bind "$1" "$2/source" && mount --bind "$1/build/$3" "$2/source/build"
        root=$2 && shift 3
        exec chroot "$root" /usr/bin/env -i -C /source PATH=/usr/sbin:/usr/bin:/sbin:/bin \
            DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"' \
        in_suite "$PWD" "$root" "$suite" "$@"
}
