#!/bin/bash
# Builds the root file system of the seat VM: Debian 12 with systemd, logind,
# udev, polkit, Xvfb and a real X server (the dummy video driver, input through
# libinput), from Debian's packages. The result is a directory kept
# in the cache directory under a name made from the package list, so that a
# second run with the same list reuses it; the project's own packages are put
# in later, on every run (run-seat-vm.sh).
#
# Usage: build-seat-image.sh CACHE_DIR
# Prints the directory's path. Exit status 77 when mmdebstrap is missing.
set -euo pipefail

cache=${1:?usage: build-seat-image.sh CACHE_DIR}
command -v mmdebstrap >/dev/null || { echo "build-seat-image: no mmdebstrap" >&2; exit 77; }

# What logind needs to make seats, what the daemon and its companion need
# to run (Qt 6, xcb, xkbcommon, udev and a bus), and an X server that takes
# its seat's input devices from udev as a display manager's would.
packages=(
    systemd-sysv udev dbus kmod libpam-systemd procps polkitd
    xvfb xauth
    xserver-xorg-core xserver-xorg-video-dummy xserver-xorg-input-libinput
    libqt6core6 libqt6gui6 libqt6dbus6 libqt6core5compat6 qt6-qpa-plugins
    libxcb1 libxcb-image0 libxcb-randr0 libxkbcommon-x11-0 libudev1
    fonts-dejavu-core
)
key=$(printf '%s\n' "${packages[@]}" | sha256sum | cut -c1-16)
root="$cache/seat-rootfs-$key"
if [ -d "$root" ]; then
    echo "$root"
    exit 0
fi
mkdir -p "$cache"
partial="$root.partial"
rm -rf "$partial"
include=$(IFS=,; echo "${packages[*]}")
mmdebstrap --quiet --variant=minbase --include="$include" \
    --customize-hook='echo seatvm > "$1/etc/hostname"' \
    --customize-hook='chroot "$1" passwd -d root' \
    bookworm "$partial" >&2
mv "$partial" "$root"
echo "$root"
