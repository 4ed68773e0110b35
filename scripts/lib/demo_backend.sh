#!/usr/bin/env bash
# The back end of several gateways, run in a sandbox by scripts/demo --gateways, until it is ended.
#
# Usage: demo_backend.sh DEVICE...
set -euo pipefail
# shellcheck source=SCRIPTDIR/demo_parts.sh
source /project/scripts/lib/demo_parts.sh

install_for_demo() {
    install_backend "$@" && admit_operator '*' &&
        ssh-keygen -q -t ed25519 -N '' -C demo -f "$MATERIAL/login_key" || return 1
    STEP_NOTE="$(administer device list | grep -c .) devices"
}
open_relays() { open_relay api $API_PORT && open_relay devices $BACKEND_PORT; }

mkdir -p "$LOG" "$MATERIAL"
step "$LOG/prepare.log" "certificates, devices and policy made" install_for_demo "$@"
step "$LOG/steps.log $LOG/backend.log" "back end started" start_backend
step "$LOG/steps.log $LOG/devices.log" "its ports opened to gateways and operator" open_relays
serve "the back end"
