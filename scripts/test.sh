#!/usr/bin/env bash
# Compiles the macOS backends against the SDK model, builds everything and runs every test
# suite: the normal build and its Debian package, the AddressSanitizer +
# UndefinedBehaviorSanitizer build, the ThreadSanitizer build of the audio tests, and the fuzz
# targets for a bounded time. Exits non-zero on the first failure. The audio suites and
# Twinkle's whole call run on PulseAudio and again on PipeWire (CTest label pipewire). Ends with
# the code lines of src/ and tests/ and their ratio.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
"$root/scripts/install-deps.sh"
jobs=$(nproc)

echo "== macOS backends against the SDK model"
"$root/scripts/check-macos.sh"

echo "== build and test"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DVEMIRA_BUILD_BENCH=ON -DVEMIRA_WERROR=ON >/dev/null
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs" --timeout 300)

echo "== Debian package: validated, installed, started twice, autostart, removed"
"$root/scripts/package-check.sh" build

echo "== realtime client against the provider's SDK"
"$root/scripts/check-provider-sdk.sh" build

echo "== address and undefined-behaviour sanitizers"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVEMIRA_BUILD_APP=ON -DVEMIRA_WERROR=ON \
    -DVEMIRA_SANITIZE=address,undefined >/dev/null
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --output-on-failure -j"$jobs" --timeout 600 -LE no-sanitizer)

echo "== thread sanitizer (audio threads and the model's hand-offs)"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVEMIRA_BUILD_APP=OFF -DVEMIRA_WERROR=ON \
    -DVEMIRA_SANITIZE=thread >/dev/null
# Only the suites labelled tsan (each test is named after its executable).
mapfile -t tsan_targets < <(cd build-tsan && ctest -N -L tsan | sed -n 's/^ *Test *#[0-9]*: *//p')
cmake --build build-tsan -j"$jobs" --target "${tsan_targets[@]}"
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --output-on-failure -j"$jobs" --timeout 600 -L tsan)

echo "== fuzz targets (bounded)"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEMIRA_WERROR=ON \
    -DVEMIRA_BUILD_TESTS=OFF -DVEMIRA_BUILD_APP=OFF -DVEMIRA_BUILD_FUZZ=ON >/dev/null
cmake --build build-fuzz -j"$jobs" --target vemira_fuzzers
shopt -s nullglob
for fuzzer in build-fuzz/fuzz/fuzz_*; do
    [ -f "$fuzzer" ] && [ -x "$fuzzer" ] || continue
    name=$(basename "$fuzzer")
    work="build-fuzz/corpus-$name"
    mkdir -p "$work"
    seeds=()
    [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
    echo "-- $name"
    # New inputs go to the first folder (the build's); the committed seeds are only read.
    if ! "$fuzzer" -max_total_time="${VEMIRA_FUZZ_SECONDS:-30}" -print_final_stats=1 \
        "$work" "${seeds[@]}" >"build-fuzz/$name.log" 2>&1; then
        tail -n 60 "build-fuzz/$name.log"
        echo "$name found a failing input" >&2
        exit 1
    fi
    grep -E '^stat::number_of_executed_units' "build-fuzz/$name.log" || tail -n 1 "build-fuzz/$name.log"
done
echo "all test stages passed"
"$root/scripts/test-ratio.sh"
