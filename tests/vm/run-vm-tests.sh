#!/bin/bash
# Boots one throw-away VM on the host's own kernel (software emulation, no
# KVM) and runs every given test program inside it, against a real input
# core with /dev/uinput. The VM sees the host's root file system read-only and
# the build directory writable at the same path, so the programs run as built.
#
# Usage: run-vm-tests.sh --work-dir DIR --share DIR [--timeout SECONDS] PROGRAM...
#   --work-dir  where the initramfs is cached and the console log is kept
#   --share     the directory holding the programs (the build directory)
#   --timeout   seconds after which the VM is killed (default 600)
# SELVANE_VM_BUSYBOX names a static busybox other than /bin/busybox.
# Exit status: 0 every program passed, 1 a failure, 77 no kernel, qemu or
# static busybox on this machine (the test is skipped).
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
work_dir=
share=
timeout=600
programs=()

while [ $# -gt 0 ]; do
    case "$1" in
        --work-dir) work_dir=$2; shift 2 ;;
        --share) share=$2; shift 2 ;;
        --timeout) timeout=$2; shift 2 ;;
        -*) echo "run-vm-tests: unknown option $1" >&2; exit 1 ;;
        *) programs+=("$1"); shift ;;
    esac
done

if [ -z "$work_dir" ] || [ -z "$share" ]; then
    echo "run-vm-tests: --work-dir and --share are required" >&2
    exit 1
