#!/bin/bash
# Boots a Debian container with systemd as PID 1 (systemd-nspawn --boot), installs the packages
# built from this build tree in it and runs unit-in-container.sh there: the installed unit
# starts, reloads and stops under systemd, in its sandbox, and a command in the same sandbox
# does its work; then seats-in-container.sh: the logind bridge's package starts the shared
# bus and the bridge, and moves the daemon onto that bus. The container's root is a minimal
# Debian with systemd, D-Bus and the packages' dependencies, made once with mmdebstrap (from
# the Debian mirror) and kept in the work directory; every boot runs on a throw-away overlay
# of it.
#
# Usage: run-unit-in-container.sh --work-dir DIR --cpack CPACK --cpack-config FILE
#                                 [--timeout SECONDS]
# Exit status: 0 passed, 1 failed, 77 not root or no systemd-nspawn, mmdebstrap or dpkg-deb
# on this machine (the test is skipped).
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
work_dir=
cpack=
cpack_config=
timeout=300

while [ $# -gt 0 ]; do
    case "$1" in
        --work-dir) work_dir=$2; shift 2 ;;
        --cpack) cpack=$2; shift 2 ;;
        --cpack-config) cpack_config=$2; shift 2 ;;
        --timeout) timeout=$2; shift 2 ;;
        *) echo "run-unit-in-container: unknown argument $1" >&2; exit 1 ;;
    esac
done
if [ -z "$work_dir" ] || [ -z "$cpack" ] || [ -z "$cpack_config" ]; then
    echo "run-unit-in-container: --work-dir, --cpack and --cpack-config are required" >&2
    exit 1
fi

skip() {
    echo "run-unit-in-container: SKIPPED: $*"
    exit 77
}
fail() {
    echo "run-unit-in-container: FAILED: $*" >&2
    exit 1
}

[ "$(id -u)" -eq 0 ] || skip "systemd-nspawn needs root"
for tool in systemd-nspawn mmdebstrap dpkg-deb; do
    command -v "$tool" >/dev/null || skip "$tool is not installed"
done

mkdir -p "$work_dir" || exit 1
work_dir=$(realpath "$work_dir") || exit 1

# The packages, built afresh from the build tree: the daemon's and the logind bridge's.
rm -rf "$work_dir/package"
"$cpack" -G DEB -B "$work_dir/package" --config "$cpack_config" >"$work_dir/cpack.log" 2>&1 ||
    fail "cpack failed (see $work_dir/cpack.log)"
package=$(find "$work_dir/package" -maxdepth 1 -name 'orvanta-selvane_*.deb' | head -n 1)
[ -n "$package" ] || fail "cpack made no orvanta-selvane_*.deb"
seats_package=$(find "$work_dir/package" -maxdepth 1 -name 'orvanta-selvane-seats_*.deb' | head -n 1)
[ -n "$seats_package" ] || fail "cpack made no orvanta-selvane-seats_*.deb"

# The root: systemd as init, the system bus, a user bus for lingering accounts, and the
# packages' dependencies (the first of each set of alternatives; the daemon's package comes
# from the build), so that dpkg installs the packages without the network. A root is made
# again only when that list changes.
suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
[ -n "$suite" ] || fail "no VERSION_CODENAME in /etc/os-release"
depends=$(dpkg-deb --field "$package" Depends) || fail "cannot read the package's Depends"
seats_depends=$(dpkg-deb --field "$seats_package" Depends) ||
    fail "cannot read the bridge's package's Depends"
includes=$(
    {
        printf '%s\n' systemd-sysv udev dbus dbus-user-session libpam-systemd procps
        printf '%s,%s\n' "$depends" "$seats_depends" | tr ',' '\n' |
            sed 's/|.*//; s/(.*)//; s/[[:space:]]//g'
    } | grep -vx -e '' -e orvanta-selvane | sort -u | paste -sd, -
)
key=$(printf '%s %s\n' "$suite" "$includes" | sha256sum | cut -c1-16)
rootfs="$work_dir/rootfs-$key"
if [ ! -d "$rootfs" ]; then
    echo "== Making the container's root ($suite: $includes)"
    rm -rf "$work_dir"/rootfs-* "$work_dir/rootfs.new"
    mmdebstrap --quiet --variant=minbase --include="$includes" "$suite" "$work_dir/rootfs.new" \
        >"$work_dir/mmdebstrap.log" 2>&1 ||
        fail "mmdebstrap failed (see $work_dir/mmdebstrap.log)"
    mv "$work_dir/rootfs.new" "$rootfs" || exit 1
fi

# The check runs as a service of the container's own, once the system is up; it writes its
# report and its status to the results directory and powers the container off at once,
# without waiting for units to stop: nothing of the throw-away overlay is kept.
results="$work_dir/results"
rm -rf "$results"
mkdir -p "$results" || exit 1
cat >"$work_dir/selvane-unit-check.service" <<'EOF'
[Unit]
Description=Checks of the installed orvanta-selvane units
After=multi-user.target

[Service]
Type=oneshot
ExecStart=/bin/sh -c '{ /usr/local/sbin/unit-in-container.sh /root/orvanta-selvane.deb && /usr/local/sbin/seats-in-container.sh /root/orvanta-selvane-seats.deb; } >/results/report 2>&1; echo $? >/results/status'
ExecStartPost=/bin/systemctl poweroff --force
EOF

echo "== Booting the container"
timeout -s KILL "$timeout" systemd-nspawn --quiet --register=no --keep-unit \
    --directory="$rootfs" --volatile=overlay --machine=selvane-unit-check \
    --bind="$results:/results" \
    --bind-ro="$package:/root/orvanta-selvane.deb" \
    --bind-ro="$seats_package:/root/orvanta-selvane-seats.deb" \
    --bind-ro="$here/unit-in-container.sh:/usr/local/sbin/unit-in-container.sh" \
    --bind-ro="$here/seats-in-container.sh:/usr/local/sbin/seats-in-container.sh" \
    --bind-ro="$here/container-checks.sh:/usr/local/sbin/container-checks.sh" \
    --bind-ro="$work_dir/selvane-unit-check.service:/etc/systemd/system/selvane-unit-check.service" \
    --boot systemd.wants=selvane-unit-check.service systemd.mask=console-getty.service \
    >"$work_dir/console.log" 2>&1 </dev/null
nspawn_status=$?

cat "$results/report" 2>/dev/null
[ $nspawn_status -ne 137 ] || fail "the container did not power off within $timeout s (see $work_dir/console.log)"
[ -f "$results/status" ] || fail "the check did not finish (see $work_dir/console.log)"
[ "$(cat "$results/status")" = 0 ] || fail "the check in the container failed"
echo "run-unit-in-container: PASSED"
