# shellcheck shell=bash
# Steps of a script: each prints one line with its time; the first that fails shows its logs and
# ends the script.

# A step's command may leave figures for its line here.
STEP_NOTE=''

# step "LOG..." TEXT COMMAND...: runs COMMAND in this shell with its output going to the first LOG.
# Of a failure the tails of all the logs are shown. COMMAND runs as a condition, so what fails in it
# does not end it by itself.
step() {
    local logs start text=$2 passed=0 us
    read -ra logs <<<"$1"
    shift 2
    STEP_NOTE=''
    start=${EPOCHREALTIME/./}
    "$@" >>"${logs[0]}" 2>&1 || passed=$?
    us=$((${EPOCHREALTIME/./} - start))
    if [ "$passed" -eq 0 ]; then
        printf 'ok     %4d.%02d s  %s%s\n' $((us / 1000000)) $((us % 1000000 / 10000)) \
            "$text" "${STEP_NOTE:+: $STEP_NOTE}"
        return 0
    fi
    printf 'FAILED %4d.%02d s  %s\n' $((us / 1000000)) $((us % 1000000 / 10000)) "$text"
    tail -n 25 -v "${logs[@]}" >&2 || true
    exit 1
}

# wait_for SECONDS PID COMMAND...: until COMMAND succeeds; fails after SECONDS, or as soon as
# process PID has ended.
wait_for() {
    local deadline=$((${EPOCHREALTIME/./} + $1 * 1000000)) pid=$2
    shift 2
    until "$@"; do
        if ! kill -0 "$pid" 2>/dev/null; then
            printf 'the process ended before it was ready\n'
            return 1
        fi
        if [ "${EPOCHREALTIME/./}" -ge "$deadline" ]; then
            printf 'waited in vain for: %s\n' "$*"
            return 1
        fi
        sleep 0.05
    done
}
