#!/bin/bash
# Puts the bridge's service files into a root file system from their sources
# in packaging/seats, for as long as no package of the bridge is built: the
# shared bus (socket, service, configuration), the daemon's drop-in, the
# bridge's unit and its polkit rule, enabled as the package would.
#
# Usage: install-seats-drafts.sh ROOT
set -euo pipefail

root=${1:?usage: install-seats-drafts.sh ROOT}
sources=$(cd "$(dirname "$0")/../../packaging/seats" && pwd)
units=$root/lib/systemd/system
substitute() {
    sed -e 's|@SEATS_BUS_SOCKET@|/run/orvanta-selvane-bus|g' \
        -e 's|@SEATS_BUS_CONFIG@|/usr/share/orvanta/selvane-bus.conf|g' \
        -e 's|@SELVANE_SERVICE_USER@|orvanta|g' \
        -e 's|@SELVANE_BINARY@|/usr/bin/orvanta-selvane|g' \
        -e 's|@SEATS_BINARY@|/usr/bin/orvanta-selvane-seats|g' \
        -e 's|@SELVANE_KEY_CONFIG_FILE@|/etc/orvanta/selvane-keys.conf|g' \
        "$sources/$1" >"$2"
}
mkdir -p "$units/orvanta-selvane.service.d" "$root/usr/share/polkit-1/rules.d"
substitute orvanta-selvane-bus.socket.in "$units/orvanta-selvane-bus.socket"
substitute orvanta-selvane-bus.service.in "$units/orvanta-selvane-bus.service"
substitute selvane-bus.conf.in "$root/usr/share/orvanta/selvane-bus.conf"
substitute daemon-seats.conf.in "$units/orvanta-selvane.service.d/seats.conf"
substitute orvanta-selvane-seats.service.in "$units/orvanta-selvane-seats.service"
substitute orvanta-selvane-seats.rules.in \
    "$root/usr/share/polkit-1/rules.d/orvanta-selvane-seats.rules"
# What the drafts still lack: dbus-daemon wants a <listen> element even when
# --address replaces it, messages must be allowed to be received, and the
# bridge must be told the shared bus.
sed -i -e 's|<auth>EXTERNAL</auth>|&\n  <listen>unix:tmpdir=/tmp</listen>|' \
    -e 's|<allow own="\*"/>|&\n    <allow receive_sender="*"/>|' \
    "$root/usr/share/orvanta/selvane-bus.conf"
sed -i 's|^\[Service\]$|&\nEnvironment=DBUS_SESSION_BUS_ADDRESS=unix:path=/run/orvanta-selvane-bus|' \
    "$units/orvanta-selvane-seats.service"
chroot "$root" systemctl enable orvanta-selvane-bus.socket orvanta-selvane-seats.service >&2
