#!/usr/bin/env bash
# The screenshots' desktop session, run by scripts/take-screenshots.sh inside the VPN lab's
# client namespace on a private session bus: a virtual X display, a Secret Service, a tray
# host, and the application, started once per colour scheme and scale. Not meant to be
# started by hand.
set -Eeuo pipefail
cd "$SHOTS_ROOT"
ctl="$SHOTS_BUILD/src/ctl/hollowmerectl"
home="$SHOTS_DIR/home"
work="$SHOTS_DIR/shots"
# A picture with fewer colours than this is a blank or unpainted window.
minimum_colours=12

mkdir -p "$home/runtime" "$work"
chmod 700 "$home/runtime"
export HOME="$home" XDG_RUNTIME_DIR="$home/runtime"
export HOLLOWMERE_HELPER_SOCKET="$LAB_HELPER_SOCKET" HOLLOWMERE_HELPER_RESOURCES="$LAB_HELPER_RESOURCES" \
    HOLLOWMERE_HELPER_MANAGEMENT="$LAB_HELPER_MANAGEMENT"

pids=()
app=""
stop_all() {
    local pid
    for pid in $app "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in $app "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap stop_all EXIT
trap 'exit 130' INT TERM
trap 'fail "${shot_step:-setting up}: \"$BASH_COMMAND\" failed"' ERR

fail() {
    trap - ERR
    if [ -n "$app" ] && ! kill -0 "$app" 2>/dev/null; then
        set -- "$*" "(the application is no longer running)"
    fi
    echo "take-screenshots: $*" >&2
    local log wid
    if [ -n "$app" ] && [ -n "${DISPLAY:-}" ]; then
        for wid in $(xdotool search --onlyvisible --pid "$app" --name . 2>/dev/null || true); do
            echo "--- shown: \"$(xdotool getwindowname "$wid" 2>/dev/null || true)\" $(xdotool getwindowgeometry "$wid" 2>/dev/null | tr -s '\n ' ' ')" >&2
        done
    fi
    for log in "$home/app.log" "$home"/*/state/Hollowmere/*.log; do
        [ ! -s "$log" ] || { echo "--- $log" >&2; tail -n 15 "$log" >&2; }
    done
    exit 1
}

# Polls COMMAND for up to SECONDS; the status of the last try.
within() {
    local seconds=$1
    shift
    for _ in $(seq $((seconds * 10))); do
        "$@" && return 0
        sleep 0.1
    done
    "$@"
}

# The virtual display, with no window manager: windows stay where the application puts them.
Xvfb -displayfd 3 -screen 0 1600x1200x24 -nolisten tcp 3>"$work/display" >"$home/xvfb.log" 2>&1 &
pids+=($!)
within 10 test -s "$work/display" || fail "the virtual display did not start"
DISPLAY=":$(cat "$work/display")"
export DISPLAY
# The notification server the bus starts on demand must find the same display.
dbus-update-activation-environment DISPLAY

printf 'hollowmere-shots' | gnome-keyring-daemon --foreground --unlock --components=secrets \
    >"$home/keyring.log" 2>&1 &
pids+=($!)
# The desktop's tray host: the application shows its tray item and opens its panel from it.
"$SHOTS_BUILD/tests/gui/hm-fake-tray-watcher" --host >"$home/tray.log" 2>&1 &
pids+=($!)
within 10 dbus-send --session --print-reply --dest=org.kde.StatusNotifierWatcher \
    /StatusNotifierWatcher org.freedesktop.DBus.Peer.Ping >/dev/null 2>&1 ||
    fail "the tray host did not start"

# A second, unconfirmed account on the reference service: signing in with it is how a new
# user meets the verification screen.
newcomer="new@hollowmere.lab.test"
curl -sf -m 5 -X POST "http://$LAB_SERVICE_CONTROL/test/accounts" -H 'Content-Type: application/json' \
    -d "{\"accounts\":[{\"username\":\"$newcomer\",\"password\":\"new-password\",\"confirmed\":false}]}" \
    >/dev/null || fail "the reference service did not take the unconfirmed account"

status_has() { "$ctl" status --json 2>/dev/null | grep -q "$1"; }

# The application's visible window named TITLE.
window_of() {
    local wid
    for wid in $(xdotool search --onlyvisible --pid "$app" --name . 2>/dev/null || true); do
        [ "$(xdotool getwindowname "$wid" 2>/dev/null || true)" != "$1" ] || echo "$wid"
    done | tail -n 1
}

# The window's picture as the X server has it; import waits for ever for a window that went
# away meanwhile.
capture() { timeout 10 import -window "$1" "png:$2" 2>/dev/null; }

has_window() { [ -n "$(window_of "$1")" ]; }
no_window() { [ -z "$(window_of "$1")" ]; }

# Waits until the window named TITLE has stopped changing (slides and fades done) and leaves
# it in PICTURE; at most TRIES captures (the connecting spinner never stops: its last frame
# is kept).
settle() {
    local title=$1 picture=$2 tries=${3:-20} wid previous="$work/previous.png"
    within 10 has_window "$title" || return 1
    wid=$(window_of "$title")
    rm -f "$previous"
    for _ in $(seq "$tries"); do
        capture "$wid" "$picture" || return 1
        cmp -s "$picture" "$previous" && return 0
        cp "$picture" "$previous"
        sleep 0.1
    done
}

# Captures the window named TITLE as the picture NAME.
shoot() {
    local shot=$1 title=$2 picture="$work/$1.png" colours
    shot_step="after $shot"
    settle "$title" "$picture" "${3:-20}" || fail "$shot: no window \"$title\" could be captured"
    colours=$(identify -format '%k' "$picture")
    [ "$colours" -ge "$minimum_colours" ] || fail "$shot: the picture is empty ($colours colours)"
    # Each picture follows a step that changes what is shown: the same picture again means
    # the keys or the command never reached the application.
    if [ -n "$last_shot" ] && cmp -s "$picture" "$last_shot"; then
        fail "$shot: the window still shows the previous screen"
    fi
    cp "$picture" "$work/last.png"
    last_shot="$work/last.png"
    mv "$picture" "$SHOTS_OUT/$shot-$scheme@${scale}x.png"
    echo "$SHOTS_OUT/$shot-$scheme@${scale}x.png"
}

# Keys typed into the window named TITLE, as a person would.
type_into() {
    local title=$1 wid
    shift
    wid=$(window_of "$title")
    [ -n "$wid" ] || fail "no window \"$title\" to type into"
    # --sync waits for the focus for ever when the window goes away meanwhile.
    timeout 5 xdotool windowfocus --sync "$wid" || fail "the window \"$title\" took no keyboard focus"
    local text
    for text in "$@"; do
        case "$text" in
        key:*) xdotool key "${text#key:}" ;;
        *) xdotool type --delay 15 "$text" ;;
        esac
    done
}

# Keys that change the screen in the window named TITLE: waits for the change to start
# before waiting for it to end, so that nothing is typed into a screen still sliding in.
press() {
    local title=$1 before="$work/before.png" now="$work/now.png" wid
    shift
    settle "$title" "$before" || fail "no window \"$title\" to press keys in"
    type_into "$title" "$@"
    for _ in $(seq 30); do
        wid=$(window_of "$title")
        [ -n "$wid" ] || return 0
        capture "$wid" "$now" || return 0
        cmp -s "$before" "$now" || break
        sleep 0.1
    done
    # A slide eases out over its last pixels, slower than a capture: let it end first.
    sleep 0.35
    settle "$title" "$now" || true
}

# The tray item as "<bus name>/<object path>", as the tray host lists it.
tray_item() {
    local item
    item=$(dbus-send --session --print-reply --dest=org.kde.StatusNotifierWatcher /StatusNotifierWatcher \
        org.freedesktop.DBus.Properties.Get string:org.kde.StatusNotifierWatcher \
        string:RegisteredStatusNotifierItems | sed -n 's/^ *string "\(.*\)"$/\1/p' | tail -n 1)
    [ -n "$item" ] || fail "the application registered no tray item"
    echo "$item"
}

# The tray item's Activate, as a desktop's panel sends it on a click.
activate_tray_item() {
    local item
    item=$(tray_item)
    dbus-send --session --type=method_call --dest="${item%%/*}" "/${item#*/}" \
        org.kde.StatusNotifierItem.Activate int32:800 int32:0
}

