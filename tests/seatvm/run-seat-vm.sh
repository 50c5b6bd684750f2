#!/bin/bash
# Boots the seat VM: Debian 12 under systemd (software emulation, no KVM)
# with two graphics cards, one xHCI controller and two USB keyboards and two
# USB pointers on its ports 1 to 4 (tablets: qemu binds only those, not its
# relative mice, to a display; udev takes them for mice), keyboard and pointer
# A bound to the first card's display, B to the second's, so that QMP's input-send-event reaches one
# chosen device. The project's packages are installed into a copy of the
# cached root file system first; each seat has an Xvfb (seat0 :10, seat1
# :11) named in seats.conf, and the guest has a configuration for a real X
# server of a seat (/etc/X11/seatvm-dummy.conf). The guest's agent runs the
# host's requests from the shared directory (seatvm-agent).
#
# Usage: run-seat-vm.sh --work-dir DIR --share DIR --qmp SOCKET --build-dir DIR DEB...
#   --work-dir   the cache of root file systems and this run's image
#   --share      the directory shared with the guest (requests/, replies/)
#   --qmp        the QMP socket qemu listens on
#   --build-dir  the build directory, shared read-only at /build in the guest
# Runs qemu in the foreground until the guest powers off or is killed (a
# reboot keeps it running, with the same disk); the console goes to standard
# output. Exit status 77 when mmdebstrap, qemu or the Debian kernel is missing.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
work_dir= share= qmp= build_dir=
debs=()
while [ $# -gt 0 ]; do
    case "$1" in
        --work-dir) work_dir=$2; shift 2 ;;
        --share) share=$2; shift 2 ;;
        --qmp) qmp=$2; shift 2 ;;
        --build-dir) build_dir=$2; shift 2 ;;
        -*) echo "run-seat-vm: unknown option $1" >&2; exit 1 ;;
        *) debs+=("$(realpath "$1")"); shift ;;
    esac
done
[ -n "$work_dir" ] && [ -n "$share" ] && [ -n "$qmp" ] && [ -n "$build_dir" ] ||
    { echo "run-seat-vm: --work-dir, --share, --qmp and --build-dir are required" >&2; exit 1; }

