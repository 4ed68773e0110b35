# shellcheck shell=bash
# Installs the operators' package in a fresh root of each Debian that it is for, and logs in from
# there to a back end of this machine over HTTPS. Needs root.sh, suites.sh, and check and package_of
# of scripts/test-packages.

# start_back_end FOLDER: of the package in build/packages. Leaves BACK_END_PID and BACK_END_URL.
start_back_end() {
    local program=$1/usr/sbin/remote_access_backend port=''
    dpkg-deb --extract "$(package_of backend "$(suite_of_host)")" "$1" || return
    "$program" --listen 127.0.0.1:0 --api 127.0.0.1:0 init "$1/made" --operator anna &&
        "$program" --config "$1/made/backend.conf" device add gw-001 --product demo || return
    "$program" --config "$1/made/backend.conf" 2>"$1/back-end.log" &
    BACK_END_PID=$!
    for _ in {1..50}; do
        port=$(sed -nE 's/.*interface for operators ready on 127.*:([0-9]+)$/\1/p' \
            "$1/back-end.log")
        [ -z "$port" ] || break
        sleep 0.1
    done
    BACK_END_URL=https://localhost:$port
    [ -n "$port" ] || { cat "$1/back-end.log"; return 1; }
}

operator_root() { # SUITE ROOT
    bare_root "$1" "$2" && in_root "$2" apt-get update
}

# With what looks for the completions and shows the manual.
install_operator() { # ROOT PACKAGE
    cp "$2" "$1/root/operator.deb" &&
        in_root "$1" apt-get install --yes --no-install-recommends /root/operator.deb \
            bash-completion zsh man-db
}

# From nothing but the files that an administrator gives.
logs_in() { # ROOT FOLDER
    cp "$2"/made/{ca.pem,operator.token} "$1/root/" || return
    in_root "$1" HOME=/root remote-access login "$BACK_END_URL" --ca /root/ca.pem \
        --token-file /root/operator.token &&
        in_root "$1" HOME=/root remote-access devices >"$2/devices" && cat "$2/devices" &&
        grep -q gw-001 "$2/devices" && in_root "$1" HOME=/root remote-access can gw-001
}

# A wrong token, and a certificate that is not trusted, are refused with status 1.
refuses() { # ROOT
    echo rat_wrong >"$1/root/wrong.token"
    local status=0
    in_root "$1" HOME=/root/nobody remote-access login "$BACK_END_URL" --ca /root/ca.pem \
        --token-file /root/wrong.token || status=$?
    [ "$status" = 1 ] || return 1
    status=0
    in_root "$1" HOME=/root/nobody remote-access login "$BACK_END_URL" \
        --token-file /root/operator.token || status=$?
    [ "$status" = 1 ]
}

# shellcheck disable=SC2016 # expanded in the root
completes() { # ROOT
    in_root "$1" bash -c '. /usr/share/bash-completion/bash_completion
        { _comp_load remote-access || _completion_loader remote-access; } 2>/dev/null
        complete -p remote-access' &&
        in_root "$1" zsh -fc 'autoload -U compinit && compinit -D &&
            [[ $_comps[remote-access] = _remote-access ]] && autoload +X _remote-access'
}

shows_manual() { # ROOT
    in_root "$1" MANPAGER=cat MAN_KEEP_FORMATTING= man --warnings=w remote-access >"$1/root/page" \
        2>"$1/root/remarks" && ! grep . "$1/root/remarks" &&
        grep -q 'ProxyCommand\|login' "$1/root/page"
}

# What it brought is gone; the login is its user's.
leaves_nothing() { # ROOT
    in_root "$1" dpkg -L remote-access-operator >"$1/root/listed" &&
        in_root "$1" apt-get purge --yes remote-access-operator || return
    local path
    while read -r path; do
        [ -d "$1$path" ] && [[ $path != *remote-access* ]] && continue
        [ ! -e "$1$path" ] || { printf 'left: %s\n' "$path"; return 1; }
    done <"$1/root/listed"
    ! find "$1" -xdev \( -path "$1/root" -o -path "$1/var/cache/man" \) -prune -o \
        -name '*remote*access*' -print | grep .
}

check_operator_roots() { # SUITE...: whose packages are built
    local suite root=$PWD/build/operator-root package folder
    folder=$(mktemp -d)
    check "back end started for operators" start_back_end "$folder"
    for suite in "$@"; do
        package=$(package_of operator "$suite")
        check "$suite: root made" operator_root "$suite" "$root"
        check "$suite: installed" install_operator "$root" "$package"
        check "$suite: the tool has the version" test \
            "$(in_root "$root" remote-access --version)" = "remote-access $(project_version)"
        check "$suite: it helps" in_root "$root" remote-access --help
        check "$suite: logs in, and lists the devices" logs_in "$root" "$folder"
        check "$suite: refused with a wrong token, and refuses an unknown authority" refuses "$root"
        check "$suite: bash and zsh complete" completes "$root"
        check "$suite: the manual is shown" shows_manual "$root"
        check "$suite: removed without a trace" leaves_nothing "$root"
        rm -rf "$root"
    done
    kill "$BACK_END_PID"
    BACK_END_PID=''
    rm -rf "$folder"
}
