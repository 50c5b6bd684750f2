#!/usr/bin/env bash
# Builds the parser fuzzers with clang and runs each for a while: the key
# configuration parser, the translation file parser and the check of an X
# server's setup reply.
# Usage: fuzz/run-fuzzer.sh [build-dir] [seconds per fuzzer]   (defaults: build-fuzz 60)
# New inputs go to <build-dir>/fuzz-corpus/<fuzzer>; the checked-in seeds stay
# as they are (the translation parser's seeds are the golden files of its
# tests). A crash or a leak leaves its input as <build-dir>/crash-* or leak-*
# and fails the script.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-fuzz}
seconds=${2:-60}

CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSELVANE_FUZZ=ON -DSELVANE_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target fuzz_keysequence fuzz_translation fuzz_serversetup -j"$(nproc)"

# run_fuzzer NAME DICTIONARY MAX_LEN SEED_DIR...
run_fuzzer() {
    local name=$1 dictionary=$2 max_len=$3
    shift 3
    mkdir -p "$build/fuzz-corpus/$name"
    echo "== Fuzzing $name for $seconds s"
    (cd "$build" && "./fuzz/$name" -max_total_time="$seconds" -max_len="$max_len" -timeout=10 \
        -dict="$dictionary" -artifact_prefix="$build/" "$build/fuzz-corpus/$name" "$@")
}

run_fuzzer fuzz_keysequence "$root/fuzz/keysequence.dict" 1024 "$root/fuzz/corpus/keysequence"
run_fuzzer fuzz_translation "$root/fuzz/translation.dict" 4096 "$root/tests/translation/golden"
run_fuzzer fuzz_serversetup "$root/fuzz/serversetup.dict" 4096 "$root/fuzz/corpus/serversetup"
