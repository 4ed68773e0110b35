#!/usr/bin/env bash
# The inside of the demonstration, run in a sandbox by scripts/demo: starts a gateway, an MQTT
# broker and a back end, uses the tunnel between them, and controls it from both sides. Then it
# stays for the operator elsewhere, until it is ended.
#
# Usage: demo_gateway.sh [stay]
set -euo pipefail
# shellcheck source=SCRIPTDIR/demo_parts.sh
source /project/scripts/lib/demo_parts.sh

readonly DAEMON_NAME=iot.gateway.remote_access_daemon
readonly DAEMON_PATH=/iot/gateway/remote_access_daemon
readonly DEVICE=gw-001 HIDDEN_DEVICE=gw-002 VERSION=1.0.0
readonly TOPICS=/sys/$PRODUCT_KEY/$DEVICE/edge
readonly WEB_PORT=8080 BROKER_PORT=1883 KEEPER_PORT=4622 # what listens
readonly SSH_PORT=2022 SFTP_PORT=2023 HTTP_PORT=2080     # the tunnel's ends on the back end's side
readonly SWITCH_S=5                                      # how long a switch may take
readonly WATCHED_S=21 # longer than a watched thread may be silent
readonly MIB=64
readonly COPY_KBIT=200000 # rate of a copy that is to take some seconds
readonly LOG_TUNNEL="$LOG/clients.log $LOG/daemon.log $LOG/backend.log"
readonly LOG_CONTROL="$LOG/control.log $LOG/daemon.log $LOG/mqtt_bridge.log"

make_ssh_keys() {
    ssh-keygen -q -t ed25519 -N '' -C demo -f "$MATERIAL/host_key" &&
        ssh-keygen -q -t ed25519 -N '' -C demo -f "$MATERIAL/login_key" || return 1
    cp "$MATERIAL/login_key.pub" "$MATERIAL/authorized_keys"
    local host
    for host in "[127.0.0.1]:"{$SSH_PORT,$SFTP_PORT,$SSHD_PORT} $DEVICE; do
        printf '%s %s\n' "$host" "$(cat "$MATERIAL/host_key.pub")"
    done >"$MATERIAL/known_hosts"
    write_sshd_configuration
    install -d -m 700 "$HOME/.ssh"
    cat >"$HOME/.ssh/config" <<END
Host *
User gateway
IdentityFile $MATERIAL/login_key
IdentitiesOnly yes
UserKnownHostsFile $MATERIAL/known_hosts
StrictHostKeyChecking yes
BatchMode yes
ConnectTimeout 10
LogLevel ERROR
END
}

# What the gateway is told, and what it offers.
write_configuration() {
    # The gateway stays connected to the broker; remote access starts closed and is opened from the
    # cloud or over the bus.
    (umask 077 && { cat "/tmp/settings/$DEVICE" && echo gw_system_cloud_long_connection=1; } \
        >"$CONFIG/gateway.conf") && cp "$INSTALLED/ca.pem" "$CONFIG/ca.pem" || return 1
    cat >"$CONFIG/remote_terminal.json" <<END
[{"type":"KEEPER","name":"keeper","ip":"127.0.0.1","port":$KEEPER_PORT},
 {"type":"SSH","name":"ssh_localhost","ip":"127.0.0.1","port":$SSHD_PORT},
 {"type":"SFTP","name":"sftp_localhost","ip":"127.0.0.1","port":$SSHD_PORT},
 {"type":"HTTP","name":"http_localhost","ip":"127.0.0.1","port":$WEB_PORT}]
END
    # No SPECIFICATION file: an installation of unknown edition describes itself to the cloud.
    printf '%s' "$VERSION" >"$CONFIG/../VERSION"
    cat >"$MATERIAL/broker.conf" <<END
listener $BROKER_PORT 127.0.0.1
allow_anonymous true
persistence false
END
}

prepare() {
    make_ssh_keys && write_configuration &&
        head -c 100000 /dev/urandom | base64 >"$MATERIAL/web/index.html" &&
        head -c "${MIB}M" /dev/urandom >"$MATERIAL/original"
}

# Two devices, of which the operator elsewhere may know one.
install_for_demo() {
    install_backend "$DEVICE" "$HIDDEN_DEVICE" && admit_operator "$DEVICE" || return 1
    STEP_NOTE="devices $(administer device list | paste -sd ' '), $OPERATOR may use $DEVICE"
}

start_watchdog() {
    start watchdog "$BIN/gateway_watchdog" --bus "unix:path=$BUS_SOCKET"
    wait_for $START_S "${PIDS[watchdog]}" logged watchdog 'watching the feeds'
}

