#!/bin/bash
# Runs inside the container that run-unit-in-container.sh boots, with systemd as PID 1: installs
# the package, gives its account a user bus, and checks that systemd starts, reloads and stops
# the installed unit, that the daemon runs inside the unit's sandbox, and that a command in
# that same sandbox, as the account, writes under the pid file's directory and reaches the
# daemon on its bus. Prints what it checks; exits 0 when everything held.
#
# Usage: unit-in-container.sh PACKAGE.deb
set -uo pipefail

package=$1
# shellcheck source=container-checks.sh
. "$(dirname "$0")/container-checks.sh" orvanta-selvane.service

# The value of the unit file's first Key= line.
unit_setting() {
    sed -n "s/^$1=//p" "$unit" | head -n 1
}
log_has() {
    grep -qF -- "$1" "$log"
}

[ -d /run/systemd/system ] || fail "systemd is not running"

# postinst makes the account, the pid file's directory and the log, enables the unit and
# starts it; without the account's bus the daemon exits 1 and systemd tries again.
dpkg --install "$package" >/tmp/dpkg.log 2>&1 || { cat /tmp/dpkg.log; fail "dpkg --install"; }
unit=$(dpkg --listfiles orvanta-selvane | grep '/systemd/system/orvanta-selvane\.service$')
[ -f "$unit" ] || fail "the package installs no unit"
account=$(unit_setting User)
pid_file=$(unit_setting PIDFile)
log=$(dpkg --listfiles orvanta-selvane | grep '/tmpfiles\.d/' | xargs sed -n 's/^f \([^ ]*\) .*/\1/p')
if [ -z "$account" ] || [ -z "$pid_file" ] || [ -z "$log" ]; then
    fail "cannot find account, pid file and log"
fi
uid=$(id -u "$account") || fail "postinst made no account $account"
pass "dpkg installed the package; the unit is $unit, the account $account ($uid)"
[ "$(systemctl is-enabled orvanta-selvane.service)" = enabled ] || fail "the unit is not enabled"

without_leak_check orvanta-selvane.service

echo "--- systemd-analyze security --offline=true $unit"
security=$(systemd-analyze security --offline=true "$unit" 2>&1)
printf '%s\n' "$security" | tail -n 1
exposure=$(printf '%s\n' "$security" | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\) .*/\1/p')
[ -n "$exposure" ] || fail "no exposure level in systemd-analyze's output"
awk -v e="$exposure" 'BEGIN { exit !(e <= 3.5) }' || fail "exposure $exposure is above 3.5"
pass "the installed unit's exposure is $exposure"

# The account's user bus, which the unit joins, from a systemd user instance kept from boot.
loginctl enable-linger "$account" || fail "loginctl enable-linger"
bus="/run/user/$uid/bus"
wait_for test -S "$bus" || fail "no user bus at $bus"
pass "the account's user bus is up"

# Start: once the bus is there the daemon registers on it. The tries before the bus was up
# have logged their Errors already; the lines from here on must have none.
first_line=$(($(wc -l <"$log") + 1))
systemctl reset-failed orvanta-selvane.service 2>/dev/null
systemctl restart orvanta-selvane.service || fail "systemctl restart"
[ "$(systemctl is-active orvanta-selvane.service)" = active ] || fail "the unit is not active"
wait_for log_has "Connection established" || fail "the daemon did not join the bus"
main_pid=$(main_pid orvanta-selvane.service)
[ "$(cat "$pid_file")" = "$main_pid" ] || fail "the pid file does not name the main process $main_pid"
check_sandboxed "$main_pid" "$uid" "the daemon" "$account"
pass "systemd started the unit: the daemon $main_pid runs as $account, filtered, in its pid file"

# Reload: SIGHUP; the daemon reopens its log and reads its key file again.
parsed_before=$(grep -c 'Parsed .* key sequence' "$log")
systemctl reload orvanta-selvane.service || fail "systemctl reload"
wait_for log_has "Received signal to reload" || fail "the daemon got no reload signal"
wait_for test "$(grep -c 'Parsed .* key sequence' "$log")" -gt "$parsed_before" ||
    fail "the daemon did not read its key file again"
[ "$(main_pid orvanta-selvane.service)" = "$main_pid" ] ||
    fail "the reload replaced the daemon"
[ "$(systemctl is-active orvanta-selvane.service)" = active ] || fail "inactive after the reload"
pass "systemd reloaded the unit: the key file was read again by the same daemon"

# A command in the unit's sandbox: every setting of the unit's [Service] section but those
# that start and watch the daemon, and the group and capability that only the daemon has.
properties=()
while IFS= read -r line; do
    properties+=(--property="$line")
done < <(sed -n '/^\[Service\]/,/^\[/p' "$unit" | grep -E '^[A-Za-z]+=' |
    grep -vE '^(Type|PIDFile|ExecStart|ExecReload|Restart|RestartSec|SupplementaryGroups|AmbientCapabilities)=')
echo "--- a command with: ${properties[*]}"
# Inside: its /proc shows no process of root's (PID 1 among them), it cannot gain
# privileges, its system calls are filtered, it writes under /run/orvanta and asks the
# daemon on the account's bus for its interface.
run_dir=$(dirname "$pid_file")
command="test ! -e /proc/1/status && grep -q '^NoNewPrivs:.*1' /proc/self/status &&
    grep -q '^Seccomp:.*2' /proc/self/status && touch $run_dir/command-was-here &&
    dbus-send --bus=unix:path=$bus --dest=com.orvanta.selvane --print-reply / org.freedesktop.DBus.Introspectable.Introspect"
output=$(systemd-run --quiet --wait --pipe --collect "${properties[@]}" /bin/bash -c "$command" 2>&1) ||
    { printf '%s\n' "$output"; fail "the command failed in the unit's sandbox"; }
[ "$(stat -c %U "$run_dir/command-was-here")" = "$account" ] || fail "no file of the command's"
grep -qF 'com.orvanta.selvane' <<<"$output" || { printf '%s\n' "$output"; fail "no answer from the daemon"; }
pass "a command in the unit's sandbox wrote under $run_dir and reached the daemon on its bus"

# Stop: SIGTERM; the daemon ends and removes its pid file.
systemctl stop orvanta-selvane.service || fail "systemctl stop"
[ "$(systemctl is-active orvanta-selvane.service)" = inactive ] || fail "the unit is still active"
[ ! -e "$pid_file" ] || fail "the pid file is left behind"
test ! -e "/proc/$main_pid" || fail "the daemon still runs"
wait_for log_has "Received signal to quit" || fail "the daemon did not log its quit signal"
pass "systemd stopped the unit: the daemon ended and removed its pid file"

errors=$(tail -n "+$first_line" "$log" | grep -E '^\[[^]]+\] \[(Error|Bug)\] ')
[ -z "$errors" ] || fail "errors in the log: $errors"
pass "no error in $log from the start on"
exit 0
