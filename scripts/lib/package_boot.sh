#!/bin/bash
# Runs inside a booted root with the packages installed, as root; the packages' test starts it.
# Every line of its report begins with "ok" or "FAILED"; the machine is then switched off.
# shellcheck disable=SC2317 # functions are called by check
exec >/root/report 2>/root/details
set -x

check() {
    local text=$1
    shift
    if "$@" >&2; then printf 'ok      %s\n' "$text"; else printf 'FAILED  %s\n' "$text"; fi
}
verify() { remote-access verify gw-001 root --password-stdin <<<"$1"; }
# As the unit starts it: a fresh one each time, after a delay of 5 s and up to 31 s more.
comes_back() { remote-access-ctl wait --connected --timeout 60; }
kill_daemon() { kill -KILL "$(systemctl show -P MainPID remote-access-daemon)" && sleep 1; }
gave_up() { journalctl -u remote-access-daemon | grep -q 'service exit!'; }
lose_back_end() {
    systemctl stop remote-access-backend
    for _ in {1..15}; do gave_up && break; sleep 1; done
    gave_up && systemctl start remote-access-backend
}
restarted() { [ "$(systemctl show -P NRestarts remote-access-daemon)" -ge 1 ]; }
audited() {
    grep -q '"service":"ssh_localhost".*"reason":"refused: code 101671' \
        /var/log/remote-access/audit.json
}
as_operator() { runuser -u op -- "$@"; }
elsewhere() { as_operator env XDG_CONFIG_HOME=/tmp/op remote-access "$@"; }
logs_in() {
    elsewhere login https://localhost:8443 --ca /srv/made/ca.pem \
        --token-file /srv/made/operator.token &&
        elsewhere --server https://localhost:8443 devices | grep gw-001
}
in_use() { remote-access-ctl sessions | grep ssh_localhost; }
# The service takes connections and says nothing.
session_opens() {
    systemd-socket-activate --listen=127.0.0.1:22 --accept --inetd cat &
    sleep 1
    sleep infinity | as_operator remote-access connect gw-001/ssh_localhost &
    for _ in {1..10}; do in_use && return; sleep 1; done
    return 1
}
session_ends() {
    as_operator bash -c 'kill -KILL -1'
    for _ in {1..10}; do in_use || return 0; sleep 1; done
    return 1
}
upgrade() { # COMPARISON: of the daemon's process before and after
    local before after
    before=$(systemctl show -P MainPID remote-access-daemon)
    dpkg -i /packages/daemon.deb && after=$(systemctl show -P MainPID remote-access-daemon) &&
        [ "$before" -gt 0 ] && test "$before" "$1" "$after"
}
upgrade_without_bus() {
    systemctl stop gateway-bus
    upgrade -eq
    local status=$?
    systemctl start gateway-bus && comes_back && return $status
}
# As the guide has it for a gateway with a bus of its own, whose rules come after the installation.
installs_masked() {
    systemctl mask --runtime --now remote-access-daemon && dpkg -i /packages/daemon.deb &&
        ! systemctl is-active remote-access-daemon &&
        systemctl unmask --runtime remote-access-daemon && systemctl start remote-access-daemon
}
bus_folders_are_roots() {
    [ "$(stat -c '%U %a' /tmp/var{,/run{,/mbusd}} | sort -u)" = 'root 755' ]
}
back_end_reloads() {
    systemctl reload remote-access-backend && sleep 1 &&
        journalctl -u remote-access-backend | grep 'files read again'
}
refused() { ! remote-access connect gw-001/ssh_localhost </dev/null; }
stops_at_once() {
    timeout 2 systemctl stop remote-access-daemon && ! systemctl is-active remote-access-daemon
}

check "the folders of the bus are root's" bus_folders_are_roots
systemctl start gateway-config remote-access-backend
systemctl restart remote-access-daemon
check "the units work together: channel up" remote-access-ctl wait --connected --timeout 20
check "the doctor finds no failure" remote-access-ctl doctor
check "the daemon can check a password" verify right
check "a wrong password is refused" eval '! verify wrong'
check "a session to nobody is refused" refused
check "and audited" audited
check "an operator may ask the back end" as_operator remote-access devices
check "and log in over HTTPS" logs_in
check "and read no secret" as_operator test ! -r /etc/remote-access/devices.json
check "a session opens" session_opens
check "an upgrade leaves the daemon that carries it alone" upgrade -eq
check "the session ends" session_ends
check "an upgrade that cannot ask for sessions restarts nothing" upgrade_without_bus
check "an upgrade restarts a daemon without sessions" upgrade -ne
check "it came back" comes_back
check "the back end reads its files again" back_end_reloads
check "the daemon was killed" kill_daemon
check "it came back" comes_back
check "six failed openings ended it" lose_back_end
check "it came back by itself" comes_back
check "systemd counts restarts" restarted
check "a masked daemon is not started by its package" installs_masked
check "it came back" comes_back
check "it stops at once" stops_at_once
poweroff