start_broker() {
    start broker mosquitto -c "$MATERIAL/broker.conf"
    wait_for $START_S "${PIDS[broker]}" listens $BROKER_PORT
}

start_mqtt_bridge() {
    start mqtt_bridge "$BIN/gateway_mqtt_bridge" --bus "unix:path=$BUS_SOCKET" \
        --host 127.0.0.1 --port $BROKER_PORT --client-id "$DEVICE"
    wait_for $START_S "${PIDS[mqtt_bridge]}" logged mqtt_bridge 'connected to the broker'
}

start_backend_with_ports() {
    start_backend --forward "$SSH_PORT=$DEVICE/ssh_localhost" \
        --forward "$SFTP_PORT=$DEVICE/sftp_localhost" \
        --forward "$HTTP_PORT=$DEVICE/http_localhost" &&
        wait_for $START_S "${PIDS[backend]}" logged backend "http_localhost ready"
}

start_web() {
    start web python3 -m http.server --bind 127.0.0.1 --directory "$MATERIAL/web" $WEB_PORT
    wait_for $START_S "${PIDS[web]}" listens $WEB_PORT
}

start_keeper() {
    start keeper "$BIN/remote_access_keeper"
    wait_for $START_S "${PIDS[keeper]}" listens $KEEPER_PORT
}

# The last of its topics is subscribed once its configuration has been read.
start_daemon() {
    start daemon "$BIN/remote_access_daemon"
    WATCHED_UNTIL=$((SECONDS + WATCHED_S))
    wait_for $START_S "${PIDS[daemon]}" \
        logged mqtt_bridge "$DAEMON_NAME is subscribed to $TOPICS/ability/get"
}

# What another module of the gateway asks, and what the cloud sends and receives.
ask() {
    busctl --address="unix:path=$BUS_SOCKET" call "$DAEMON_NAME" "$DAEMON_PATH" "$DAEMON_NAME" "$@"
}
publish() { mosquitto_pub -h 127.0.0.1 -p $BROKER_PORT -q 1 -t "$TOPICS/$1" -m "$2"; }
receive() { mosquitto_sub -h 127.0.0.1 -p $BROKER_PORT -C 1 -W "$2" -t "$TOPICS/$1"; }

# Until it is acknowledged it comes with every pass of the daemon, of which there are two a second.
describe_itself() {
    local status=0
    STEP_NOTE=$(receive ability/post $START_S) || return 1
    [ "$STEP_NOTE" = "{\"version\":\"$VERSION\",\"spec\":\"lite\"}" ] || return 1
    publish ability/post_reply '{"code":200}' || return 1
    wait_for $START_S "${PIDS[daemon]}" logged daemon "cloud data topic:$TOPICS/ability/post_reply"
    receive ability/post 2 || status=$?
    [ "$status" -eq 27 ] # nothing came in that time
}

channel_is() { ask queryRemoteChannelState | tee /dev/stderr | grep -qF "\\\"state\\\": $1}"; }

# switched STATE COMMAND...: gives the command, and waits until the channel has followed it at both
# of its ends.
switched() {
    local state=$1 event before
    shift
    event=$([ "$state" -eq 1 ] && echo connected || echo disconnected)
    before=$(times_seen "$event")
    "$@" && wait_for $SWITCH_S "${PIDS[daemon]}" channel_is "$state" &&
        wait_for $SWITCH_S "${PIDS[backend]}" backend_saw "$event" $((before + 1))
}
times_seen() { grep -c "device $DEVICE.* $1" "$LOG/backend.log"; }
backend_saw() { [ "$(times_seen "$1")" -eq "$2" ]; }

list_services() {
    local answer names
    answer=$(ask queryEdgeServicesAvailable) || return 1
    printf '%s\n' "$answer"
    mapfile -t names < <(grep -oE '[a-z]+_localhost' <<<"$answer" | sort)
    STEP_NOTE="${names[*]}"
    [ "$STEP_NOTE" = "http_localhost sftp_localhost ssh_localhost" ]
}

# The name of the one open session's service, and its identifier.
one_session() {
    local answer pattern='"socket\\":[0-9]+,\\"sessionId\\":\\"([A-Za-z0-9]{30})\\",'
    pattern+='\\"serviceName\\":\\"([a-z_]+)\\"}]}}"$'
    answer=$(ask queryAllSessionInfo) || return 1
    printf '%s\n' "$answer"
    [[ $answer =~ $pattern ]] || return 1
    SESSION=${BASH_REMATCH[1]} STEP_NOTE="${BASH_REMATCH[2]} ${BASH_REMATCH[1]}"
}
no_session() { ask queryAllSessionInfo | grep -qF '\"sessionList\":[]'; }

