#!/bin/bash
# Runs inside the container that run-unit-in-container.sh boots, with systemd as PID 1, after
# unit-in-container.sh has installed the daemon's package: installs the logind bridge's
# package and checks that its postinst starts the shared bus and the bridge, that the daemon
# runs on that bus with the package's drop-in, that a restart of the bus restarts both
# programs, and that removing the package gives the daemon its own unit back. Prints what it
# checks; exits 0 when everything held.
#
# Usage: seats-in-container.sh PACKAGE.deb
set -uo pipefail

package=$1
# shellcheck source=container-checks.sh
. "$(dirname "$0")/container-checks.sh" orvanta-selvane-bus.socket orvanta-selvane-bus.service \
    orvanta-selvane.service orvanta-selvane-seats.service

is_active() {
    [ "$(systemctl is-active "$1")" = active ]
}
# The names on the shared bus, one a line, asked as root.
bus_names() {
    dbus-send --bus="unix:path=$socket" --print-reply --dest=org.freedesktop.DBus / \
        org.freedesktop.DBus.ListNames | sed -n 's/^ *string "\(.*\)"$/\1/p'
}
# True when the daemon and the bridge both own their names on the shared bus.
both_on_bus() {
    local names
    names=$(bus_names 2>/dev/null) || return 1
    grep -qx com.orvanta.selvane <<<"$names" && grep -qx com.orvanta.DB <<<"$names"
}
# Checks that the daemon and the bridge run, the daemon with the drop-in's command and bus,
# the bridge as the account in its sandbox, and that both own their names on the shared bus.
check_both_running() {
    wait_for is_active orvanta-selvane.service || fail "the daemon is not active"
    wait_for is_active orvanta-selvane-seats.service || fail "the bridge is not active"
    wait_for both_on_bus || fail "the daemon and the bridge are not both on the shared bus"
    daemon_pid=$(main_pid orvanta-selvane.service)
    bridge_pid=$(main_pid orvanta-selvane-seats.service)
    tr '\0' ' ' <"/proc/$daemon_pid/cmdline" | grep -q -- ' --grab-unassigned ' ||
        fail "the daemon runs without --grab-unassigned"
    tr '\0' '\n' <"/proc/$daemon_pid/environ" | grep -qx "DBUS_SESSION_BUS_ADDRESS=unix:path=$socket" ||
        fail "the daemon is not given the shared bus"
    check_sandboxed "$bridge_pid" "$uid" "the bridge" "$account"
    grep -q '^CapEff:[[:space:]]*0*$' "/proc/$bridge_pid/status" || fail "the bridge has capabilities"
}

[ -d /run/systemd/system ] || fail "systemd is not running"

without_leak_check orvanta-selvane-seats.service

# postinst enables the bus's socket and the bridge and starts them; the bridge starts the
# daemon (stopped by the daemon's own check) with the drop-in.
dpkg --install "$package" >/tmp/dpkg-seats.log 2>&1 || { cat /tmp/dpkg-seats.log; fail "dpkg --install"; }
socket_unit=$(dpkg --listfiles orvanta-selvane-seats | grep '/systemd/system/orvanta-selvane-bus\.socket$')
socket=$(sed -n 's/^ListenStream=//p' "$socket_unit")
account=$(sed -n 's/^User=//p' "$(dpkg --listfiles orvanta-selvane-seats |
    grep '/systemd/system/orvanta-selvane-seats\.service$')")
uid=$(id -u "$account") || fail "no account $account"
for unit in orvanta-selvane-bus.socket orvanta-selvane-seats.service; do
    [ "$(systemctl is-enabled "$unit")" = enabled ] || fail "$unit is not enabled"
done
pass "dpkg installed the package; the bus's socket and the bridge are enabled"
wait_for is_active orvanta-selvane-bus.socket || fail "the bus's socket is not active"
[ "$(stat -c '%U %a' "$socket")" = "$account 600" ] || fail "the socket $socket is not the account's alone"
check_both_running
[ "$(systemctl show --property=NRestarts --value orvanta-selvane-seats.service)" = 0 ] ||
    fail "the bridge was restarted"
pass "the daemon ($daemon_pid) and the bridge ($bridge_pid) run on the shared bus $socket"

# A restart of the bus restarts both programs, which join the new bus.
old_daemon=$daemon_pid
old_bridge=$bridge_pid
systemctl restart orvanta-selvane-bus.service || fail "systemctl restart orvanta-selvane-bus"
check_both_running
[ "$daemon_pid" != "$old_daemon" ] && [ "$bridge_pid" != "$old_bridge" ] ||
    fail "the restart of the bus left a program of the old bus running"
pass "a restart of the bus restarted the daemon ($daemon_pid) and the bridge ($bridge_pid) on it"

# Removing: prerm stops the bridge and the bus, which stops the daemon; postrm starts the
# daemon again on its own unit, which joins the account's user bus (lingering since the
# daemon's check).
dpkg --remove orvanta-selvane-seats >/tmp/dpkg-seats.log 2>&1 ||
    { cat /tmp/dpkg-seats.log; fail "dpkg --remove"; }
if systemctl show --property=DropInPaths --value orvanta-selvane.service |
    grep -q orvanta-selvane-seats; then
    fail "the daemon's unit still has the package's drop-in"
fi
wait_for is_active orvanta-selvane.service || fail "the daemon was not started again"
daemon_pid=$(main_pid orvanta-selvane.service)
if tr '\0' ' ' <"/proc/$daemon_pid/cmdline" | grep -q -- '--grab-unassigned'; then
    fail "the daemon still runs with the drop-in's command"
fi
! is_active orvanta-selvane-seats.service || fail "the bridge still runs"
! is_active orvanta-selvane-bus.service || fail "the shared bus still runs"
[ ! -e "$socket" ] || fail "the bus's socket $socket is left behind"
pass "dpkg removed the package: the daemon ($daemon_pid) runs on its own unit again"
exit 0
