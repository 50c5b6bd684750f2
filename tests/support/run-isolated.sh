#!/bin/sh
# Runs a command in a private mount namespace, so that a daemon under test sees
# its fixed paths without touching the host's:
#   /run (and so /var/run)  an empty tmpfs, with /run/orvanta created in it
#   /var/log                an empty tmpfs
#   /usr/share              the host's, under a private writable overlay;
#                           /usr/share/orvanta is absent unless --share-dir
#
# usage: run-isolated.sh [options] [--] command [argument...]
#   --run-dir DIR    bind DIR onto /run/orvanta instead of an empty directory
#                    (the pid file then shows up in DIR on the host)
#   --no-run-dir     leave /run/orvanta absent
#   --log-dir DIR    bind DIR onto /var/log instead of an empty tmpfs
#   --share-dir DIR  copy the contents of DIR into /usr/share/orvanta
#
# The command is exec'd: it keeps the script's pid, and the script's exit status
# is the command's. Status 77 (the tests' "skipped") means the namespace or a
# mount could not be set up, for instance without root.

set -u

skip() {
    echo "run-isolated.sh: $*" >&2
    exit 77
}

if [ "${1-}" != "--inside-namespace" ]; then
    unshare --mount --propagation private true 2>/dev/null ||
        skip "cannot create a private mount namespace"
    exec unshare --mount --propagation private "$0" --inside-namespace "$@"
fi
shift

run_dir=""
make_run_dir=1
log_dir=""
share_dir=""
while [ $# -gt 0 ]; do
    case "$1" in
    --run-dir) run_dir=$2; shift 2 ;;
    --no-run-dir) make_run_dir=0; shift ;;
    --log-dir) log_dir=$2; shift 2 ;;
    --share-dir) share_dir=$2; shift 2 ;;
    --) shift; break ;;
    -*) echo "run-isolated.sh: unknown option $1" >&2; exit 2 ;;
    *) break ;;
    esac
done
[ $# -gt 0 ] || { echo "run-isolated.sh: no command given" >&2; exit 2; }

mount -t tmpfs -o mode=0755 isolated-run /run || skip "cannot mount a tmpfs over /run"
if [ "$make_run_dir" = 1 ]; then
    mkdir /run/orvanta
    if [ -n "$run_dir" ]; then
        mount --bind "$run_dir" /run/orvanta || skip "cannot bind $run_dir onto /run/orvanta"
    fi
fi

if [ -n "$log_dir" ]; then
    mount --bind "$log_dir" /var/log || skip "cannot bind $log_dir onto /var/log"
else
    mount -t tmpfs -o mode=0755 isolated-log /var/log || skip "cannot mount a tmpfs over /var/log"
fi

# The overlay's upper and work directories live on a tmpfs of their own (an
# overlay cannot take its upper layer from another overlay), which vanishes
# with the namespace.
layers=/run/.isolated-share
mkdir "$layers"
mount -t tmpfs isolated-share "$layers" || skip "cannot mount a tmpfs for the overlay"
mkdir "$layers/upper" "$layers/work"
mount -t overlay -o "lowerdir=/usr/share,upperdir=$layers/upper,workdir=$layers/work" \
    isolated-share /usr/share || skip "cannot mount an overlay over /usr/share"
# Never let the host's installed data leak into a test.
rm -rf /usr/share/orvanta
if [ -n "$share_dir" ]; then
    mkdir /usr/share/orvanta
    cp -R "$share_dir"/. /usr/share/orvanta/ || skip "cannot copy $share_dir"
fi

exec "$@"
