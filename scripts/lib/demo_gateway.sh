#!/usr/bin/env bash
# The inside of the demonstration, run in a sandbox by scripts/demo: starts a gateway and a back end, and uses the tunnel
# between them. Usage: demo_gateway.sh [stay]
# Expects the project at /project and the programs in /brimlock/gateway/build/bin.
set -euo pipefail
# shellcheck source=SCRIPTDIR/steps.sh
source /project/scripts/lib/steps.sh

readonly BIN=/brimlock/gateway/build/bin
readonly CONFIG=/brimlock/gateway/build/config
readonly LOG=/tmp/log
readonly MATERIAL=/tmp/demo
readonly BUS_SOCKET=/tmp/var/run/mbusd/mbusd_socket
readonly BACKEND_NAME=backend.demo
readonly DEVICE=demo-gateway
readonly BACKEND_PORT=7443 SSHD_PORT=2222 WEB_PORT=8080         # what listens
readonly SSH_PORT=2022 SFTP_PORT=2023 HTTP_PORT=2080            # the tunnel's ends on the back end's side
readonly START_S=15 USE_S=120                                   # how long a step may take
readonly MIB=64
readonly LOG_TUNNEL="$LOG/clients.log $LOG/daemon.log $LOG/backend.log"

declare -A PIDS=()

# start NAME COMMAND...: in the background, its output in its log.
start() {
    local name=$1
    shift
    "$@" >"$LOG/$name.log" 2>&1 </dev/null &
    PIDS[$name]=$!
}

