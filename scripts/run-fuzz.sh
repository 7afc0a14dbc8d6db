#!/usr/bin/env bash
# Builds the libFuzzer targets in fuzz/ with clang (in build-fuzz/) and runs each for a given
# time at the lowest priority, starting from its seeds in fuzz/corpus/<target>/ when present.
# Prints one line per target (executions, new corpus entries, findings) and fails when any
# target found a crash, a leak or a time-out; the input that did it is kept in
# build-fuzz/findings/<target>/.
#
#   scripts/run-fuzz.sh [SECONDS_PER_TARGET] [TARGET...]     (default 60 s, every target)
#   HM_FUZZ_RUNS=1000000 scripts/run-fuzz.sh 3600            (stop each at a million inputs)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
build=${HM_FUZZ_BUILD_DIR:-build-fuzz}
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -G Ninja -DHM_FUZZ=ON -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DHM_BUILD_TESTS=OFF -DHM_BUILD_BENCHMARKS=OFF \
    "${launcher[@]}" >/dev/null
nice -n 19 cmake --build "$build" -j2 >/dev/null

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for source in fuzz/fuzz_*.cpp; do
        targets+=("$(basename "$source" .cpp)")
    done
fi

failed=0
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    findings="$build/findings/$target"
    log="$build/findings/$target.log"
    mkdir -p "$corpus" "$findings"
    seeds=()
    if [ -d "fuzz/corpus/$target" ]; then
        seeds=("fuzz/corpus/$target")
    fi
    status=0
    nice -n 19 "$build/fuzz/$target" -max_total_time="$seconds" -runs="${HM_FUZZ_RUNS:--1}" \
        -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" "${seeds[@]}" \
        >"$log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    entries=$(find "$corpus" -type f | wc -l)
    if [ "$status" -eq 0 ]; then
        echo "$target: ${runs:-0} executions, corpus $entries, no findings"
    else
        failed=1
        echo "$target: FINDING after ${runs:-?} executions (exit $status):"
        grep -E "ERROR: |SUMMARY: |Test unit written to" "$log" | head -5 | sed 's/^/    /'
    fi
done
exit $failed
