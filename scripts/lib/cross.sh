# shellcheck shell=bash
# A cross compiler and, apart from the host's packages, the target's libraries. Needs install.sh,
# packages.sh and architectures.sh.

# sysroot_apt ARCHITECTURE STATE ARGUMENT...: apt-get with the host's sources, and with a state of
# its own: the host's architectures and lists stay as they are, and its versions need not be the
# target's.
sysroot_apt() {
    local architecture=$1 state=$2
    shift 2
    apt-get --quiet=2 -o APT::Architecture="$architecture" -o APT::Architectures="$architecture" \
        -o Dir::State="$state" -o Dir::State::status="$state/status" -o Dir::Cache="$state" \
        -o APT::Sandbox::User="$(id -un)" "$@"
}

# sysroot_unpack PACKAGE ROOT: its files, and its entry in a dpkg database from which dpkg-shlibdeps
# and dpkg-query find where a library comes from. No script of the package is run.
sysroot_unpack() {
    local package=$1 root=$2 info=$2/var/lib/dpkg/info name control file
    control=$(mktemp -d)
    dpkg-deb --control "$package" "$control"
    name=$(dpkg-deb --field "$package" Package)
    if grep -qx 'Multi-Arch: same' "$control/control"; then
        name+=:$(dpkg-deb --field "$package" Architecture)
    fi
    # Settings of the target are left out: qemu-user would show them in place of the machine's.
    dpkg-deb --fsys-tarfile "$package" |
        tar --extract --directory "$root" --keep-directory-symlink --no-same-owner \
            --exclude=./etc --exclude=./usr/share/doc
    # Libraries are found below the root, so the lists have their places there.
    dpkg-deb --fsys-tarfile "$package" | tar --list |
        sed "s#^\.#$root#; s#^$root/lib/#$root/usr/lib/#; s#/\$##" >"$info/$name.list"
    for file in shlibs symbols; do
        [ ! -e "$control/$file" ] || cp "$control/$file" "$info/$name.$file"
    done
    { sed '/^Package:/a Status: install ok installed' "$control/control" && echo; } \
        >>"$root/var/lib/dpkg/status"
    rm -r "$control"
}

# make_sysroot ARCHITECTURE ROOT PACKAGE...: ROOT is absolute. What the packages bring and depend
# on.
make_sysroot() {
    local architecture=$1 root=$2 new=$2.new state=$2.apt package link
    shift 2
    rm -rf "$root" "$new" "$state"
    mkdir -p "$state"/{lists/partial,archives/partial} "$new"/{var/lib/dpkg/info,usr/lib}
    ln -s usr/lib "$new/lib"
    : >"$state/status"
    echo 1 >"$new/var/lib/dpkg/info/format"
    # A mirror may be half synchronised for one architecture; what the other lists have is enough to
    # link with.
    sysroot_apt "$architecture" "$state" update ||
        printf 'going on with the lists that could be had\n'
    sysroot_apt "$architecture" "$state" install --yes --download-only --no-install-recommends "$@"
    for package in "$state"/archives/*.deb; do sysroot_unpack "$package" "$new"; done
    find "$new/usr/lib" -type l -lname '/*' -print0 |
        while IFS= read -r -d '' link; do ln -sfr "$new$(readlink "$link")" "$link"; done
    sed -i "s#^$new/#$root/#" "$new"/var/lib/dpkg/info/*.list
    rm -r "$state"
    mv "$new" "$root"
}

# install_cross_packages ARCHITECTURE: the compiler, and the libraries in
# build/sysroot-ARCHITECTURE, where they stay until their list changes.
install_cross_packages() {
    local root=$PWD/build/sysroot-$1 wanted
    wanted="$root ${PACKAGES_SYSROOT[*]}" # the place, too: the database contains it
    install_packages "${PACKAGES_CROSS[@]}" "g++-$(triplet_of "$1" | tr _ -)"
    [ "$(cat "$root/made-for" 2>/dev/null)" != "$wanted" ] || return 0
    printf 'getting the libraries of %s\n' "$1"
    make_sysroot "$1" "$root" "${PACKAGES_SYSROOT[@]}"
    printf '%s\n' "$wanted" >"$root/made-for"
}

# emulator_of ARCHITECTURE: qemu-user's command with the folder of the target's libraries; nothing
# for this machine's own.
emulator_of() {
    [ "$1" = "$(dpkg --print-architecture)" ] ||
        printf '/usr/bin/%s -L %s\n' "$(emulator_program_of "$1")" "$PWD/build/sysroot-$1"
}

# packed_programs ARCHITECTURE FOLDER: a build folder for the end-to-end tests with the programs of
# the packages in build/packages. Scripts that start the emulator replace the
# gateway's modules; the tests do that for the daemon and its tool, whose place matters.
packed_programs() {
    local architecture=$1 folder=$2 program
    rm -rf "$folder"
    mkdir -p "$folder/bin"
    for program in build/packages/remote-access-{daemon,gateway-dev}_*_"$architecture.deb"; do
        dpkg-deb --extract "$program" "$folder/tree"
    done
    cp "$folder"/tree/brimlock/gateway/build/bin/* "$folder"/tree/usr/bin/* "$folder/bin/"
    for program in "$folder"/tree/usr/lib/remote-access-gateway-dev/*; do
        printf '#!/bin/sh\nexec %s "$@"\n' "$(emulator_of "$architecture") $program" \
            >"$folder/bin/${program##*/}"
        chmod 755 "$folder/bin/${program##*/}"
    done
}