logged() { grep -qs -- "$2" "$LOG/$1.log"; }
listens() { (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
random_hex() { od -An -N "$1" -tx1 /dev/urandom | tr -d ' \n'; }

make_certificates() {
    local request=(openssl req -x509 -config "$MATERIAL/req.conf" -days 2 -noenc
        -newkey ec -pkeyopt ec_paramgen_curve:prime256v1)
    cat >"$MATERIAL/req.conf" <<END
[req]
distinguished_name = name
[name]
[ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign
[server]
basicConstraints = critical, CA:FALSE
extendedKeyUsage = serverAuth
subjectAltName = DNS:$BACKEND_NAME
END
    "${request[@]}" -extensions ca -subj '/CN=Demo CA' \
        -keyout "$MATERIAL/ca.key" -out "$CONFIG/ca.pem" &&
        "${request[@]}" -extensions server -subj "/CN=$BACKEND_NAME" \
            -CA "$CONFIG/ca.pem" -CAkey "$MATERIAL/ca.key" \
            -keyout "$MATERIAL/backend.key" -out "$MATERIAL/backend.pem"
}

make_ssh_keys() {
    ssh-keygen -q -t ed25519 -N '' -C demo -f "$MATERIAL/host_key" &&
        ssh-keygen -q -t ed25519 -N '' -C demo -f "$MATERIAL/login_key" || return 1
    cp "$MATERIAL/login_key.pub" "$MATERIAL/authorized_keys"
    local port
    for port in $SSH_PORT $SFTP_PORT $SSHD_PORT; do
        printf '[127.0.0.1]:%s %s\n' "$port" "$(cat "$MATERIAL/host_key.pub")"
    done >"$MATERIAL/known_hosts"
    cat >"$MATERIAL/sshd.conf" <<END
Port $SSHD_PORT
ListenAddress 127.0.0.1
HostKey $MATERIAL/host_key
AuthorizedKeysFile $MATERIAL/authorized_keys
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
PidFile none
Subsystem sftp internal-sftp
END
    cat >"$MATERIAL/ssh.conf" <<END
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

# What the gateway and the back end know about each other and what the gateway offers.
write_configuration() {
    local key secret
    key=$(random_hex 6)
    secret=$(random_hex 16)
    cat >"$CONFIG/gateway.conf" <<END
# Settings of the demonstration's gateway
gw_system_productkey=$key
gw_system_devicename=$DEVICE
gw_system_devicesecret=$secret
# Without a long-lived cloud connection remote access is open from the start.
gw_system_cloud_long_connection=0
gw_remoteaccess_cloud_host=$BACKEND_NAME
gw_remoteaccess_cloud_port=$BACKEND_PORT
gw_remoteaccess_cert_path=$CONFIG/ca.pem
gw_remoteaccess_tls_type=1
END
    cat >"$CONFIG/remote_terminal.json" <<END
[{"type":"SSH","name":"ssh_localhost","ip":"127.0.0.1","port":$SSHD_PORT},
 {"type":"SFTP","name":"sftp_localhost","ip":"127.0.0.1","port":$SSHD_PORT},
 {"type":"HTTP","name":"http_localhost","ip":"127.0.0.1","port":$WEB_PORT}]
END
    printf 'edition standard\n' >"$CONFIG/../SPECIFICATION"
    printf '1.0.0\n' >"$CONFIG/../VERSION"
    cat >"$MATERIAL/devices.json" <<END
{"devices":[{"product_key":"$key","device_name":"$DEVICE","device_secret":"$secret"}]}
END
    chmod 600 "$CONFIG/gateway.conf" "$MATERIAL/devices.json"
}

prepare() {
    make_certificates && make_ssh_keys && write_configuration &&
        head -c 100000 /dev/urandom | base64 >"$MATERIAL/web/index.html" &&
        head -c "${MIB}M" /dev/urandom >"$MATERIAL/original"
}

start_bus() {
    start bus dbus-daemon --config-file=/project/gateway/bus/mbusd.conf --nofork --nopidfile
    wait_for $START_S "${PIDS[bus]}" test -S "$BUS_SOCKET"
}

start_config_manager() {
    start config_manager "$BIN/gateway_config_manager" \
        --bus "unix:path=$BUS_SOCKET" --file "$CONFIG/gateway.conf"
    wait_for $START_S "${PIDS[config_manager]}" logged config_manager ' offered on '
}

start_backend() {
    start backend "$BIN/remote_access_backend" --listen "127.0.0.1:$BACKEND_PORT" \
        --cert "$MATERIAL/backend.pem" --key "$MATERIAL/backend.key" \
        --devices "$MATERIAL/devices.json" \
        --forward "$SSH_PORT=$DEVICE/ssh_localhost" \
        --forward "$SFTP_PORT=$DEVICE/sftp_localhost" \
        --forward "$HTTP_PORT=$DEVICE/http_localhost"
    wait_for $START_S "${PIDS[backend]}" logged backend "http_localhost ready"
}

start_sshd() {
    start sshd /usr/sbin/sshd -D -e -f "$MATERIAL/sshd.conf"
    wait_for $START_S "${PIDS[sshd]}" listens $SSHD_PORT
}

start_web() {
    start web python3 -m http.server --bind 127.0.0.1 --directory "$MATERIAL/web" $WEB_PORT
    wait_for $START_S "${PIDS[web]}" listens $WEB_PORT
}

start_daemon() {
    start daemon "$BIN/remote_access_daemon"
    wait_for $START_S "${PIDS[daemon]}" logged backend "device $DEVICE connected"
}

# The command's own exit status has to come through, too.
run_command() {
    local answer status=0
    # shellcheck disable=SC2016 # for the gateway's shell
    answer=$(timeout $USE_S ssh -F "$MATERIAL/ssh.conf" -p $SSH_PORT 127.0.0.1 \
        'printf "%s" "$(id -un)@$(uname -n)"; exit 7') || status=$?
    STEP_NOTE="$answer"
    [ "$status" -eq 7 ] && [ "$answer" = gateway@gateway ]
}

# rate NANOSECONDS: of the file's transfer.
rate() { awk -v ns="$1" -v mib=$MIB 'BEGIN { printf "%.1f MB/s", mib * 1.048576 / (ns / 1e9) }'; }

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
    timeout $USE_S sftp -F "$MATERIAL/ssh.conf" -P "$1" -b "$MATERIAL/batch" 127.0.0.1 || return 1
    mapfile -t times <"$MATERIAL/times"
    STEP_NOTE="up $(rate $((times[1] - times[0]))), down $(rate $((times[2] - times[1])))"
    # The gateway's file system is at hand here: its copy is compared as it lies there.
    (cd / && sha256sum "$MATERIAL/original" "$HOME/copy" "$MATERIAL/returned" | tee /dev/stderr |
        awk '{ sums[$1] } END { exit NR != 3 || length(sums) != 1 }')
}

fetch_page() {
    timeout $USE_S curl --silent --show-error --fail --noproxy '*' \
        --output "$MATERIAL/page" "http://127.0.0.1:$HTTP_PORT/" || return 1
    STEP_NOTE="$(stat -c %s "$MATERIAL/page") bytes"
    cmp "$MATERIAL/page" "$MATERIAL/web/index.html"
}

# Leads connections from outside to the tunnel; the other relay is scripts/demo's.
open_bridge() {
    start bridge /project/scripts/lib/relay.py unix:/tmp/bridge "tcp:127.0.0.1:$SSH_PORT"
    wait_for $START_S "${PIDS[bridge]}" test -S /tmp/bridge
}

mkdir -p "$LOG" "$MATERIAL/web" "$CONFIG" "${BUS_SOCKET%/*}"
step "$LOG/prepare.log" "certificates, keys and settings made" prepare
step "$LOG/steps.log $LOG/bus.log" "message bus started" start_bus
step "$LOG/steps.log $LOG/config_manager.log" "configuration manager started" start_config_manager
step "$LOG/steps.log $LOG/backend.log" "back end started" start_backend
step "$LOG/steps.log $LOG/sshd.log" "sshd started on the gateway" start_sshd
step "$LOG/steps.log $LOG/web.log" "web server started on the gateway" start_web
step "$LOG/steps.log $LOG/daemon.log $LOG/backend.log" "daemon started, channel open" start_daemon
step "$LOG_TUNNEL $LOG/sshd.log" "ssh through the tunnel" run_command
step "$LOG_TUNNEL $LOG/sshd.log" "sftp of $MIB MiB through the tunnel, SHA-256 equal" \
    copy_both_ways $SFTP_PORT
step "$LOG/clients.log $LOG/sshd.log" "the same without the tunnel" copy_both_ways $SSHD_PORT
step "$LOG_TUNNEL $LOG/web.log" "web page through the tunnel, bytes equal" fetch_page
if [ "${1:-}" = stay ]; then
    step "$LOG/steps.log $LOG/bridge.log" "bridge to the outside open" open_bridge
    touch /tmp/ready
    wait -n || true # until one of the programs ends, or until the sandbox is ended
    printf 'one of the programs has ended\n' >&2
    exit 1
fi
