#!/usr/bin/env bash
# Shows the daemon's first job from start to end on this machine, with nothing
# of the real platform: a private session bus, the platform simulator, one
# emulated keyboard and the daemon with data/keys.conf, all in a private mount
# namespace, so the host's /run, /var/log and /usr/share stay untouched.
#
#   1. installs the Debian packages it needs when they are missing, then
#      configures and builds (in build-demo/ of the repository);
#   2. starts the bus, the simulator, the keyboard and the daemon;
#   3. assigns the keyboard to station 3 over D-Bus (deviceAddedToStation);
#   4. types Ctrl+Alt+Backspace, whose command prints the station;
#   5. asks for the daemon's status (logStatus) and shows those log lines;
#   6. stops the daemon with --stop and cleans up every process it started.
#
# Usage: tools/demo.sh        (needs root: packages and mount namespaces)
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${SELVANE_DEMO_BUILD_DIR:-$repo/build-demo}
timeout_seconds=15

step() { printf '\n==> %s\n' "$*"; }
fail() { printf 'demo: %s\n' "$*" >&2; exit 1; }

# Waits until a line of the file matches the extended regular expression.
wait_for_line() {
    local file=$1 pattern=$2 deadline=$((SECONDS + timeout_seconds))
    until [ -f "$file" ] && grep -Eq -- "$pattern" "$file"; do
        [ $SECONDS -lt $deadline ] || fail "no line matching '$pattern' in $file"
        sleep 0.1
    done
}