# Picks the tray menu's entry whose label starts with LABEL, as a panel does when a person
# chooses it: the item's menu (com.canonical.dbusmenu) is read and the entry "clicked".
choose_tray_menu_entry() {
    local item service menu layout id
    item=$(tray_item)
    service=${item%%/*}
    menu=$(gdbus call --session --dest "$service" --object-path "/${item#*/}" \
        --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierItem Menu |
        sed -n "s/.*objectpath '\([^']*\)'.*/\1/p")
    [ -n "$menu" ] || fail "the tray item offers no menu"
    layout=$(gdbus call --session --dest "$service" --object-path "$menu" \
        --method com.canonical.dbusmenu.GetLayout 0 -- -1 '[]')
    id=$(grep -oP "\(\K[0-9]+(?=, \{[^}]*'label': <'$1)" <<<"$layout" | head -n 1 || true)
    [ -n "$id" ] || fail "the tray menu has no entry \"$1\""
    gdbus call --session --dest "$service" --object-path "$menu" \
        --method com.canonical.dbusmenu.Event "$id" clicked '<0>' 0 >/dev/null
}

# The panel is a popup that closes when the application loses the focus, which it may do
# a moment after a window of its own closed: a person clicks the icon again, so do we.
open_panel() {
    local _
    for _ in 1 2 3 4 5; do
        [ -n "$(window_of Hollowmere)" ] || activate_tray_item
        within 3 has_window Hollowmere || continue
        sleep 0.5
        [ -z "$(window_of Hollowmere)" ] || return 0
    done
    fail "the panel did not stay open after a click on the tray item"
}

