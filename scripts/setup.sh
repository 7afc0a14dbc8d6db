#!/usr/bin/env bash
# Installs every Debian package Hollowmere needs to build, run and test.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  # build
  build-essential cmake ninja-build pkg-config clang-format ccache
  qt6-base-dev qt6-base-dev-tools libqt6opengl6-dev libgl-dev
  libspdlog-dev libfmt-dev libminizip-dev zlib1g-dev libsystemd-dev
  libssl-dev libcpp-httplib-dev
  # the DNS proxy: DNS messages, capabilities
  libldns-dev libcap-dev
  # run
  openvpn iproute2 dbus dbus-x11 systemd procps psmisc libqt6svg6
  # test-only: real Secret Service, notification daemon, certificates, display
  gnome-keyring dunst openssl xvfb xauth
  # test-only: another program's window taking the focus, and the windows' stacking order
  x11-utils xdotool
  # sanitizer and libFuzzer runtime, and the compiler for the fuzz targets
  libclang-rt-14-dev clang
  # group edits in the helper's tests
  passwd
  # test-only: the lab's resolvers, DNS queries and captures for selective routing
  dnsmasq-base ldnsutils tcpdump
  # diagnostics benchmark reference and reading received archives
  zip unzip
  # the demo's proof page and its request; the package and its checks
  python3 curl dpkg-dev fakeroot lintian desktop-file-utils appstream man-db librsvg2-bin
  # sanitizer runtime
  libclang-rt-14-dev
  # the README's pictures: keys and window lookup, X captures, a desktop colour scheme, PNG size
  xdotool imagemagick qt6ct optipng
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$p")
done

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -q
  "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# test-only: systemd-resolved for the DNS scripts' test, unpacked but never installed
# (installing it would take this machine's /etc/resolv.conf over); the test runs it in
# namespaces of its own. It must match the installed systemd's private library.
resolved_root=/opt/hollowmere-test/systemd-resolved
systemd_version="$(dpkg-query -W -f='${Version}' systemd)"
if [ ! -x /lib/systemd/systemd-resolved ] &&
  [ "$(cat "$resolved_root/.version" 2>/dev/null)" != "$systemd_version" ]; then
  download="$(mktemp -d)"
  chmod 755 "$download"
  # apt fetches as its own user when run as root.
  [ "$(id -u)" -ne 0 ] || chown _apt "$download" 2>/dev/null || true
  # Without it only that test is skipped (and says so), so a failed download does not stop here.
  if (cd "$download" && apt-get download -q "systemd-resolved=$systemd_version"); then
    "${sudo_cmd[@]}" rm -rf "$resolved_root"
    "${sudo_cmd[@]}" mkdir -p "$resolved_root"
    "${sudo_cmd[@]}" dpkg -x "$download"/systemd-resolved_*.deb "$resolved_root"
    echo "$systemd_version" | "${sudo_cmd[@]}" tee "$resolved_root/.version" >/dev/null
  else
    echo "setup.sh: systemd-resolved $systemd_version could not be downloaded;" \
      "HMDNSScriptsTest will skip its systemd-resolved case" >&2
  fi
  rm -rf "$download"
fi
