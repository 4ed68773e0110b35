#!/usr/bin/env bash
# One of several gateways, run in a sandbox by scripts/demo --gateways, until it is ended. Expects
# its settings, the certificate and the operator's public key in /tmp/given.
set -euo pipefail
# shellcheck source=SCRIPTDIR/demo_parts.sh
source /project/scripts/lib/demo_parts.sh

mkdir -p "$LOG" "$MATERIAL" "$CONFIG" "${BUS_SOCKET%/*}"
ssh-keygen -q -t ed25519 -N '' -C "$HOSTNAME" -f "$MATERIAL/host_key"
cp /tmp/given/login_key.pub "$MATERIAL/authorized_keys"
write_sshd_configuration
cp /tmp/given/ca.pem "$CONFIG/ca.pem"
# Without a cloud channel beside it, remote access is on from the start.
(umask 077 && { cat /tmp/given/settings && echo gw_system_cloud_long_connection=0; } \
    >"$CONFIG/gateway.conf")
printf '[{"type":"SSH","name":"ssh_localhost","ip":"127.0.0.1","port":%s}]\n' $SSHD_PORT \
    >"$CONFIG/remote_terminal.json"
reach_relay devices $BACKEND_PORT
start_bus
start_config_manager
start_sshd
start daemon "$BIN/remote_access_daemon"
"$BIN/remote-access-ctl" wait --connected --timeout 60
serve "$HOSTNAME"