install_packages() {
    local packages=(cmake ninja-build g++ pkg-config qt6-base-dev qt6-5compat-dev
        libxcb1-dev libxcb-image0-dev libxcb-randr0-dev dbus umockdev libumockdev-dev
        util-linux librsvg2-bin fonts-dejavu-core)
    local missing=() package
    for package in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
            missing+=("$package")
    done
    if [ ${#missing[@]} -eq 0 ]; then
        echo "all needed packages are installed"
        return
    fi
    echo "installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
}

build_programs() {
    cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    cmake --build "$build" --target orvanta-selvane platform-simulator emulated-input
}

# Everything below runs inside the private mount namespace.
run_demo() {
    local work=$1
    local daemon=$build/src/daemon/orvanta-selvane
    local log=/var/log/orvanta-selvane.log
    local output=$work/daemon-output

    # Whatever is left running when this function ends, for any reason.
    local bus_pid="" simulator_pid="" daemon_pid=""
    cleanup() {
        [ -n "${INPUT_PID:-}" ] && kill "$INPUT_PID" 2>/dev/null
        [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null
        [ -n "$simulator_pid" ] && kill "$simulator_pid" 2>/dev/null
        [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null
        wait 2>/dev/null
        return 0
    }
    trap cleanup EXIT

    step "Starting a private session bus"
    local address
    address=$(dbus-daemon --session --fork --print-address=1 --print-pid=3 3>"$work/bus.pid")
    bus_pid=$(cat "$work/bus.pid")
    export DBUS_SESSION_BUS_ADDRESS=$address
    echo "bus at $address (pid $bus_pid)"

    step "Starting the platform simulator (database, assignment, session controller)"
    "$build/tools/platform-simulator/platform-simulator" --tag name="Station 3" \
        >"$work/platform-calls" 2>&1 &
    simulator_pid=$!
    wait_for_line "$work/platform-calls" '^platform-simulator ready$'
    echo "simulator ready (pid $simulator_pid)"

    step "Creating an emulated keyboard"
    coproc INPUT { exec "$build/tools/emulated-input/emulated-input" --keyboards 1; }
    local line keyboard="" umockdev_dir="" preload=""
    while read -r -t $timeout_seconds line <&"${INPUT[0]}"; do
        case "$line" in
        UMOCKDEV_DIR=*) umockdev_dir=${line#UMOCKDEV_DIR=} ;;
        LD_PRELOAD=*) preload=${line#LD_PRELOAD=} ;;
        "keyboard 0 "*) keyboard=${line#keyboard 0 } ;;
        ready) break ;;
        esac
    done
    [ -n "$keyboard" ] || fail "the emulated keyboard did not come up"
    echo "keyboard $keyboard in testbed $umockdev_dir"

    step "Starting orvanta-selvane with data/keys.conf"
    # The daemon keeps the terminal's descriptors; its output goes to a file
    # here so that the demo can wait for the command's line.
    LD_PRELOAD=$preload UMOCKDEV_DIR=$umockdev_dir \
        "$daemon" --config "$repo/data/keys.conf" >"$output" 2>&1
    wait_for_line "$log" 'Connection established'
    daemon_pid=$(cat /run/orvanta/orvanta-selvane.pid)
    wait_for_line "$work/platform-calls" '^com\.orvanta\.Assignment\.SelvaneStarted$'
    echo "daemon running (pid $daemon_pid); the simulator recorded:"
    grep -v '^platform-simulator ready$' "$work/platform-calls" | sed 's/^/    /'

    step "Assigning $keyboard to station 3 (deviceAddedToStation over D-Bus)"
    dbus-send --session --print-reply --dest=com.orvanta.selvane / \
        com.orvanta.selvane.DBusInterface.deviceAddedToStation \
        string:"$keyboard" int32:3 >/dev/null
    wait_for_line "$log" "Adding assigned device $keyboard\$"
    wait_for_line "$log" "Name of device at $keyboard is "
    grep -E "(Adding assigned device|Opened|Name of device at) $keyboard" "$log" | sed 's/^/    /'

    step "Typing Ctrl+Alt+Backspace on the keyboard"
    local command
    for command in "press 0 KEY_LEFTCTRL" "press 0 KEY_LEFTALT" "press 0 KEY_BACKSPACE" \
        "release 0 KEY_BACKSPACE" "release 0 KEY_LEFTALT" "release 0 KEY_LEFTCTRL"; do
        echo "$command" >&"${INPUT[1]}"
        read -r -t $timeout_seconds line <&"${INPUT[0]}" && [ "$line" = ok ] ||
            fail "emulated-input did not accept '$command'"
        echo "    $command"
    done
    wait_for_line "$output" '^station 3: Ctrl\+Alt\+Backspace$'
    echo "the daemon ran the command once every key was up:"
    grep -F 'Executing command: ' "$log" | sed 's/^/    /'
    echo "the command's output:"
    sed 's/^/    /' "$output"

    step "Asking for the daemon's status (logStatus over D-Bus)"
    local before
    before=$(wc -l <"$log")
    dbus-send --session --print-reply --dest=com.orvanta.selvane / \
        com.orvanta.selvane.DBusInterface.logStatus >/dev/null
    wait_for_line "$log" "Assigned device: $keyboard\$"
    tail -n +"$((before + 1))" "$log" | sed 's/^/    /'

    step "Stopping the daemon (orvanta-selvane --stop)"
    "$daemon" --stop
    local deadline=$((SECONDS + timeout_seconds))
    while kill -0 "$daemon_pid" 2>/dev/null; do
        [ $SECONDS -lt $deadline ] || fail "the daemon did not stop"
        sleep 0.1
    done
    daemon_pid=""
    grep -E 'Received signal to quit|selvane is exiting' "$log" | sed 's/^/    /'

    step "Cleaning up"
    echo quit >&"${INPUT[1]}"
    cleanup
    trap - EXIT
    echo "all processes ended"
}

if [ "${1:-}" = "--inside-namespace" ]; then
    run_demo "$2"
    exit 0
fi

[ "$(id -u)" -eq 0 ] || fail "run as root (it installs packages and uses a mount namespace)"

step "Checking the packages"
install_packages
step "Configuring and building in $build"
build_programs

work=$(mktemp -d /tmp/selvane-demo.XXXXXX)
mkdir "$work/log"
trap 'rm -rf "$work"' EXIT
step "Entering a private mount namespace (tests/support/run-isolated.sh)"
"$repo/tests/support/run-isolated.sh" --log-dir "$work/log" -- \
    env SELVANE_DEMO_BUILD_DIR="$build" bash "$0" --inside-namespace "$work"
printf '\nDemo finished.\n'
