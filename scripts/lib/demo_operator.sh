#!/usr/bin/env bash
# An operator elsewhere, run in a sandbox by scripts/demo: nothing leads from here to the back end
# but the port of its API. Expects the CA's certificate, a token, an ssh key and the gateways' host
# keys in /tmp/given.
#
# Usage: demo_operator.sh DEVICE HIDDEN_DEVICE      one device is hers, the other one is not
#        demo_operator.sh --fleet DEVICE...         all are hers
set -euo pipefail
# shellcheck source=SCRIPTDIR/demo_parts.sh
source /project/scripts/lib/demo_parts.sh

readonly GIVEN=/tmp/given
readonly URL=https://$BACKEND_NAME:$API_PORT
readonly WEB_PORT=8081
readonly MIB=16
readonly LOGS="$LOG/operator.log $LOG/api.log"

# No other socket, no other port and no network. The login is refused before there is one.
is_elsewhere() {
    local sockets ports
    sockets=$(find / -xdev -type s 2>/dev/null; find /tmp /relays /home -type s)
    ports=$(awk '$4 == "0A" { print $2 }' /proc/net/tcp | wc -l)
    printf 'sockets %s, ports %s\n' "$sockets" "$ports"
    [ "$sockets" = /relays/api/socket ] && [ "$ports" -eq 1 ] && [ ! -e "$INSTALLED" ] &&
        [ "$(tail -n +3 /proc/net/dev | wc -l)" -eq 1 ] || return 1
    ! remote-access devices
}

log_in() {
    remote-access login $URL --ca "$GIVEN/ca.pem" --token-file "$GIVEN/token" || return 1
    STEP_NOTE=$(remote-access whoami | awk 'NR == 1 { print $2 }')
    [ "$STEP_NOTE" = $OPERATOR ]
}

# The two lines that lead to the gateways are the tool's; key and host keys are from their owner.
set_up_ssh() {
    local lines
    lines=$(remote-access ssh-config 'gw-*') || return 1
    STEP_NOTE=$(tail -n 1 <<<"$lines" | sed 's/^ *//')
    install -d -m 700 "$HOME/.ssh" && cat >"$HOME/.ssh/config" <<END
$lines
Host *
    User gateway
    IdentityFile $GIVEN/login_key
    IdentitiesOnly yes
    UserKnownHostsFile $GIVEN/known_hosts
    StrictHostKeyChecking yes
    BatchMode yes
    LogLevel ERROR
END
}

# lists DEVICE...: exactly these.
lists() {
    local names
    remote-access devices
    mapfile -t names < <(remote-access devices --names)
    STEP_NOTE="${names[*]}"
    [ "${names[*]}" = "$*" ]
}

# answer_about DEVICE: to all that could tell that it exists.
answer_about() {
    local command
    for command in "device $1" "services $1" "can $1/ssh_localhost" "connect $1/ssh_localhost" \
        "disconnect $1" "devices $1"; do
        # shellcheck disable=SC2086 # words
        remote-access $command </dev/null 2>&1 | sed "s/$1/NAME/g"
        printf 'status %s\n' "${PIPESTATUS[0]}"
    done
}

# hidden DEVICE: answered as a device that is not registered, which is no success.
hidden() {
    local answer
    answer=$(answer_about "$1")
    printf '%s\n' "$answer"
    STEP_NOTE=$(head -n 1 <<<"$answer" | sed "s/NAME/$1/; s/^remote-access: //")
    [ "$answer" = "$(answer_about gw-999)" ] && ! grep -qx 'status 0' <<<"$answer" &&
        grep -q 'no device is named' <<<"$STEP_NOTE"
}

# on_each DEVICE...: each answers with its own name.
on_each() {
    local device answer start ms slowest=0 names=()
    for device in "$@"; do
        start=${EPOCHREALTIME/./}
        answer=$(timeout $USE_S ssh "$device" uname -n) || return 1
        names+=("$answer")
        ms=$(((${EPOCHREALTIME/./} - start) / 1000))
        slowest=$((ms > slowest ? ms : slowest))
        printf '%s answered in %d ms\n' "$answer" $ms
    done
    [ "${names[*]}" = "$*" ] || return 1
    STEP_NOTE="$# answers, slowest $slowest ms"
}

# The command's own exit status has to come through, too.
run_command() {
    local status=0
    # shellcheck disable=SC2016 # for the gateway's shell
    STEP_NOTE=$(timeout $USE_S ssh "$1" 'printf "%s" "$(id -un)@$(uname -n)"; exit 7') || status=$?
    [ "$status" -eq 7 ] && [ "$STEP_NOTE" = gateway@gateway ]
}

# copy_both_ways DEVICE: up by sftp, down by scp.
copy_both_ways() {
    local start between sums
    head -c "${MIB}M" /dev/urandom >"$HOME/original"
    start=${EPOCHREALTIME/./}
    timeout $USE_S sftp -b - "$1" <<<"put $HOME/original copy_of_operator" || return 1
    between=${EPOCHREALTIME/./}
    timeout $USE_S scp -q "$1:copy_of_operator" "$HOME/returned" || return 1
    STEP_NOTE="up $(rate $(((between - start) * 1000)) $MIB)"
    STEP_NOTE+=", down $(rate $(((${EPOCHREALTIME/./} - between) * 1000)) $MIB)"
    mapfile -t sums < <(sha256sum "$HOME/original" "$HOME/returned" &&
        ssh "$1" 'sha256sum copy_of_operator; rm copy_of_operator')
    printf '%s\n' "${sums[@]}"
    [ "${#sums[@]}" -eq 3 ] && [ "$(printf '%s\n' "${sums[@]%% *}" | sort -u | wc -l)" -eq 1 ]
}

# fetch_page DEVICE: what the gateway's web server serves is compared with its file over ssh.
fetch_page() {
    local sums status=0
    start forward remote-access forward "$1/http_localhost" $WEB_PORT
    # A connection to find out whether it listens would be a session of its own.
    wait_for $START_S "${PIDS[forward]}" logged forward ' leads to ' || return 1
    timeout $USE_S curl --silent --show-error --fail --noproxy '*' \
        --output "$HOME/page" "http://127.0.0.1:$WEB_PORT/" || status=1
    kill "${PIDS[forward]}"
    wait "${PIDS[forward]}" || true
    STEP_NOTE="$(stat -c %s "$HOME/page") bytes"
    sums=$(sha256sum <"$HOME/page")
    # shellcheck disable=SC2029 # the place is the same there
    [ $status -eq 0 ] && [ "$sums" = "$(ssh "$1" "sha256sum <$MATERIAL/web/index.html")" ]
}

PATH=$PATH:$BIN
mkdir -p "$LOG"
step "$LOGS" "operator's machine made" reach_relay api $API_PORT
step "$LOGS" "nothing leads from it to the back end but the API" is_elsewhere
step "$LOGS" "operator logged in over HTTPS" log_in
step "$LOGS" "lines of ssh-config taken over" set_up_ssh
if [ "$1" = --fleet ]; then
    shift
    step "$LOGS" "devices listed over HTTPS" lists "$@"
    step "$LOGS" "ssh to each by its name, over HTTPS" on_each "$@"
    exit
fi
step "$LOGS" "devices of the operator listed" lists "$1"
step "$LOGS" "the other device does not exist for the operator" hidden "$2"
step "$LOGS" "ssh to the device by its name, over HTTPS" run_command "$1"
step "$LOGS" "sftp and scp of $MIB MiB over HTTPS, SHA-256 equal" copy_both_ways "$1"
step "$LOGS $LOG/forward.log" "web page through a forwarded port, bytes equal" fetch_page "$1"