# Waits until the application's state (hollowmerectl status --json) holds TEXT.
wait_for() {
    local what=$1 text=$2 seconds=${3:-20}
    within "$seconds" status_has "$text" || fail "$what: the application never showed $text"
}

photograph_everything() {
    # Signed out: the launch screen, then a new user's sign-in, typed into the real fields.
    shoot launch Hollowmere
    press Hollowmere key:Return # "Sign In" is the launch screen's default button
    type_into Hollowmere "$newcomer" key:Tab new-password
    shoot sign-in Hollowmere
    # Not confirmed yet: the verification screen.
    press Hollowmere key:Return
    shoot verify-email Hollowmere
    "$ctl" logout >/dev/null || fail "verify-email: hollowmerectl logout was refused"

    # Back on the sign-in screen, which remembers the address and waits for the password:
    # past the "Sign In" button, disabled without one, to "Create an account instead". The
    # e-mail addresses differ: the first check that fails rings the second one.
    press Hollowmere key:Tab key:space
    type_into Hollowmere ann key:Tab "de la cruz" key:Tab ann@example.com key:Tab \
        ann@example.org key:Tab 'Tr0ub4dor&3x' key:Tab 'Tr0ub4dor&3x'
    press Hollowmere key:Return
    shoot create-account-error Hollowmere

    # The demo account, signed in from the command line: the panel opens from the tray item.
    printf '%s\n' "$SHOTS_PASSWORD" | "$ctl" login "$SHOTS_USER" >/dev/null ||
        fail "main-disconnected: hollowmerectl login was refused"
    within 10 no_window Hollowmere || fail "the sign-in window stayed open"
    open_panel
    shoot main-disconnected Hollowmere

    # Connecting is held by a server that does not answer yet, then let go.
    local server
    server=$(cat "$SHOTS_DIR/server/udp.pid")
    kill -STOP "$server"
    "$ctl" connect >/dev/null || { kill -CONT "$server"; fail "main-connecting: connect was refused"; }
    wait_for main-connecting 'Connecting'
    open_panel
    shoot main-connecting Hollowmere 3
    kill -CONT "$server"
    wait_for main-connected '"StateText": "Connected"' 60
    open_panel
    shoot main-connected Hollowmere

    "$ctl" routing add include example.com >/dev/null
    "$ctl" routing include >/dev/null || fail "main-wisproute: selective routing was refused"
    open_panel
    shoot main-wisproute Hollowmere
    "$ctl" routing off >/dev/null
    "$ctl" routing remove include example.com >/dev/null

    # Preferences from the tray menu.
    choose_tray_menu_entry Preferences
    shoot preferences-general "Hollowmere Preferences"
    press "Hollowmere Preferences" key:Tab key:ctrl+Tab key:ctrl+Tab key:ctrl+Tab
    shoot preferences-account "Hollowmere Preferences"

    "$ctl" disconnect --wait --timeout 30 >/dev/null || fail "the tunnel did not come down"
}

for scheme in light dark; do
    if [ "$scheme" = dark ]; then
        palette="custom_palette=true
color_scheme_path=/usr/share/qt6ct/colors/darker.conf"
    else
        palette="custom_palette=false"
    fi
    for scale in 1 2; do
        # Each run is a first start: settings, state and the remembered user of its own.
        user="$home/$scheme@$scale"
        mkdir -p "$user/data" "$user/config/hollowmere" "$user/config/qt6ct" "$user/state" "$user/cache"
        cp "$LAB_SERVICE_DEPLOYMENT" "$user/config/hollowmere/deployment.json"
        printf '[Appearance]\nstyle=Fusion\n%s\n' "$palette" >"$user/config/qt6ct/qt6ct.conf"
        XDG_DATA_HOME="$user/data" XDG_CONFIG_HOME="$user/config" XDG_STATE_HOME="$user/state" \
            XDG_CACHE_HOME="$user/cache" QT_QPA_PLATFORMTHEME=qt6ct QT_SCALE_FACTOR=$scale \
            testing/lab/with-trusted-ca.sh "$LAB_SERVICE_CA" "$user/certs" -- \
            "$SHOTS_BUILD/src/gui/hollowmere" >"$home/app.log" 2>&1 &
        app=$!
        last_shot=""
        within 20 "$ctl" status >/dev/null 2>&1 || fail "the application did not start"
        photograph_everything
        "$ctl" logout >/dev/null 2>&1 || true
        kill "$app"
        wait "$app" || fail "the application did not quit cleanly on SIGTERM"
        app=""
    done
done
