# shellcheck shell=bash
# Installs Debian packages, only those that are missing.

# missing_packages NAME...: prints those that are not installed.
missing_packages() {
    local name
    for name in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null)" = installed ] ||
            printf '%s\n' "$name"
    done
}

# Run as root with the packages as arguments. Services of the packages are neither started now nor
# at the next boot: a machine on which this is tried out needs no sshd on port 22.
# shellcheck disable=SC2016 # expanded by the shell that runs it
readonly INSTALL_AS_ROOT='
set -e
export DEBIAN_FRONTEND=noninteractive
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    trap "rm -f $policy" EXIT
    printf "#!/bin/sh\nexit 101\n" >"$policy"
    chmod 755 "$policy"
fi
install() {
    apt-get -o DPkg::Lock::Timeout=120 install --yes --no-install-recommends "$@"
}
# Without package lists, or with old ones, the first attempt fails.
install "$@" || { apt-get update && install "$@"; }
# systemd itself is needed for its tools; its own units stay enabled.
others=()
for package in "$@"; do [ "$package" = systemd ] || others+=("$package"); done
if command -v systemctl >/dev/null && [ ${#others[@]} -gt 0 ]; then
    dpkg -L "${others[@]}" |
        sed -nE "s#^(/usr)?/lib/systemd/system/([^/@]+\.(service|socket))\$#\2#p" |
        sort -u | xargs --no-run-if-empty systemctl --quiet disable || true
fi
'

# install_packages NAME...: as root, or through sudo.
install_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    printf 'installing %s\n' "${missing[*]}"
    if [ "$(id -u)" -eq 0 ]; then
        bash -c "$INSTALL_AS_ROOT" install "${missing[@]}"
    elif command -v sudo >/dev/null; then
        sudo bash -c "$INSTALL_AS_ROOT" install "${missing[@]}"
    else
        printf 'These packages are missing, and only root or sudo can install them:\n  %s\n' \
            "${missing[*]}" >&2
        return 1
    fi
}
