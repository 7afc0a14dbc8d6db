#!/usr/bin/env bash
# Sets up the machine, builds Hollowmere and runs every test.
#   scripts/run-tests.sh              normal build in build/
#   HM_SANITIZE=1 scripts/run-tests.sh  AddressSanitizer + UBSan build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

if [ "${HM_SANITIZE:-0}" = 1 ]; then
  build=build-asan
  extra=(-DHM_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
  export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  build=build
  extra=()
fi

# A compiler cache makes building the same sources again cheap (a second run, a warm machine).
command -v ccache >/dev/null && extra+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" -G Ninja "${extra[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
