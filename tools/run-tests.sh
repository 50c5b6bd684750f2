#!/usr/bin/env bash
# Checks the formatting, builds selvane and runs every test tier: the plain build, then the same
# suite under AddressSanitizer and UndefinedBehaviorSanitizer, then the tests of
# the station threads under ThreadSanitizer, then the parser fuzzers for a
# bounded time. Installs the Debian packages it
# needs when they are missing. Usage: tools/run-tests.sh [--quick]
#   --quick   plain build and test only (no sanitizer builds, no fuzzing)
set -euo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)
quick=0
[ "${1:-}" = "--quick" ] && quick=1

packages=(
    build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev git
    qt6-base-dev qt6-base-dev-tools qt6-5compat-dev
    libxcb1-dev libxcb-image0-dev libxcb-randr0-dev libxau-dev libxkbcommon-x11-dev libxcb-xkb-dev
    libudev-dev
    dbus dbus-daemon umockdev libumockdev-dev
    qemu-system-x86 linux-image-amd64 busybox-static cpio xz-utils kmod
    util-linux procps
    fonts-dejavu-core
    librsvg2-bin librsvg2-common
    xvfb libxcb-xfixes0-dev
    xserver-xorg-core xserver-xorg-video-dummy x11-xserver-utils x11-xkb-utils
    scdoc mandoc systemd logrotate dpkg-dev lintian devscripts systemd-container mmdebstrap
    nodejs polkitd
)

# The CTest labels (tests/CMakeLists.txt); each must run at least one test.
tiers=(unit umockdev dbus blackbox x11 vm package soak)

install_missing_packages() {
    local missing=()
    for package in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "== Installing missing packages: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Adds the counts of a ctest log's closing line ("100% tests passed, 0 tests
# failed out of 22") to the totals.
add_totals() {
    local summary
    summary=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$1" | tail -n 1)
    local failed=${summary#*passed, }
    failed=${failed%% *}
    local total=${summary##* }
    total_failed=$((total_failed + ${failed:-0}))
    total_passed=$((total_passed + ${total:-0} - ${failed:-0}))
}

# Runs one build's whole suite; fails on a failed test and, because every tier
# must really run, on a skipped one.
build_and_test() {
    local dir=$1
    shift
    echo "== Configuring $dir $*"
    cmake -S "$root" -B "$root/$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    echo "== Building $dir"
    cmake --build "$root/$dir" -j"$(nproc)"
    echo "== Testing $dir"
    local log="$root/$dir/ctest-output.txt"
    local status=0
    ctest --test-dir "$root/$dir" --output-on-failure --timeout 600 2>&1 | tee "$log" || status=$?
    if grep -q 'The following tests did not run' "$log"; then
        echo "== $dir: some tests were skipped: every tier must run" >&2
        status=1
    fi
    # "Label Time Summary:" lists every label that ran, as "blackbox    =   0.84 sec*proc (2 tests)".
    local tier
    for tier in "${tiers[@]}"; do
        if ! grep -qE "^$tier +=" "$log"; then
            echo "== $dir: the tier $tier ran no test" >&2
            status=1
        fi
    done
    add_totals "$log"
    return $status
}

# The in-process tests labelled station_threads (the station threads and the
# input reader's thread), built with ThreadSanitizer: only their programs and
# their test peers are built. The black-box ones stay out: the built daemon
# needs umockdev's preload there, which ThreadSanitizer's runtime does not run
# with. Every report of any process goes to a file; one is a failure. The
# libraries that are not instrumented (Qt, glib, umockdev) hand over through
# their own futexes, so the C library calls they make (a wait condition freed
# once QtTest's watchdog thread has ended, umockdev's worker copying a string)
# are not checked: ignore_noninstrumented_modules. The project's own code is.
test_station_threads() {
    local dir=build-tsan
    echo "== Configuring $dir -DSELVANE_TSAN=ON"
    cmake -S "$root" -B "$root/$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSELVANE_TSAN=ON >/dev/null
    local targets
    mapfile -t targets < <(ctest --test-dir "$root/$dir" -N -L station_threads -LE blackbox |
        sed -n 's/^ *Test *#[0-9]*: //p')
    if [ ${#targets[@]} -eq 0 ]; then
        echo "== $dir: no test is labelled station_threads" >&2
        return 1
    fi
    echo "== Building $dir: ${targets[*]}"
    cmake --build "$root/$dir" -j"$(nproc)" --target "${targets[@]}" platform-simulator
    echo "== Testing $dir"
    local reports="$root/$dir/tsan-reports"
    rm -rf "$reports"
    mkdir -p "$reports"
    local log="$root/$dir/ctest-output.txt"
    local status=0
    TSAN_OPTIONS="suppressions=$root/tests/support/tsan-suppressions.txt die_after_fork=0 ignore_noninstrumented_modules=1 log_path=$reports/report" \
        ctest --test-dir "$root/$dir" -L station_threads -LE blackbox --output-on-failure --timeout 600 2>&1 |
        tee "$log" || status=$?
    if grep -q 'The following tests did not run' "$log"; then
        echo "== $dir: some tests were skipped: every one must run" >&2
        status=1
    fi
    if compgen -G "$reports/report*" >/dev/null; then
        echo "== $dir: ThreadSanitizer reported:" >&2
        cat "$reports"/report* >&2
        status=1
    fi
    add_totals "$log"
    return $status
}

total_passed=0
total_failed=0

check_formatting() {
    echo "== Checking the formatting (clang-format)"
    git -C "$root" ls-files -z '*.cpp' '*.h' | (cd "$root" && xargs -0 clang-format --dry-run -Werror)
}

install_missing_packages
check_formatting
build_and_test build
if [ $quick -eq 0 ]; then
    build_and_test build-sanitize -DSELVANE_SANITIZE=ON
    test_station_threads
    "$root/fuzz/run-fuzzer.sh" "$root/build-fuzz" 60
fi
echo "== All tests passed"
echo "ctest: $total_passed passed, $total_failed failed"