fi
if [ ${#programs[@]} -eq 0 ]; then
    echo "run-vm-tests: no test programs given" >&2
    exit 1
fi
share=$(realpath "$share") || exit 1
for index in "${!programs[@]}"; do
    programs[index]=$(realpath "${programs[index]}") || exit 1
done

skip() {
    echo "run-vm-tests: SKIPPED: $*"
    exit 77
}

# The paths travel on the kernel command line, which splits at blanks.
case "$share" in
    *[[:space:]]*) echo "run-vm-tests: the build directory path must not contain blanks: $share" >&2
        exit 1 ;;
esac
for program in "${programs[@]}"; do
    case "$program" in
        "$share"/*) ;;
        *) echo "run-vm-tests: $program is not inside $share" >&2; exit 1 ;;
    esac
    [ -x "$program" ] || { echo "run-vm-tests: $program is not an executable" >&2; exit 1; }
done

qemu=$(command -v qemu-system-x86_64) || skip "qemu-system-x86_64 is not installed"
busybox=${SELVANE_VM_BUSYBOX:-/bin/busybox}
[ -x "$busybox" ] || skip "$busybox is not installed (package busybox-static)"
# A dynamically linked busybox would find no libraries in the initramfs.
if ldd "$busybox" >/dev/null 2>&1; then
    skip "$busybox is dynamically linked (install busybox-static)"
fi
# Programs that need the central object start a private session bus in the VM.
command -v dbus-daemon >/dev/null || skip "dbus-daemon is not installed (package dbus-daemon)"

# The newest kernel image that has its modules, uinput among them, installed.
version=
for image in $(ls -1 /boot/vmlinuz-* 2>/dev/null | sort -rV); do
    candidate=${image#/boot/vmlinuz-}
    if [ -r "$image" ] && [ -n "$(find "/lib/modules/$candidate/kernel" -name 'uinput.ko*' -print -quit 2>/dev/null)" ]; then
        version=$candidate
        break
    fi
done
[ -n "$version" ] || skip "no readable /boot/vmlinuz-* with matching modules in /lib/modules (package linux-image-amd64)"
kernel=/boot/vmlinuz-$version

mkdir -p "$work_dir"
initramfs=$work_dir/initramfs-$version.cpio.gz
if [ ! -s "$initramfs" ] || [ "$here/make-initramfs.sh" -nt "$initramfs" ] \
    || [ "$here/vm-init.sh" -nt "$initramfs" ] || [ "$kernel" -nt "$initramfs" ]; then
    echo "run-vm-tests: building $initramfs"
    SELVANE_VM_BUSYBOX=$busybox "$here/make-initramfs.sh" "$version" "$here/vm-init.sh" "$initramfs" \
        || { echo "run-vm-tests: could not build the initramfs" >&2; exit 1; }
fi

run_dir=$(mktemp -d "$share/.vm-run.XXXXXX")
trap 'rm -rf "$run_dir"' EXIT
plan=$run_dir/plan.sh
console_log=$work_dir/console.log

# The plan runs inside the VM, chrooted into the host's root. Each program
# gets a fresh working directory on the VM's tmpfs and a time limit of its
# own, so one that hangs is named and the others still run. The daemon's input
# test drives a 4000 Hz mouse for ten rounds on the one emulated CPU, some 15 s
# a round.
program_timeout=300
{
    echo '#!/bin/sh'
    echo 'export HOME=/tmp LANG=C.UTF-8 QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR=/run/user/0'
    echo 'export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin'
    for variable in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS QT_LOGGING_RULES; do
        [ -n "${!variable:-}" ] && printf 'export %s=%q\n' "$variable" "${!variable}"
    done
    echo 'mkdir -p -m 0700 "$XDG_RUNTIME_DIR"'
    for program in "${programs[@]}"; do
        name=$(basename "$program")
        printf 'echo "SELVANE-VM-BEGIN %s"\n' "$name"
        printf 'mkdir -p /tmp/%s && cd /tmp/%s && timeout -k 5 %d %q\n' "$name" "$name" \
            "$program_timeout" "$program"
        printf 'echo "SELVANE-VM-END %s $?"\n' "$name"
        echo 'cd /'
    done
} >"$plan"

# Software emulation: nested KVM hangs on some hosts that offer /dev/kvm.
# One virtual CPU, because under emulation a second one mostly competes with
# the first for the host's cores and makes the run slower. At nice 10: the
# guest gets the host's cores only when nothing else wants them, as on a busy
# machine, and the daemon's reading must keep up all the same.
echo "run-vm-tests: booting $kernel with ${#programs[@]} test program(s), timeout ${timeout}s"
started=$(date +%s)
timeout --kill-after=10 "$timeout" nice -n 10 "$qemu" \
    -accel tcg -cpu max -smp 1 -m 1024 \
    -nodefaults -no-user-config -display none -no-reboot \
    -serial stdio -monitor none \
    -kernel "$kernel" -initrd "$initramfs" \
    -append "console=ttyS0 quiet loglevel=3 panic=-1 selvane_share=$share selvane_plan=$plan" \
    -virtfs local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap \
    -virtfs "local,path=$share,mount_tag=buildshare,security_model=none,multidevs=remap" \
    </dev/null 2>&1 | tr -d '\r' | tee "$console_log"
qemu_status=${PIPESTATUS[0]}
echo "run-vm-tests: the VM ran for $(($(date +%s) - started))s"

if [ "$qemu_status" -eq 124 ] || [ "$qemu_status" -eq 137 ]; then
    echo "run-vm-tests: FAILED: the VM did not finish within ${timeout}s and was killed"
    exit 1
fi
exit_line=$(grep -a '^SELVANE-VM-EXIT ' "$console_log" | tail -n 1)
if [ -z "$exit_line" ]; then
    echo "run-vm-tests: FAILED: the VM ended (qemu status $qemu_status) without reporting; see $console_log"
    exit 1
fi

failures=0
passed=0
for program in "${programs[@]}"; do
    name=$(basename "$program")
    status=$(grep -a "^SELVANE-VM-END $name " "$console_log" | tail -n 1 | cut -d' ' -f3)
    if [ -z "$status" ]; then
        echo "run-vm-tests: FAILED: $name did not run to its end"
        failures=$((failures + 1))
    elif [ "$status" = 0 ]; then
        passed=$((passed + 1))
    elif [ "$status" = 124 ] || [ "$status" = 137 ]; then
        echo "run-vm-tests: FAILED: $name did not finish within ${program_timeout}s"
        failures=$((failures + 1))
    elif [ "$status" = 77 ]; then
        # Inside the VM every component a program needs is present.
        echo "run-vm-tests: FAILED: $name skipped itself inside the VM"
        failures=$((failures + 1))
    else
        echo "run-vm-tests: FAILED: $name exited with status $status"
        failures=$((failures + 1))
    fi
done

echo "run-vm-tests: $passed of ${#programs[@]} program(s) passed"
if [ "$failures" -gt 0 ] || [ "$passed" -eq 0 ]; then
    echo "run-vm-tests: the whole console output is in $console_log"
    exit 1
fi
exit 0
