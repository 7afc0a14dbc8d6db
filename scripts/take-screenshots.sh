#!/usr/bin/env bash
# Saves pictures of every screen a person uses, light and dark, at 1x and 2x:
# the main panel disconnected, connecting, connected and with selective routing, the
# launch, sign-in, create-account (showing a field error) and verification screens, and
# the General and Account preferences. The account shown is a real one, signed in on the
# reference service, which runs in a network namespace of its own (needs root; the
# service's names resolve only inside it).
#
#   scripts/take-screenshots.sh [--build DIR] [--out DIR]
# Defaults: --build build, --out docs/screenshots. Fails when any screen cannot be rendered.
set -euo pipefail

here="$(cd "$(dirname "$0")/.." && pwd)"
build="$here/build"
out="$here/docs/screenshots"
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build="$2"; shift 2 ;;
    --out) out="$2"; shift 2 ;;
    *) echo "usage: $0 [--build DIR] [--out DIR]" >&2; exit 2 ;;
  esac
done

tool="$build/tests/gui/hm-screenshots"
if [ ! -x "$tool" ]; then
  cmake --build "$build" --target hm-screenshots hm-refservice >/dev/null
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "take-screenshots: needs root to run the reference service in a network namespace" >&2
  exit 1
fi

mkdir -p "$out"
failed=0
for scheme in light dark; do
  for scale in 1 2; do
    if ! QT_QPA_PLATFORM=offscreen QT_SCALE_FACTOR="$scale" HM_BUILD_DIR="$build" \
         HM_SOURCE_DIR="$here" \
         "$here/testing/netns/hm-netns-run" \
           --hosts "hollowmere.test stream.hollowmere.test=127.0.0.1" \
           --hosts "static.hollowmere-files.test=127.0.0.4" \
           --hosts "api.hollowmere.test=127.0.0.14" \
           -- "$tool" --out "$out" --scheme "$scheme"; then
      echo "take-screenshots: the $scheme pictures at ${scale}x failed" >&2
      failed=1
    fi
  done
done
exit "$failed"