# The session before may still be closing. This one ends by itself when its input does.
list_sessions() {
    local client input passed=0
    wait_for $START_S "${PIDS[daemon]}" no_session || return 1
    exec {input}> >(ssh -p $SSH_PORT 127.0.0.1 cat)
    client=$!
    wait_for $START_S $client one_session &&
        [ "$(ask GetRemoteAccessSession s "$SESSION")" = 'i -1' ] || passed=1
    exec {input}>&-
    wait $client && [ $passed -eq 0 ] && wait_for $START_S "${PIDS[daemon]}" no_session &&
        [ "$(ask GetRemoteAccessSession s "$SESSION")" = 'i 0' ]
}

long_enough() { [ "$SECONDS" -ge "$WATCHED_UNTIL" ]; }

# A thread that stopped after its first feed is reported only when its declared time is over.
look_at_watchdog() {
    local thread
    wait_for $((WATCHED_S + START_S)) "${PIDS[watchdog]}" long_enough || return 1
    for thread in mainThread remoteAccessProxyThread; do
        logged watchdog "$thread of $DAEMON_NAME is watched" || return 1
    done
    ! logged watchdog 'has not been fed'
}

# The command's own exit status has to come through, too.
run_command() {
    local answer status=0
    # shellcheck disable=SC2016 # for the gateway's shell
    answer=$(timeout $USE_S ssh -p $SSH_PORT 127.0.0.1 \
        'printf "%s" "$(id -un)@$(uname -n)"; exit 7') || status=$?
    STEP_NOTE="$answer"
    [ "$status" -eq 7 ] && [ "$answer" = gateway@gateway ]
}

# The line that a session leaves in the audit follows its end.
session_was_whole() {
    for _ in {1..50}; do
        grep '"event":"session_end"' "$INSTALLED/audit.json" | tail -n 1 |
            grep -F '"whole":true' && return
        sleep 0.1
    done
    return 1
}

# By the device's name, through the operator's tool instead of a port of the back end.
run_command_by_name() {
    local answer proxy="$BIN/remote-access --control $CONTROL connect %h/ssh_localhost"
    answer=$(timeout $USE_S ssh -o ProxyCommand="$proxy" $DEVICE uname -n) || return 1
    STEP_NOTE="$answer"
    [ "$answer" = gateway ] && session_was_whole
}

# Warnings about this gateway are allowed, failures are not.
examine() {
    local passed
    passed=$("$BIN/remote-access-ctl" doctor | tee /dev/stderr | grep -c '^OK') || return 1
    STEP_NOTE="$passed checks passed"
    "$BIN/remote-access-ctl" wait --connected --timeout $SWITCH_S
}

# copy_both_ways PORT: to the gateway and back in one sftp session, which takes the times itself.
copy_both_ways() {
    local times
    rm -f "$HOME/copy" "$MATERIAL/returned" "$MATERIAL/times"
    cat >"$MATERIAL/batch" <<END
!date +%s%N >>$MATERIAL/times
put $MATERIAL/original copy
!date +%s%N >>$MATERIAL/times
get copy $MATERIAL/returned
!date +%s%N >>$MATERIAL/times
END
    timeout $USE_S sftp -P "$1" -b "$MATERIAL/batch" 127.0.0.1 || return 1
    mapfile -t times <"$MATERIAL/times"
    STEP_NOTE="up $(rate $((times[1] - times[0])) $MIB), down $(rate $((times[2] - times[1])) $MIB)"
    # The gateway's file system is at hand here: its copy is compared in place.
    (cd / && sha256sum "$MATERIAL/original" "$HOME/copy" "$MATERIAL/returned" | tee /dev/stderr |
        awk '{ sums[$1] } END { exit NR != 3 || length(sums) != 1 }')
}

fetch_page() {
    timeout $USE_S curl --silent --show-error --fail --noproxy '*' \
        --output "$MATERIAL/page" "http://127.0.0.1:$HTTP_PORT/" || return 1
    STEP_NOTE="$(stat -c %s "$MATERIAL/page") bytes"
    cmp "$MATERIAL/page" "$MATERIAL/web/index.html"
}

