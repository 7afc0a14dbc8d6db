#!/usr/bin/env bash
# The demo's desktop session, run by scripts/run-demo.sh inside the lab's client namespace on
# a private session bus: a Secret Service, the application (on the desktop when there is
# one, else on a virtual display), then sign-in, connect and the proof, all through
# hollowmerectl. Not meant to be started by hand.
set -euo pipefail
cd "$DEMO_ROOT"
ctl=build/src/ctl/hollowmerectl
page="http://10.8.0.1:8000/"

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

home="$DEMO_DIR/home"
# The desktop's Wayland socket is named relative to the desktop's runtime folder, which is
# about to be replaced by the demo's own.
if [ -n "${WAYLAND_DISPLAY:-}" ] && [ "${WAYLAND_DISPLAY#/}" = "$WAYLAND_DISPLAY" ]; then
    export WAYLAND_DISPLAY="${XDG_RUNTIME_DIR:-/run/user/0}/$WAYLAND_DISPLAY"
fi
mkdir -p "$home/data" "$home/config/hollowmere" "$home/state" "$home/cache" "$home/runtime"
chmod 700 "$home/runtime"
export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" \
    XDG_STATE_HOME="$home/state" XDG_CACHE_HOME="$home/cache" XDG_RUNTIME_DIR="$home/runtime"
# Point the application at the lab: the reference service and the lab's helper.
cp "$LAB_SERVICE_DEPLOYMENT" "$home/config/hollowmere/deployment.json"
export HOLLOWMERE_HELPER_SOCKET="$LAB_HELPER_SOCKET" HOLLOWMERE_HELPER_RESOURCES="$LAB_HELPER_RESOURCES" \
    HOLLOWMERE_HELPER_MANAGEMENT="$LAB_HELPER_MANAGEMENT"

pids=()
stop_all() {
    local pid
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap stop_all EXIT
trap 'exit 130' INT TERM

printf 'hollowmere-demo' | gnome-keyring-daemon --foreground --unlock --components=secrets \
    >"$home/keyring.log" 2>&1 &
pids+=($!)

# The application trusts the system's certificate store only; the lab's service authority
# is added to a copy that only the application sees.
trusted=(testing/lab/with-trusted-ca.sh "${LAB_SERVICE_CA:-$(dirname "$LAB_SERVICE_DEPLOYMENT")/ca.crt}"
    "$home/certs" --)
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
    "${trusted[@]}" build/src/gui/hollowmere >"$home/app.log" 2>&1 &
    where="on your desktop"
else
    # The notification server the bus starts on demand must find the same display.
    # shellcheck disable=SC2016 # expanded by the inner shell
    xvfb-run -a -s "-screen 0 1280x800x24" sh -c \
        'dbus-update-activation-environment DISPLAY XAUTHORITY; exec "$@"' sh \
        "${trusted[@]}" build/src/gui/hollowmere >"$home/app.log" 2>&1 &
    where="on a virtual display (no desktop session here)"
fi
pids+=($!)
for _ in $(seq 200); do
    "$ctl" status >/dev/null 2>&1 && break
    sleep 0.1
done
"$ctl" status >/dev/null || { tail -n 20 "$home/app.log" >&2; exit 1; }
echo "Hollowmere runs $where."

say "Before connecting: the tunnel page refuses us"
curl -s -m 5 "$page" || echo "(no answer)"

say "hollowmerectl login $DEMO_USER"
printf '%s\n' "$DEMO_PASSWORD" | "$ctl" login "$DEMO_USER"
"$ctl" countries

say "hollowmerectl connect --wait"
"$ctl" connect --wait --timeout 90
"$ctl" status

say "Through the tunnel: $page"
if ! curl -sf -m 10 "$page"; then
    echo "FAILED: the page was not reachable through the tunnel" >&2
    exit 1
fi
echo "PROVEN: traffic went through the Hollowmere tunnel."

if [ "$DEMO_CHECK" = 1 ]; then
    say "hollowmerectl disconnect --wait"
    "$ctl" disconnect --wait
    "$ctl" status
    exit 0
fi

# Commands for another terminal: the same namespace and session bus as the application.
for tool in hollowmerectl curl; do
    program=$tool
    [ "$tool" = hollowmerectl ] && program="$DEMO_ROOT/$ctl"
    cat >"$DEMO_DIR/$tool" <<SCRIPT
#!/bin/sh
exec ip netns exec $DEMO_NAMESPACE env DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS' \\
    HOME='$HOME' XDG_CONFIG_HOME='$XDG_CONFIG_HOME' XDG_DATA_HOME='$XDG_DATA_HOME' "$program" "\$@"
SCRIPT
    chmod 755 "$DEMO_DIR/$tool"
done

cat <<TEXT

What to look at (from another terminal, as root):
  * The application: Hollowmere runs $where.
  * The account: $DEMO_USER / $DEMO_PASSWORD on the lab's reference service.
  * $DEMO_DIR/hollowmerectl watch          one line per change; then use the switch in the
                                           app, or the commands below
  * $DEMO_DIR/hollowmerectl disconnect --wait, then connect --wait
  * $DEMO_DIR/hollowmerectl country GB      the tunnel moves to the new country
  * $DEMO_DIR/hollowmerectl routing add include example.com
    $DEMO_DIR/hollowmerectl routing include   selective routing (refused with the reason
                                           where the helper cannot run its DNS proxy)
  * $DEMO_DIR/curl $page
                                           answers only through the tunnel
  * Files: settings $XDG_CONFIG_HOME, domain lists $XDG_DATA_HOME/Hollowmere,
    the application's log $XDG_STATE_HOME/Hollowmere, the helper's logs $LAB_HELPER_LOGS

Press Ctrl-C to take everything down.
TEXT
"$ctl" watch &
pids+=($!)
wait "${pids[1]}"