qemu=$(command -v qemu-system-x86_64) || { echo "run-seat-vm: SKIPPED: no qemu" >&2; exit 77; }
kernel=$(ls /boot/vmlinuz-*-amd64 2>/dev/null | sort -V | tail -n 1)
[ -n "$kernel" ] || { echo "run-seat-vm: SKIPPED: no Debian kernel in /boot" >&2; exit 77; }
version=${kernel#/boot/vmlinuz-}
initrd=/boot/initrd.img-$version
modules=/lib/modules/$version
[ -f "$initrd" ] && [ -d "$modules" ] ||
    { echo "run-seat-vm: SKIPPED: no initrd or modules of $version" >&2; exit 77; }

base=$("$here/build-seat-image.sh" "$work_dir/cache")
root="$work_dir/root"
rm -rf "$root"
cp -a "$base" "$root"
mkdir -p "$root/lib/modules"
cp -a "$modules" "$root/lib/modules/"

# The project's packages, with what the base lacks refused rather than fetched.
if [ ${#debs[@]} -gt 0 ]; then
    mkdir -p "$root/tmp/debs"
    cp "${debs[@]}" "$root/tmp/debs/"
    chroot "$root" sh -c 'dpkg -i /tmp/debs/*.deb' >&2
    rm -rf "$root/tmp/debs"
fi

install -m 0755 "$here/seatvm-agent" "$root/usr/local/sbin/seatvm-agent"
cat >"$root/etc/systemd/system/seatvm-agent.service" <<UNIT
[Unit]
Description=The seat VM's agent
After=systemd-logind.service systemd-udev-settle.service

[Service]
ExecStart=/usr/local/sbin/seatvm-agent

[Install]
WantedBy=multi-user.target
UNIT
cat >"$root/etc/systemd/system/seatvm-xvfb@.service" <<UNIT
[Unit]
Description=Xvfb on :%i

[Service]
# Any local client may draw: the daemon runs as its service account.
ExecStart=/usr/bin/Xvfb :%i -ac -nolisten tcp -screen 0 1024x768x24

[Install]
WantedBy=multi-user.target
UNIT
mkdir -p "$root/etc/systemd/system/multi-user.target.wants"
for unit in seatvm-agent.service seatvm-xvfb@10.service seatvm-xvfb@11.service; do
    template=${unit/@1[01]/@}
    ln -sf "/etc/systemd/system/$template" "$root/etc/systemd/system/multi-user.target.wants/$unit"
done
# A real X server's configuration for any seat, as a display manager would
# start one with -seat: a screen of the dummy driver, and no graphics card
# taken, so that the seats' cards stay free; its input devices are the ones
# udev gives its seat, through libinput.
cat >"$root/etc/X11/seatvm-dummy.conf" <<CONF
Section "ServerFlags"
    Option "AutoAddGPU" "false"
    Option "AutoBindGPU" "false"
EndSection

Section "Device"
    Identifier "dummy"
    Driver "dummy"
    VideoRam 16384
EndSection

Section "Screen"
    Identifier "screen"
    Device "dummy"
    DefaultDepth 24
    SubSection "Display"
        Depth 24
        Modes "1024x768"
    EndSubSection
EndSection
CONF
mkdir -p "$root/etc/orvanta"
cat >"$root/etc/orvanta/seats.conf" <<CONF
# The seat VM's stations: an Xvfb per seat.
name = Seat VM
location = Emulated room
display seat0 = :10
display seat1 = :11
CONF
# seat1 is the second card's, as "loginctl attach seat1" would make it.
cat >"$root/etc/udev/rules.d/72-seat-drm-pci-0000_00_03_0.rules" <<RULE
TAG=="seat", ENV{ID_FOR_SEAT}=="drm-pci-0000_00_03_0", ENV{ID_SEAT}="seat1"
RULE
# A key combination whose command leaves its station behind for the host.
cat >"$root/etc/orvanta/selvane-keys.conf" <<'KEYS'
KEY_LEFTCTRL,KEY_LEFTALT:KEY_S:echo "$STATION_ID" > /tmp/seatvm-station-id
KEYS
echo "/dev/vda / ext4 rw 0 1" >"$root/etc/fstab"
mkdir -p "$root$build_dir"

image="$work_dir/root.img"
rm -f "$image"
truncate -s 2G "$image"
mkfs.ext4 -q -F -d "$root" "$image"
rm -rf "$root"

mkdir -p "$share/requests" "$share/replies"
rm -f "$qmp"
# No PS/2 controller: its keyboard and mouse would be two more devices for the seats.
exec nice -n 10 "$qemu" -machine pc,i8042=off -accel tcg -cpu max -smp 2 -m 1536 \
    -nodefaults -no-user-config -display none -serial stdio -monitor none \
    -qmp "unix:$qmp,server=on,wait=off" \
    -device VGA,id=gpuA -device bochs-display,id=gpuB \
    -device qemu-xhci,id=xhci \
    -device usb-kbd,id=kbdA,bus=xhci.0,port=1,display=gpuA \
    -device usb-kbd,id=kbdB,bus=xhci.0,port=2,display=gpuB \
    -device usb-tablet,id=mouseA,bus=xhci.0,port=3,display=gpuA \
    -device usb-tablet,id=mouseB,bus=xhci.0,port=4,display=gpuB \
    -kernel "$kernel" -initrd "$initrd" \
    -append "root=/dev/vda rw console=ttyS0 quiet seatvm_build=$build_dir" \
    -drive "file=$image,if=virtio,format=raw" \
    -virtfs "local,path=$share,mount_tag=seatshare,security_model=none,multidevs=remap" \
    -virtfs "local,path=$build_dir,mount_tag=seatbuild,security_model=none,readonly=on,multidevs=remap" \
    </dev/null
