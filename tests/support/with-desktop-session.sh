#!/usr/bin/env bash
# Runs a test inside a throw-away desktop session: a private D-Bus session bus, a virtual
# X display (Xvfb) and a private home, all torn down afterwards whatever the outcome. The
# test starts what it needs on that bus itself (a notification server, a tray watcher).
#
#   with-desktop-session.sh PROGRAM [ARGS...]
set -euo pipefail

[ $# -gt 0 ] || { echo "usage: $0 PROGRAM [ARGS...]" >&2; exit 2; }
if [ -z "${HM_DESKTOP_SESSION_INSIDE:-}" ]; then
  for tool in dbus-run-session Xvfb; do
    command -v "$tool" >/dev/null || { echo "$0: $tool is missing (scripts/setup.sh installs it)" >&2; exit 1; }
  done
  HM_DESKTOP_SESSION_INSIDE=1 exec dbus-run-session -- "$0" "$@"
fi

home="$(mktemp -d)"
mkdir -p "$home/data" "$home/config" "$home/cache" "$home/state" "$home/runtime"
chmod 700 "$home/runtime"
xvfb=
cleanup() {
  if [ -n "$xvfb" ]; then
    kill "$xvfb" 2>/dev/null || true
    wait "$xvfb" 2>/dev/null || true
  fi
  rm -rf "$home"
}
trap cleanup EXIT

# -displayfd picks a free display number and writes it once the server listens.
exec 3>"$home/display"
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp >"$home/xvfb.log" 2>&1 &
xvfb=$!
for _ in $(seq 100); do
  [ -s "$home/display" ] && break
  kill -0 "$xvfb" 2>/dev/null || break
  sleep 0.05
done
exec 3>&-
[ -s "$home/display" ] || { echo "$0: Xvfb did not start" >&2; cat "$home/xvfb.log" >&2; exit 1; }

export DISPLAY=":$(head -n1 "$home/display")" QT_QPA_PLATFORM=xcb HOME="$home" \
  XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_CACHE_HOME="$home/cache" \
  XDG_STATE_HOME="$home/state" XDG_RUNTIME_DIR="$home/runtime" HM_DESKTOP_SESSION=1
unset WAYLAND_DISPLAY
set +e
"$@"
status=$?
set -e
exit "$status"
