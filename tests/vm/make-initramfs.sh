#!/bin/bash
# Builds the initramfs of the test VM: a static busybox, the modules that
# reach the host's file system over virtio 9p plus evdev, uinput and overlay
# (the daemon under test runs in a private mount namespace), and the
# init script. The modules come from the host's /lib/modules of the kernel
# that is booted; compressed ones are stored decompressed because busybox
# insmod may not read xz or zstd.
#
# Usage: make-initramfs.sh KERNEL_VERSION INIT_SCRIPT OUTPUT.cpio.gz
set -euo pipefail

if [ $# -ne 3 ]; then
    echo "usage: $0 KERNEL_VERSION INIT_SCRIPT OUTPUT.cpio.gz" >&2
    exit 2
fi
version=$1
init_script=$2
output=$3
module_dir=/lib/modules/$version
busybox=${SELVANE_VM_BUSYBOX:-/bin/busybox}

# Load order: each module needs only those before it.
modules=(virtio_ring virtio virtio_pci_modern_dev virtio_pci_legacy_dev virtio_pci
         netfs fscache 9pnet 9pnet_virtio 9p evdev uinput overlay)

staging=$(mktemp -d "${output}.staging.XXXXXX")
trap 'rm -rf "$staging"' EXIT

mkdir -p "$staging"/{bin,dev,proc,sys,newroot,modules}
cp "$busybox" "$staging/bin/busybox"
cp "$init_script" "$staging/init"
chmod 755 "$staging/init" "$staging/bin/busybox"

for module in "${modules[@]}"; do
    # Module files use either '-' or '_' in their names; the module name uses '_'.
    pattern="${module//_/[-_]}.ko*"
    found=$(find "$module_dir/kernel" -name "$pattern" -print -quit)
    if [ -z "$found" ]; then
        # Built into this kernel: nothing to load.
        if grep -q "/${module//_/[-_]}.ko" "$module_dir/modules.builtin" 2>/dev/null; then
            continue
        fi
        echo "make-initramfs: module $module not found under $module_dir" >&2
        exit 1
    fi
    target="$staging/modules/$module.ko"
    case "$found" in
        *.ko) cp "$found" "$target" ;;
        *.ko.xz) xz -dc "$found" >"$target" ;;
        *.ko.zst) zstd -qdc "$found" >"$target" ;;
        *.ko.gz) gzip -dc "$found" >"$target" ;;
        *) echo "make-initramfs: unknown module format: $found" >&2; exit 1 ;;
    esac
    echo "$module" >>"$staging/modules/order"
done

# Write next to the output and rename, so an interrupted build never leaves a
# truncated archive that looks current.
(cd "$staging" && find . -print0 | LC_ALL=C sort -z | cpio --null -o -H newc --quiet) \
    | gzip -1 >"$staging.cpio.gz"
mv "$staging.cpio.gz" "$output"
