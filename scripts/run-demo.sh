#!/usr/bin/env bash
# The whole product on one machine: sets up and builds Hollowmere, brings up the VPN lab (an
# OpenVPN 2.6 server and the reference service with a demo account, in network namespaces
# of their own), starts the helper and the application in the lab's client namespace, signs
# in and connects through hollowmerectl, and proves that traffic goes through the tunnel.
#
#   scripts/run-demo.sh           leaves everything running until Ctrl-C, then takes it down
#   scripts/run-demo.sh --check   the same run without waiting; exit status 0 only when the
#                                 tunnel carried traffic
#
# Needs root for the namespaces (it asks sudo when run as another user). The host's own
# interfaces, routes and resolver are never touched.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

check=0
case "${1:-}" in
--check) check=1 ;;
"") ;;
*) sed -n '2,11p' "$0" >&2; exit 2 ;;
esac
if [ "$(id -u)" -ne 0 ]; then
    exec sudo --preserve-env=DISPLAY,WAYLAND_DISPLAY,XAUTHORITY,XDG_RUNTIME_DIR "$0" "$@"
fi

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

say "Setting up and building"
bash scripts/setup.sh
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B build -G Ninja "${launcher[@]}" >/dev/null
cmake --build build -j "$(nproc)" --target hollowmere hollowmerectl hmwispd wisproute hm-refservice

name="hmdemo$$"
dir="/tmp/$name"
user="demo@hollowmere.lab.test"
password="demo-password"
lab=(testing/lab/vpn-lab.sh)
# shellcheck disable=SC2317 # run by the EXIT trap
finish() {
    local status=$?
    trap - EXIT INT TERM
    say "Taking everything down"
    "${lab[@]}" down --name "$name" --dir "$dir" >/dev/null 2>&1 || true
    rm -rf "$dir"
    local left
    left=$(ip netns list 2>/dev/null | grep "^$name-" || true)
    left+=$(pgrep -f "$dir/" 2>/dev/null | tr '\n' ' ' || true)
    if [ -n "$left" ]; then
        echo "Left behind: $left" >&2
        exit 1
    fi
    echo "Done: no namespace, process or file of the demo is left."
    exit "$status"
}
trap finish EXIT
trap 'exit 130' INT TERM

say "Bringing up the VPN lab ($name)"
facts=$("${lab[@]}" up --name "$name" --dir "$dir" --service build/testing/refservice/hm-refservice \
    --helper build/src/helper/hmwispd --wisproute build/src/wisproute/wisproute --user "$user" --password "$password")
while IFS= read -r fact; do
    # shellcheck disable=SC2163 # the fact is NAME=VALUE
    case "$fact" in LAB_*=*) export "$fact" ;; esac
done <<<"$facts"
printf '  %s\n' "${facts//$'\n'/$'\n'  }"

# The proof page: only the server's tunnel address serves it, and only to tunnel clients.
ip netns exec "$LAB_SERVER_NAMESPACE" setsid python3 scripts/demo/tunnel-page.py 10.8.0.1 8000 \
    </dev/null >"$dir/tunnel-page.log" 2>&1 &

say "Starting the application on a private session bus"
set +e
DEMO_DIR="$dir" DEMO_USER="$user" DEMO_PASSWORD="$password" DEMO_CHECK="$check" \
    DEMO_ROOT="$root" DEMO_NAMESPACE="$LAB_CLIENT_NAMESPACE" ip netns exec "$LAB_CLIENT_NAMESPACE" \
    dbus-run-session -- bash scripts/demo/session.sh
status=$?
set -e
exit "$status"
