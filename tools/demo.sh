#!/usr/bin/env bash
# Shows the daemon's two jobs from start to end on this machine, with nothing
# of the real platform: a private session bus, the platform simulator, two Xvfb
# station displays, two emulated keyboards and two mice, and the daemon with
# data/keys.conf and the shipped pictures and translations, all in a private
# mount namespace, so the host's /run, /var/log and /usr/share stay untouched.
#
#   1. installs the Debian packages it needs when they are missing, then
#      configures and builds (in build-demo/ of the repository);
#   2. starts the bus, the simulator, the stations, the devices and the daemon;
#   3. first job: assigns keyboard 0 to station 3 over D-Bus
#      (deviceAddedToStation) and types Ctrl+Alt+Backspace, whose command
#      prints the station;
#   4. second job: reports keyboard 1 and the mice as unassigned, asks both
#      displays for a keyboard (configureKeyboard), saves a screenshot of each
#      station, types the key shown on the first station on keyboard 1 and
#      shows the simulator receiving DeviceAssignedAuto;
#   5. moves both displays to the mouse step (one shows the mouse picture, the
#      other the please-wait picture), screenshots again, clicks, shows the
#      button handed to the second display, completes both configurations;
#   6. asks for the daemon's status (logStatus) at each step, stops the daemon
#      with --stop and cleans up every process it started.
#
# The screenshots stay in build-demo/screenshots/.
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
        libxcb1-dev libxcb-image0-dev libxcb-randr0-dev libxau-dev libxkbcommon-x11-dev libxcb-xkb-dev
        libudev-dev
        dbus umockdev libumockdev-dev
        util-linux librsvg2-bin librsvg2-common fonts-dejavu-core xvfb libxcb-xfixes0-dev scdoc)
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

# A build tree that exists already (SELVANE_DEMO_BUILD_DIR=build after
# tools/run-tests.sh, as CI does) keeps its build type.
build_programs() {
    local build_type=()
    [ -f "$build/CMakeCache.txt" ] || build_type=(-DCMAKE_BUILD_TYPE=Release)
    cmake -S "$repo" -B "$build" -G Ninja "${build_type[@]}" >/dev/null
    cmake --build "$build" --target orvanta-selvane platform-simulator emulated-input \
        station-screenshot selvane_data
}

# Sends one command to emulated-input and waits for its "ok".
send_input() {
    local answer
    echo "$1" >&"${INPUT[1]}"
    read -r -t $timeout_seconds answer <&"${INPUT[0]}" && [ "$answer" = ok ] ||
        fail "emulated-input did not accept '$1'"
    echo "    $1"
}

