#!/usr/bin/env bash
# Sets up the machine, builds Hollowmere and starts the tray application.
# Without a desktop session it runs under a virtual display.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)" --target hollowmere hmwispd

# The application accepts only a helper installed the way the package installs it (root's,
# the very program it was built with, named by the systemd unit). Install it so, then start
# it on its socket: through systemd where it runs, else under systemd-socket-activate.
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
"${sudo_cmd[@]}" cmake --install build >/dev/null
libexec="$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' build/CMakeCache.txt)/libexec/hollowmere"
# As pkexec would run it for this user: the group, this user in it, the socket unit.
"${sudo_cmd[@]}" env PKEXEC_UID="$(id -u)" "$libexec/hmwispd-install" || true
socket=/var/run/com.hollowmere.mac.hmwispd.socket
if [ ! -d /run/systemd/system ] && [ ! -S "$socket" ]; then
  echo "systemd is not running: starting the helper under systemd-socket-activate."
  "${sudo_cmd[@]}" systemd-socket-activate -l "$socket" "$libexec/hmwispd" >/dev/null 2>&1 &
  for _ in $(seq 50); do [ -S "$socket" ] && break; sleep 0.1; done
  "${sudo_cmd[@]}" chgrp hollowmere "$socket" && "${sudo_cmd[@]}" chmod 0660 "$socket"
fi

if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  echo "No desktop session found: running Hollowmere under a virtual display (Ctrl-C quits)."
  exec xvfb-run -a build/src/gui/hollowmere
fi
exec build/src/gui/hollowmere
