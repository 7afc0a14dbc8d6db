#!/usr/bin/env bash
# Runs a test on a private D-Bus session bus, in a throw-away home, and tears everything
# down afterwards, whatever the test's outcome.
#
#   with-secret-service.sh PROGRAM [ARGS...]          a real Secret Service: gnome-keyring-daemon
#                                                     with an unlocked login keyring
#   with-secret-service.sh --none PROGRAM [ARGS...]   a bus on which no Secret Service exists or
#                                                     can be activated
#   with-secret-service.sh --no-bus PROGRAM [ARGS...] no session bus at all
#
# The test sees HM_SECRET_SERVICE=keyring|none|no-bus, so run on its own it can tell that it
# would otherwise talk to the developer's own keyring.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
mode=keyring
inside=
case "${1:-}" in
  --none) mode=none; shift ;;
  --no-bus) mode=no-bus; shift ;;
  --inside) inside=1; mode="$2"; shift 2 ;; # re-entry from dbus-run-session below
esac
[ $# -gt 0 ] || { echo "usage: $0 [--none|--no-bus] PROGRAM [ARGS...]" >&2; exit 2; }

if [ -z "$inside" ]; then
  for tool in dbus-run-session dbus-send; do
    command -v "$tool" >/dev/null || { echo "$0: $tool is missing (scripts/setup.sh installs it)" >&2; exit 1; }
  done
  case "$mode" in
    keyring)
      command -v gnome-keyring-daemon >/dev/null ||
        { echo "$0: gnome-keyring-daemon is missing (scripts/setup.sh installs it)" >&2; exit 1; }
      exec dbus-run-session -- "$0" --inside keyring "$@" ;;
    none)
      exec dbus-run-session --config-file="$here/bus-without-services.conf" -- "$0" --inside none "$@" ;;
    no-bus)
      # An address nobody listens on: every connection attempt fails at once, and no
      # autolaunch can start a bus behind the test's back.
      home="$(mktemp -d)"
      trap 'rm -rf "$home"' EXIT
      HM_SECRET_SERVICE=no-bus DBUS_SESSION_BUS_ADDRESS="unix:path=$home/no-such-bus" \
        HOME="$home" XDG_RUNTIME_DIR="$home" "$@"
      exit $? ;;
  esac
fi

# From here on: inside the private bus.
home="$(mktemp -d)"
mkdir -p "$home/data" "$home/config" "$home/cache" "$home/runtime"
chmod 700 "$home/runtime"
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" \
  XDG_CACHE_HOME="$home/cache" XDG_RUNTIME_DIR="$home/runtime" HM_SECRET_SERVICE="$mode"
daemon=
cleanup() {
  if [ -n "$daemon" ]; then
    kill "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
  fi
  rm -rf "$home"
}
trap cleanup EXIT

if [ "$mode" = keyring ]; then
  # --unlock reads the password on standard input and creates the login keyring with it.
  printf 'hollowmere-test' | gnome-keyring-daemon --foreground --unlock --components=secrets \
    >"$home/keyring.log" 2>&1 &
  daemon=$!
  owned=
  for _ in $(seq 100); do
    if dbus-send --session --print-reply --dest=org.freedesktop.DBus / \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null | grep -q true; then
      owned=1
      break
    fi
    kill -0 "$daemon" 2>/dev/null || break
    sleep 0.1
  done
  if [ -z "$owned" ]; then
    echo "$0: the Secret Service did not come up" >&2
    cat "$home/keyring.log" >&2
    exit 1
  fi
fi

set +e
"$@"
status=$?
set -e
exit "$status"
