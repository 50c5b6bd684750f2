#!/bin/busybox sh
# First process of the test VM. Mounts the host's root file system read-only
# over virtio 9p, gives it private /tmp, /run, /dev, /proc and /sys, mounts the
# host's build directory writable at its own path (it may lie under /tmp) and
# runs the plan the host wrote there, chrooted. The host reads the outcome from
# the serial console: the plan prints one line per program, this script the
# final "SELVANE-VM-EXIT <status>".
/bin/busybox --install -s /bin
export PATH=/bin

finish() {
    echo "SELVANE-VM-EXIT $1"
    sync
    poweroff -f
}

fail() {
    echo "vm-init: $*"
    finish 125
}

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev

for module in $(cat /modules/order); do
    insmod "/modules/$module.ko" || fail "could not load module $module"
done

share=
plan=
for arg in $(cat /proc/cmdline); do
    case "$arg" in
        selvane_share=*) share=${arg#selvane_share=} ;;
        selvane_plan=*) plan=${arg#selvane_plan=} ;;
    esac
done
[ -n "$share" ] && [ -n "$plan" ] || fail "selvane_share= and selvane_plan= missing from the kernel command line"

# Nothing changes the shared files on the host while the VM runs, so the
# guest may cache them: without it, loading the Qt libraries over 9p takes
# most of the run. The final sync writes back what the programs wrote.
ninep="trans=virtio,version=9p2000.L,msize=512000,cache=loose"
mount -t 9p -o "$ninep,ro" hostroot /newroot || fail "could not mount the host root"
mount -t tmpfs tmpfs /newroot/tmp || fail "could not mount /tmp"
mount -t tmpfs tmpfs /newroot/run || fail "could not mount /run"
# The event nodes of uinput devices appear in devtmpfs.
mount -t devtmpfs devtmpfs /newroot/dev || fail "could not mount /dev"
mount -t proc proc /newroot/proc || fail "could not mount /proc"
mount -t sysfs sysfs /newroot/sys || fail "could not mount /sys"
mkdir -p "/newroot$share" 2>/dev/null
mount -t 9p -o "$ninep" buildshare "/newroot$share" || fail "could not mount $share"

echo "vm-init: ready after $(cut -d' ' -f1 /proc/uptime)s of guest time"
chroot /newroot /bin/sh "$plan"
finish $?
