#!/usr/bin/env bash
# Checks the Debian package the way CI does: lintian without errors, the desktop entry, the
# AppStream metadata, the systemd units, and an install -> run -> purge cycle on this
# machine that must leave no file, group, unit state or process behind.
#
#   packaging/check-deb.sh [PACKAGE.deb]     (builds the package when none is given)
set -euo pipefail
cd "$(dirname "$0")/.."
deb=${1:-$(bash packaging/build-deb.sh | tail -n 1)}
deb=$(readlink -f "$deb")
[ "$(id -u)" -eq 0 ] || { echo "check-deb: the install cycle needs root" >&2; exit 1; }
failed=0
fail() { echo "check-deb: FAILED: $*" >&2; failed=1; }
step() { printf '\n== %s\n' "$*"; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
dpkg-deb -x "$deb" "$work/root"

step "lintian"
lintian --fail-on error --suppress-tags-from-file /dev/null "$deb" || fail "lintian reports errors"

step "desktop-file-validate"
desktop-file-validate "$work"/root/usr/share/applications/*.desktop || fail "desktop entry"

step "appstreamcli validate"
appstreamcli validate --no-net --explain "$work"/root/usr/share/metainfo/*.metainfo.xml ||
    fail "AppStream metadata"

if dpkg-query -W -f='${Status}' hollowmere 2>/dev/null | grep -q 'installed'; then
    echo "check-deb: hollowmere is already installed here; not running the install cycle" >&2
    exit 1
fi
group_before=$(getent group hollowmere || true)

step "install"
DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "$deb" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log" >&2; fail "apt-get install"; exit 1; }
getent group hollowmere >/dev/null || fail "the group hollowmere was not created"
[ -L /etc/systemd/system/sockets.target.wants/com.hollowmere.mac.hmwispd.socket ] ||
    fail "the helper's socket is not enabled"
for program in /usr/bin/hollowmere /usr/bin/hollowmerectl /usr/libexec/hollowmere/hmwispd \
    /usr/libexec/hollowmere/openvpn; do
    [ -x "$program" ] || fail "$program is missing"
done

step "systemd-analyze verify"
systemd-analyze verify /lib/systemd/system/com.hollowmere.mac.hmwispd.socket \
    /lib/systemd/system/com.hollowmere.mac.hmwispd.service || fail "systemd units"

step "run"
# The installed application on a bus of its own, asked through the installed hollowmerectl.
run_home="$work/home"
mkdir -p "$run_home"
# shellcheck disable=SC2016 # expanded by the inner shell
HOME="$run_home" XDG_CONFIG_HOME="$run_home/config" XDG_DATA_HOME="$run_home/data" \
    XDG_STATE_HOME="$run_home/state" QT_QPA_PLATFORM=offscreen dbus-run-session -- sh -c '
        hollowmere >"$HOME/app.log" 2>&1 &
        app=$!
        for _ in $(seq 100); do hollowmerectl status >/dev/null 2>&1 && break; sleep 0.1; done
        hollowmerectl status; status=$?
        kill -TERM "$app"; wait "$app"
        exit $status' || fail "the installed application did not answer hollowmerectl"
man -w hollowmerectl >/dev/null || fail "no man page for hollowmerectl"

step "purge"
DEBIAN_FRONTEND=noninteractive apt-get purge -y -q hollowmere >"$work/purge.log" 2>&1 ||
    { cat "$work/purge.log" >&2; fail "apt-get purge"; }
left=$(find /usr/libexec/hollowmere /usr/share/hollowmere /var/log/hmwispd /run/hmwispd \
    /etc/hollowmere /usr/share/doc/hollowmere /usr/bin/hollowmere /usr/bin/hollowmerectl \
    /etc/systemd/system -name '*hollowmere*' -o -path '*hmwispd*' 2>/dev/null || true)
left+=$(find /var/lib/systemd/deb-systemd-helper-enabled /var/lib/systemd/deb-systemd-helper-masked \
    -name '*hollowmere*' 2>/dev/null || true)
[ -z "$left" ] || fail "left behind: $left"
if [ -z "$group_before" ] && getent group hollowmere >/dev/null; then
    fail "the group hollowmere is left behind"
fi
pgrep -f /usr/libexec/hollowmere/ >/dev/null && fail "a process of the package still runs"
dpkg-query -W hollowmere >/dev/null 2>&1 && fail "dpkg still knows the package"

[ "$failed" -eq 0 ] && printf '\ncheck-deb: all checks passed for %s\n' "$(basename "$deb")"
exit "$failed"
