#!/usr/bin/env bash
# Photographs the real application the way a user sees it, for the README: `hollowmere`
# runs on a virtual X display inside the VPN lab (the reference service, an OpenVPN server
# and the helper, as scripts/run-demo.sh brings them up) and is driven the way a person or
# a desktop would drive it: keys typed into its windows, the tray item's Activate and menu
# over D-Bus, hollowmerectl for sign-in and sign-out, the tunnel and selective routing.
# Each window is captured from the X server. Light and dark desktop colour schemes (qt6ct,
# as on a desktop without Plasma or GNOME settings), at 1x and 2x (QT_SCALE_FACTOR); one
# lab for all pictures.
#
#   scripts/take-screenshots.sh [--build DIR] [--out DIR] [--quick]
#
# Defaults: --build build, --out docs/screenshots. The pictures are squeezed by optipng
# where it is installed, unless --quick. Needs root (the lab's namespaces). Exit status 1,
# naming the screen, when a window does not appear or its picture is empty.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build"
out="$root/docs/screenshots"
quick=0
while [ $# -gt 0 ]; do
    case "$1" in
    --build) build="$(readlink -f "$2")"; shift 2 ;;
    --out) out="$(readlink -m "$2")"; shift 2 ;;
    --quick) quick=1; shift ;;
    *) sed -n '11,15p' "$0" >&2; exit 2 ;;
    esac
done
if [ "$(id -u)" -ne 0 ]; then
    echo "take-screenshots: needs root for the VPN lab's network namespaces" >&2
    exit 1
fi
for tool in Xvfb xdotool import identify dbus-run-session gnome-keyring-daemon openvpn; do
    if ! command -v "$tool" >/dev/null; then
        echo "take-screenshots: $tool is missing (scripts/setup.sh installs it)" >&2
        exit 1
    fi
done
if ! ls /usr/lib/*/qt6/plugins/platformthemes/libqt6ct.so >/dev/null 2>&1; then
    echo "take-screenshots: the qt6ct colour schemes are missing (scripts/setup.sh installs them)" >&2
    exit 1
fi
programs=(src/gui/hollowmere src/ctl/hollowmerectl src/helper/hmwispd src/wisproute/wisproute
    testing/refservice/hm-refservice tests/gui/hm-fake-tray-watcher)
for program in "${programs[@]}"; do
    if [ ! -x "$build/$program" ]; then
        cmake --build "$build" --target "${programs[@]##*/}" >/dev/null
        break
    fi
done

name="hmshots$$"
dir="/tmp/$name"
user="demo@hollowmere.lab.test"
password="demo-password"
lab=("$root/testing/lab/vpn-lab.sh")
# shellcheck disable=SC2317 # run by the EXIT trap
finish() {
    local status=$?
    trap - EXIT INT TERM
    "${lab[@]}" down --name "$name" --dir "$dir" >/dev/null 2>&1 || true
    rm -rf "$dir"
    exit "$status"
}
trap finish EXIT
trap 'exit 130' INT TERM

facts=$("${lab[@]}" up --name "$name" --dir "$dir" --service "$build/testing/refservice/hm-refservice" \
    --helper "$build/src/helper/hmwispd" --wisproute "$build/src/wisproute/wisproute" \
    --user "$user" --password "$password")
while IFS= read -r fact; do
    # shellcheck disable=SC2163 # the fact is NAME=VALUE
    case "$fact" in LAB_*=*) export "$fact" ;; esac
done <<<"$facts"

mkdir -p "$out"
SHOTS_DIR="$dir" SHOTS_OUT="$out" SHOTS_ROOT="$root" SHOTS_BUILD="$build" SHOTS_USER="$user" \
    SHOTS_PASSWORD="$password" ip netns exec "$LAB_CLIENT_NAMESPACE" \
    dbus-run-session -- bash "$root/scripts/screenshots/session.sh"
if [ "$quick" = 0 ] && command -v optipng >/dev/null; then
    optipng -quiet -o1 "$out"/*.png
fi
