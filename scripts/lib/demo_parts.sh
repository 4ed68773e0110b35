# shellcheck shell=bash
# What the sandboxes of the demonstration share: the programs that each starts, and an installation
# of the back end with its devices and its operators.
# Expects the project at /project and the programs in /brimlock/gateway/build/bin. Sockets that
# other sandboxes may use are in /relays.
# shellcheck source=SCRIPTDIR/steps.sh
source /project/scripts/lib/steps.sh

# Not each is used by each.
# shellcheck disable=SC2034
{
    readonly BIN=/brimlock/gateway/build/bin
    readonly CONFIG=/brimlock/gateway/build/config
    readonly LOG=/tmp/log
    readonly MATERIAL=/tmp/demo
    readonly INSTALLED=/tmp/backend
    readonly CONTROL=$INSTALLED/control
    readonly BUS_SOCKET=/tmp/var/run/mbusd/mbusd_socket
    readonly BACKEND_NAME=backend.demo PRODUCT_KEY=demo
    readonly OPERATOR=anna
    readonly BACKEND_PORT=7443 API_PORT=8443 SSHD_PORT=2222 # what listens
    readonly START_S=15 USE_S=120                           # how long a step may take
}

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

# install_backend DEVICE...: the settings of each gateway go to /tmp/settings.
install_backend() {
    local device
    "$BIN/remote_access_backend" init "$INSTALLED" --name $BACKEND_NAME || return 1
    install -d -m 700 /tmp/settings
    for device in "$@"; do
        administer device add "$device" --product $PRODUCT_KEY --print-settings \
            --gateway-ca "$CONFIG/ca.pem" >"/tmp/settings/$device" || return 1
    done
}
administer() { "$BIN/remote_access_backend" --config "$INSTALLED/backend.conf" "$@"; }

# admit_operator PATTERN: an operator who may use the devices whose names match, and her token.
# Whoever made the installation may still do everything.
admit_operator() {
    local file=$INSTALLED/operators.json
    python3 - "$file" $OPERATOR "$1" <<'END' || return 1
import json
import sys
path, name, pattern = sys.argv[1:]
with open(path, encoding="utf-8") as file:
    policy = json.load(file)
policy["operators"].append({"name": name})
policy["device_groups"]["hers"] = {"names": [pattern]}
policy["grants"].append({"name": "support", "who": [name], "devices": ["hers"],
                         "services": ["*"], "verbs": ["list", "connect"]})
with open(path, "w", encoding="utf-8") as file:
    json.dump(policy, file, indent=2)
END
    (umask 077 && administer token $OPERATOR --label laptop --days 2 >"$INSTALLED/$OPERATOR.token")
}

# start_backend OPTION...: besides those of the installation.
start_backend() {
    start backend "$BIN/remote_access_backend" --config "$INSTALLED/backend.conf" "$@"
    wait_for $START_S "${PIDS[backend]}" listens $API_PORT
}

# open_relay NAME PORT: leads connections to the socket of that name to a port in here.
open_relay() {
    start "$1" /project/scripts/lib/relay.py "unix:/relays/$1/socket" "tcp:127.0.0.1:$2"
    wait_for $START_S "${PIDS[$1]}" test -S "/relays/$1/socket"
}

# reach_relay NAME PORT: leads connections to a port in here to the socket of that name.
reach_relay() {
    start "$1" /project/scripts/lib/relay.py "tcp:127.0.0.1:$2" "unix:/relays/$1/socket"
    wait_for $START_S "${PIDS[$1]}" test -s "$LOG/$1.log"
}

start_bus() {
    start bus dbus-daemon --config-file=/project/devgateway/bus/mbusd.conf --nofork --nopidfile
    wait_for $START_S "${PIDS[bus]}" test -S "$BUS_SOCKET"
}

start_config_manager() {
    start config_manager "$BIN/gateway_config_manager" \
        --bus "unix:path=$BUS_SOCKET" --file "$CONFIG/gateway.conf"
    wait_for $START_S "${PIDS[config_manager]}" logged config_manager ' offered on '
}

# What sshd needs, besides the keys in $MATERIAL.
write_sshd_configuration() {
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
SetEnv PATH=/usr/sbin:/usr/bin:$BIN REMOTE_ACCESS_CONTROL=$CONTROL
END
}

start_sshd() {
    start sshd /usr/sbin/sshd -D -e -f "$MATERIAL/sshd.conf"
    wait_for $START_S "${PIDS[sshd]}" listens $SSHD_PORT
}

# serve NAME: tells scripts/demo that all is there, and fails as soon as a program ends.
# scripts/demo ends the sandbox.
serve() {
    touch /tmp/ready
    wait -n "${PIDS[@]}" || true
    printf 'one of the programs of %s has ended\n' "$1" >&2
    return 1
}

# rate NANOSECONDS MIB: of a file's transfer.
rate() { awk -v ns="$1" -v mib="$2" 'BEGIN { printf "%.1f MB/s", mib * 1.048576 / (ns / 1e9) }'; }
