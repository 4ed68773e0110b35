# shellcheck shell=bash
# A gateway's file system, network and processes of its own, over the host's /usr, for root and for
# ordinary users alike. Many run side by side; nothing outside their directory is written, and they
# end with who started them.

umask 022 # a bus in folders that others may change is not used
readonly SANDBOX_ID=1000 # whoever starts it is the user "gateway" inside

# SANDBOX_HOSTS are more names of its own, SANDBOX_NAME is its host name.

# sandbox_create DIR: makes what the inside sees of DIR: tmp, brimlock, home and etc.
sandbox_create() {
    local dir=$1
    mkdir -p "$dir"/{tmp,brimlock,home,etc/alternatives}
    cat >"$dir/etc/passwd" <<END
root:x:0:0:root:/root:/usr/sbin/nologin
gateway:x:$SANDBOX_ID:$SANDBOX_ID:gateway:/home/gateway:/bin/bash
END
    printf 'root:x:0:\ngateway:x:%s:\n' "$SANDBOX_ID" >"$dir/etc/group"
    # No password, but not locked either: sshd refuses locked accounts.
    printf 'root:*:19000:0:99999:7:::\ngateway:*:19000:0:99999:7:::\n' >"$dir/etc/shadow"
    chmod 600 "$dir/etc/shadow"
    printf '127.0.0.1 localhost gateway %s\n' "${SANDBOX_HOSTS:-}" >"$dir/etc/hosts"
    printf '%s\n' 'passwd: files' 'group: files' 'shadow: files' 'hosts: files' \
        >"$dir/etc/nsswitch.conf"
}

# sandbox_exec DIR [BWRAP_OPTION...] -- COMMAND...: takes this shell's place.
sandbox_exec() {
    local dir=$1 options=()
    shift
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    shift
    exec bwrap --die-with-parent --new-session \
        --unshare-user --uid "$SANDBOX_ID" --gid "$SANDBOX_ID" \
        --unshare-net --unshare-pid --unshare-ipc --unshare-uts \
        --hostname "${SANDBOX_NAME:-gateway}" \
        --ro-bind /usr /usr --symlink usr/bin /bin --symlink usr/sbin /sbin \
        --symlink usr/lib /lib --symlink usr/lib64 /lib64 \
        --proc /proc --dev /dev \
        --ro-bind "$dir/etc" /etc --ro-bind-try /etc/alternatives /etc/alternatives \
        --bind "$dir/tmp" /tmp --bind "$dir/brimlock" /brimlock --bind "$dir/home" /home/gateway \
        "${options[@]}" \
        --clearenv --setenv PATH /usr/sbin:/usr/bin --setenv HOME /home/gateway \
        --setenv LC_ALL C.UTF-8 --chdir / -- "$@"
}
