# shellcheck shell=bash
# What unit-in-container.sh and seats-in-container.sh share, sourced by both: reporting, waiting
# with a deadline, and the checks of a unit's process. Sourced with the units whose status and
# journal a failure prints; the sourcing script may set $log, a file whose end it prints too.
#
# Usage: . container-checks.sh UNIT...

checked_units=("$@")

deadline_seconds=30

fail() {
    echo "FAIL: $*"
    local unit
    for unit in "${checked_units[@]}"; do
        echo "--- systemctl status $unit"
        systemctl --no-pager status "$unit" 2>&1
        echo "--- journal of $unit"
        journalctl --no-pager -u "$unit" 2>&1 | tail -n 40
    done
    [ -n "${log:-}" ] && { echo "--- $log"; tail -n 40 "$log"; }
    exit 1
}
pass() {
    echo "ok [${SECONDS} s]: $*"
}
# Runs the command until it succeeds, for at most $deadline_seconds.
wait_for() {
    local end=$((SECONDS + deadline_seconds))
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.1
    done
}
main_pid() {
    systemctl show --property=MainPID --value "$1"
}
# A sanitizer build's leak check at exit traces the process, which a unit's system call filter
# forbids (ptrace is not in @system-service); the other tiers check for leaks. Turns the check
# off for the unit when the installed daemon is such a build.
without_leak_check() {
    if ldd "$(dpkg --listfiles orvanta-selvane | grep '/bin/orvanta-selvane$')" | grep -q libasan; then
        mkdir -p "/etc/systemd/system/$1.d"
        printf '[Service]\nEnvironment=ASAN_OPTIONS=detect_leaks=0\n' \
            >"/etc/systemd/system/$1.d/sanitizer.conf"
        systemctl daemon-reload || fail "systemctl daemon-reload"
    fi
}
# Checks that the process runs as the uid, cannot gain privileges and has its system calls
# filtered; who names it and the account in what a failure says.
check_sandboxed() {
    local pid=$1 uid=$2 who=$3 account=$4 status
    status=$(cat "/proc/$pid/status")
    grep -q "^Uid:[[:space:]]*${uid}[[:space:]]" <<<"$status" || fail "$who does not run as $account"
    grep -q '^NoNewPrivs:[[:space:]]*1$' <<<"$status" || fail "$who may gain privileges"
    grep -q '^Seccomp:[[:space:]]*2$' <<<"$status" || fail "$who has no system call filter"
}
