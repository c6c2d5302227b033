#!/usr/bin/env bash
# Builds and runs every test: the normal build, then the same suite under
# AddressSanitizer + UndefinedBehaviorSanitizer. Each build states the options it needs,
# so a build/ that another script configured (run-example.sh leaves the tests out) still
# gets every test, and CTest fails rather than passing when it finds none.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/deps.sh"
jobs=$(nproc)

run_suite() {
    local dir=$1; shift
    cmake -S "$root" -B "$dir" -G Ninja "$@" > /dev/null
    cmake --build "$dir"
    ctest --test-dir "$dir" --output-on-failure --no-tests=error -j "$jobs"
}

echo "=== Release build"
run_suite "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEAFORGE_TESTS=ON -DSEAFORGE_SANITIZE=OFF
echo "=== Sanitizer build (ASan + UBSan)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite "$root/build-asan" -DCMAKE_BUILD_TYPE=Debug -DSEAFORGE_SANITIZE=ON -DSEAFORGE_TESTS=ON -DSEAFORGE_BENCH=OFF
echo "=== Fuzz targets (clang, libFuzzer + ASan + UBSan): seeds, then 5 s each"
bash "$root/scripts/fuzz.sh" 5