# A shell and a copy of a few seconds, both by the device's name, with the channel cut in the
# middle.
outlive_the_line() {
    local proxy="$BIN/remote-access --control $CONTROL connect %h/ssh_localhost"
    local typed shell copy lines=$MATERIAL/lines
    rm -f "$HOME/copy" "$MATERIAL/typed" "$lines"
    mkfifo "$MATERIAL/typed"
    printf 'put %s copy\n' "$MATERIAL/original" >"$MATERIAL/batch"
    # shellcheck disable=SC2016 # for the gateway's shell
    timeout $USE_S ssh -o ProxyCommand="$proxy" $DEVICE 'read -r a; echo $a; read -r b; echo $b' \
        <"$MATERIAL/typed" >"$MATERIAL/answers" 2>>"$lines" &
    shell=$!
    exec {typed}>"$MATERIAL/typed"
    echo before >&"$typed"
    timeout $USE_S sftp -l $COPY_KBIT -o ProxyCommand="$proxy" -b "$MATERIAL/batch" $DEVICE \
        2>>"$lines" &
    copy=$!
    sleep 1
    switched 0 ask CloseRemoteAccess && switched 1 ask OpenRemoteAccess || return 1
    echo after >&"$typed"
    exec {typed}>&-
    wait $shell && wait $copy || return 1
    cat "$lines" >&2
    STEP_NOTE="$(grep -oE 'is back after .*' "$lines" | paste -sd,)"
    [ "$(paste -sd' ' "$MATERIAL/answers")" = "before after" ] &&
        [ "$(grep -c 'is back after' "$lines")" -eq 2 ] && cmp "$MATERIAL/original" "$HOME/copy"
}

open_relays() { open_relay tunnel $SSH_PORT && open_relay gateway $SSHD_PORT; }

mkdir -p "$LOG" "$MATERIAL/web" "$CONFIG" "${BUS_SOCKET%/*}"
step "$LOG/prepare.log" "certificates, devices and policy made" install_for_demo
step "$LOG/prepare.log" "gateway's keys and settings made" prepare
step "$LOG/steps.log $LOG/bus.log" "message bus started" start_bus
step "$LOG/steps.log $LOG/watchdog.log" "watchdog started" start_watchdog
step "$LOG/steps.log $LOG/config_manager.log" "configuration manager started" start_config_manager
step "$LOG/steps.log $LOG/broker.log" "MQTT broker started" start_broker
step "$LOG/steps.log $LOG/mqtt_bridge.log" "MQTT bridge started" start_mqtt_bridge
step "$LOG/steps.log $LOG/backend.log" "back end started" start_backend_with_ports
step "$LOG/steps.log $LOG/sshd.log" "sshd started on the gateway" start_sshd
step "$LOG/steps.log $LOG/web.log" "web server started on the gateway" start_web
step "$LOG/steps.log $LOG/keeper.log" "keeper started on the gateway" start_keeper
step "$LOG/steps.log $LOG/daemon.log $LOG/mqtt_bridge.log" \
    "daemon started, cloud topics subscribed" start_daemon
step "$LOG_CONTROL" "self-description received and acknowledged" describe_itself
step "$LOG_CONTROL $LOG/backend.log" "switched on over the bus, channel open" \
    switched 1 ask OpenRemoteAccess
step "$LOG_CONTROL" "services listed over the bus" list_services
step "$LOG_TUNNEL $LOG/sshd.log" "ssh through the tunnel" run_command
step "$LOG_TUNNEL $LOG/sshd.log" "ssh to the device by its name" run_command_by_name
step "$LOG_CONTROL" "gateway examined by its doctor" examine
step "$LOG_CONTROL $LOG/sshd.log" "session listed over the bus while ssh is open" list_sessions
step "$LOG_TUNNEL $LOG/sshd.log" "sftp of $MIB MiB through the tunnel, SHA-256 equal" \
    copy_both_ways $SFTP_PORT
step "$LOG/clients.log $LOG/sshd.log" "the same without the tunnel" copy_both_ways $SSHD_PORT
step "$LOG_TUNNEL $LOG/web.log" "web page through the tunnel, bytes equal" fetch_page
step "$LOG_CONTROL $LOG/backend.log" "switched off over the bus, channel down" \
    switched 0 ask CloseRemoteAccess
step "$LOG_CONTROL $LOG/backend.log" "switched on over the bus, channel up" \
    switched 1 ask OpenRemoteAccess
step "$LOG_CONTROL $LOG/backend.log" "switched off from the cloud, channel down" \
    switched 0 publish debug/switch '{"status":0}'
step "$LOG_CONTROL $LOG/backend.log" "switched on from the cloud, channel up" \
    switched 1 publish debug/switch '{"status":1}'
step "$LOG_TUNNEL $LOG/sshd.log" "ssh through the tunnel again" run_command
step "$LOG_TUNNEL $LOG/keeper.log" "channel cut in a shell and an sftp, both go on" outlive_the_line
step "$LOG/steps.log $LOG/watchdog.log" "no lapse seen by the watchdog in $WATCHED_S s" \
    look_at_watchdog
step "$LOG/steps.log $LOG/api.log" "API's port opened to the operator" open_relay api $API_PORT
if [ "${1:-}" = stay ]; then
    step "$LOG/steps.log $LOG/tunnel.log $LOG/gateway.log" "relays to the outside open" open_relays
fi
serve "the gateway"
