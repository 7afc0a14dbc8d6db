#!/usr/bin/env bash
# Sets up the machine, builds Hollowmere and starts the tray application.
# Without a desktop session it runs under a virtual display.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)" --target hollowmere hmwispd

if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  echo "No desktop session found: running Hollowmere under a virtual display (Ctrl-C quits)."
  exec xvfb-run -a build/src/gui/hollowmere
fi
exec build/src/gui/hollowmere
