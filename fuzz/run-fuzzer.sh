#!/usr/bin/env bash
# Builds the configuration parser fuzzer with clang and runs it for a while.
# Usage: fuzz/run-fuzzer.sh [build-dir] [seconds]   (defaults: build-fuzz 60)
# New inputs go to <build-dir>/fuzz-corpus; the checked-in seeds stay as they
# are. A crash leaves its input as <build-dir>/crash-* and fails the script.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-fuzz}
seconds=${2:-60}

CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSELVANE_FUZZ=ON -DSELVANE_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target fuzz_keysequence -j"$(nproc)"

mkdir -p "$build/fuzz-corpus"
cd "$build"
echo "== Fuzzing the key configuration parser for $seconds s"
./fuzz/fuzz_keysequence -max_total_time="$seconds" -max_len=1024 -timeout=10 \
    -dict="$root/fuzz/keysequence.dict" -artifact_prefix="$build/" \
    "$build/fuzz-corpus" "$root/fuzz/corpus/keysequence"
