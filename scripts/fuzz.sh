#!/usr/bin/env bash
# Fuzzes every reader of users' files (project XML, grids, fault, deformation stage,
# construction-line parameter, station list and colour table files) with libFuzzer under
# AddressSanitizer and UndefinedBehaviorSanitizer. A wrong file must end in a message and
# a false answer; a crash, a hang, undefined behaviour or runaway memory is a finding.
#
#   bash scripts/fuzz.sh               # 10 s per target: a quick check (scripts/test.sh: 5 s)
#   bash scripts/fuzz.sh 600           # a longer campaign: ten minutes per target
#   bash scripts/fuzz.sh 3600 RegionFuzz   # one target, an hour
#
# Needs clang and libclang-rt-14-dev (scripts/deps.sh installs them). Builds into
# build-fuzz/, one target at a time on one core. Each target first replays its seeds in
# fuzz/corpus/<target>/, then fuzzes for the given time, with fuzz/<target>.dict as its
# dictionary where there is one. What it learns is kept in
# build-fuzz/fuzz-work/<target>/corpus/, so a later campaign starts where this one
# stopped; the seeds are never written. Findings land beside it as crash-*, timeout-*,
# oom-* or leak-* files. To work on one:
#
#   build-fuzz/fuzz/RegionFuzz build-fuzz/fuzz-work/RegionFuzz/crash-...    # replay it
#   build-fuzz/fuzz/RegionFuzz -minimize_crash=1 -runs=10000 <file>        # shrink it
#
# then fix the reader and add the case to tests/unit/hardening/. A new hand-made seed that
# reaches a new shape of file is worth adding to fuzz/corpus/<target>/ (keep seeds small).
# Exit status 1 when any target found something.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-10}
shift || true
targets=("$@")
if ((${#targets[@]} == 0)); then
    targets=(QuorXmlParameterFuzz RegionFuzz FaultFuzz DynamicParamFuzz ConstLineParamFuzz
             StationFuzz GeoTiffFuzz)
fi
build=$root/build-fuzz

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DSEAFORGE_FUZZ=ON -DSEAFORGE_TESTS=OFF \
    -DSEAFORGE_BENCH=OFF -DSEAFORGE_WERROR=OFF > /dev/null
cmake --build "$build" -j 2 --target "${targets[@]}"

export UBSAN_OPTIONS=print_stacktrace=1
failed=()
for target in "${targets[@]}"; do
    seeds=$root/fuzz/corpus/$target
    work=$build/fuzz-work/$target
    mkdir -p "$work/corpus"
    # -rss_limit_mb and -malloc_limit_mb turn a grid header that asks for absurd memory
    # into an oom-* finding; -timeout a file that takes more than seconds into a timeout-*
    # one. A project file's parse may hold 64 MiB plus 128 times the file: a way for its
    # text to grow past that shows as an oom-* finding, not as a slow pass.
    rss=2048
    [[ $target == QuorXmlParameterFuzz ]] && rss=1024
    limits=(-timeout=10 -rss_limit_mb=$rss -malloc_limit_mb=512)
    extra=()
    # Text grid lines are read in pieces of 8190 characters; inputs must be able to
    # reach past one.
    [[ $target == RegionFuzz ]] && extra=(-max_len=20000)
    # Tokens that inputs are built from, where a reader has a grammar of its own.
    [[ -f $root/fuzz/$target.dict ]] && extra+=(-dict="$root/fuzz/$target.dict")
    echo "=== $target: seeds, then ${seconds} s"
    if ! (cd "$work" && "$build/fuzz/$target" "${limits[@]}" -runs=0 "$seeds" > seeds.log 2>&1 &&
          "$build/fuzz/$target" "${limits[@]}" "${extra[@]}" -max_total_time="$seconds" \
              -print_final_stats=1 corpus "$seeds" > fuzz.log 2>&1); then
        failed+=("$target")
        tail -n 60 "$work"/*.log
        continue
    fi
    grep -E "^(Done|stat::number_of_executed_units|stat::peak_rss_mb)" "$work/fuzz.log" || true
done

if ((${#failed[@]})); then
    echo "Findings in: ${failed[*]} (see build-fuzz/fuzz-work/<target>/)"
    exit 1
fi
echo "No findings."