# type_keys DEVICE KEY...: holds the keys down in order, lets them go in reverse.
type_keys() {
    local device=$1 index
    shift
    local keys=("$@")
    for ((index = 0; index < ${#keys[@]}; index++)); do
        send_input "press $device ${keys[$index]}"
    done
    for ((index = ${#keys[@]} - 1; index >= 0; index--)); do
        send_input "release $device ${keys[$index]}"
    done
}

# Calls a method of the daemon's D-Bus service.
call_daemon() {
    local method=$1
    shift
    dbus-send --session --print-reply --dest=com.orvanta.selvane / \
        "com.orvanta.selvane.DBusInterface.$method" "$@" >/dev/null
}

# Asks for the daemon's status and prints the lines it writes.
show_status() {
    local before
    before=$(wc -l <"$log")
    call_daemon logStatus
    local deadline=$((SECONDS + timeout_seconds))
    until tail -n +"$((before + 1))" "$log" | grep -q 'assigned device(s) being managed:'; do
        [ $SECONDS -lt $deadline ] || fail "no status lines"
        sleep 0.1
    done
    sleep 0.3 # the lines of the assigned devices follow in the same update
    tail -n +"$((before + 1))" "$log" | grep -E 'AssignmentHandler:logStatus|AssignedDeviceHandler:logStatus' |
        sed 's/^/    /'
}

# Saves what a station shows as a PNG and prints its path.
screenshot() {
    local display=$1 name=$2
    mkdir -p "$screenshots"
    "$build/tools/station-screenshot/station-screenshot" ":$display" "$screenshots/$name.png" ||
        fail "no screenshot of :$display"
    echo "    station :$display -> $screenshots/$name.png"
}

# Waits until the simulator recorded a call line starting with the text.
wait_for_call() {
    wait_for_line "$work/platform-calls" "^$(printf '%s' "$1" | sed 's/[.[\*^$/]/\\&/g')"
}

# Everything below runs inside the private mount namespace.
run_demo() {
    local work=$1
    local daemon=$build/src/daemon/orvanta-selvane
    log=/var/log/orvanta-selvane.log
    screenshots=$build/screenshots
    local output=$work/daemon-output

    # Whatever is left running when this function ends, for any reason.
    local bus_pid="" simulator_pid="" daemon_pid="" station_pids=()
    cleanup() {
        [ -n "${INPUT_PID:-}" ] && kill "$INPUT_PID" 2>/dev/null
        local station
        for station in "${station_pids[@]}"; do kill "$station" 2>/dev/null; done
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
    "$build/tools/platform-simulator/platform-simulator" --tag name="Library, desk 2" \
        --tag location="Ground floor" --locale '*=en_GB.UTF-8' \
        --unassigned-keyboards 1 --assigned-keyboards 1 --unassigned-mice 2 \
        >"$work/platform-calls" 2>&1 &
    simulator_pid=$!
    wait_for_line "$work/platform-calls" '^platform-simulator ready$'
    echo "simulator ready (pid $simulator_pid)"

    step "Starting two station displays (Xvfb): a 4:3 screen and a 16:9 one"
    local displays=() index sizes=(1024x768x24 1920x1080x24)
    for index in 0 1; do
        Xvfb -displayfd 1 -screen 0 "${sizes[$index]}" -nolisten tcp >"$work/display-$index" 2>/dev/null &
        station_pids+=($!)
        wait_for_line "$work/display-$index" '^[0-9]+$'
        displays+=("$(head -n 1 "$work/display-$index")")
        echo "station display :${displays[$index]} at ${sizes[$index]} (pid ${station_pids[$index]})"
    done

    step "Creating two emulated keyboards and two mice"
    coproc INPUT { exec "$build/tools/emulated-input/emulated-input" --keyboards 2 --mice 2; }
    local line keyboard="" second_keyboard="" mouse="" second_mouse="" umockdev_dir="" preload=""
    while read -r -t $timeout_seconds line <&"${INPUT[0]}"; do
        case "$line" in
        UMOCKDEV_DIR=*) umockdev_dir=${line#UMOCKDEV_DIR=} ;;
        LD_PRELOAD=*) preload=${line#LD_PRELOAD=} ;;
        "keyboard 0 "*) keyboard=${line#keyboard 0 } ;;
        "keyboard 1 "*) second_keyboard=${line#keyboard 1 } ;;
        "mouse 2 "*) mouse=${line#mouse 2 } ;;
        "mouse 3 "*) second_mouse=${line#mouse 3 } ;;
        ready) break ;;
        esac
    done
    [ -n "$keyboard" ] && [ -n "$second_keyboard" ] && [ -n "$mouse" ] && [ -n "$second_mouse" ] ||
        fail "the emulated devices did not come up"
    echo "keyboards $keyboard $second_keyboard, mice $mouse $second_mouse in testbed $umockdev_dir"

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
    type_keys 0 KEY_LEFTCTRL KEY_LEFTALT KEY_BACKSPACE
    wait_for_line "$output" '^station 3: Ctrl\+Alt\+Backspace$'
    echo "the daemon ran the command once every key was up:"
    grep -F 'Executing command: ' "$log" | sed 's/^/    /'
    echo "the command's output:"
    sed 's/^/    /' "$output"

    step "Asking for the daemon's status (logStatus over D-Bus)"
    show_status

    local first=${displays[0]} second=${displays[1]}
    step "Second job: reporting $second_keyboard, $mouse and $second_mouse as unassigned"
    local device
    for device in "$second_keyboard" "$mouse" "$second_mouse"; do
        call_daemon unassignedDeviceAdded string:"$device"
        wait_for_line "$log" "Adding unassigned device $device\$"
    done
    echo "their lock LEDs now blink in turn while they wait"
    show_status

    step "Asking :$first (station 1) and :$second (station 2) for a keyboard (configureKeyboard)"
    call_daemon configureKeyboard int32:"$first" int32:1
    call_daemon configureKeyboard int32:"$second" int32:2
    wait_for_line "$log" "Creating display configuration on display :$second on station 2\."
    wait_for_call "com.orvanta.DB.StationGetTag \"location\""
    sleep 1 # the pictures go up within a tick or two
    echo "the overlays ask for F2 on station 1 and F3 on station 2:"
    screenshot "$first" station1-keyboard
    screenshot "$second" station2-keyboard
    show_status

    step "Pressing F2, the key of station 1, on $second_keyboard"
    type_keys 1 KEY_F2
    wait_for_call "com.orvanta.Assignment.DeviceAssignedAuto \"$second_keyboard\" $first \"KeyboardDevice\""
    echo "the simulator received:"
    grep -F 'DeviceAssignedAuto' "$work/platform-calls" | sed 's/^/    /'
    wait_for_line "$log" "Removing unassigned device $second_keyboard\$"
    echo "the keyboard left the unassigned set at the next update, its LEDs given back"

    step "Moving both displays to the mouse step (configureMouse)"
    call_daemon configureMouse int32:"$first" int32:1
    call_daemon configureMouse int32:"$second" int32:2
    sleep 1
    echo "station 1 asks for a click; station 2 waits until the button is free:"
    screenshot "$first" station1-mouse
    screenshot "$second" station2-please-wait
    show_status

    step "Clicking on $mouse"
    type_keys 2 BTN_LEFT
    wait_for_call "com.orvanta.Assignment.DeviceAssignedAuto \"$mouse\" $first \"MouseDevice\""
    sleep 1
    echo "the mouse went to station 1, and station 2 took the button over:"
    screenshot "$second" station2-mouse
    type_keys 3 BTN_LEFT
    wait_for_call "com.orvanta.Assignment.DeviceAssignedAuto \"$second_mouse\" $second \"MouseDevice\""
    grep -F 'DeviceAssignedAuto' "$work/platform-calls" | sed 's/^/    /'

    step "Completing both configurations (configurationComplete)"
    call_daemon configurationComplete int32:"$first"
    call_daemon configurationComplete int32:"$second"
    wait_for_line "$log" "Removing display configuration on display :$second on station 2\."
    grep -E 'Removing display configuration' "$log" | sed 's/^/    /'
    show_status

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
"$repo/tests/support/run-isolated.sh" --log-dir "$work/log" --share-dir "$build/data" -- \
    env SELVANE_DEMO_BUILD_DIR="$build" bash "$0" --inside-namespace "$work"
printf '\nDemo finished. The screenshots are in %s.\n' "$build/screenshots"
