# Shared by the tunnel's up and down scripts (sourced, not run). OpenVPN runs them as root
# with its own environment: "dev", the pushed and local options as foreign_option_<n>, and
# HM_STATE_DIR, the helper's private run directory, where the up script keeps what the down
# script must put back.
#
# Where systemd-resolved manages this machine's names, the name servers are given to it for
# the tunnel's link; otherwise /etc/resolv.conf is saved, replaced and later restored. The
# resolver is only asked when the scripts run in the host's own network namespace: it cannot
# serve a namespace of its own, and must not be changed for one.

PATH=/usr/sbin:/usr/bin:/sbin:/bin
export PATH
umask 022

HM_RESOLV_CONF=/etc/resolv.conf
HM_MARKER="# Written by Hollowmere for the tunnel"

hm_log() {
    echo "hollowmere-dns: $*"
}

# The words after the script's own flags: OpenVPN's device, MTUs, addresses and init/restart.
hm_device() {
    while [ $# -gt 0 ]; do
        case "$1" in
        -*) shift ;;
        *) break ;;
        esac
    done
    printf '%s\n' "${dev:-${1:-}}"
}

hm_state_file() {
    printf '%s/resolv.conf.%s\n' "${HM_STATE_DIR:-/run/hmwispd}" "$1"
}

# The resolvers in force before the tunnel, one "nameserver" line each: the DNS proxy sends
# the names that must not use the tunnel there. Loopback addresses are left out: with the
# proxy on 127.0.0.1 they would be the proxy itself, or a local stub that would ask it back.
hm_originals_file() {
    printf '%s/resolvers.original\n' "${HM_STATE_DIR:-/run/hmwispd}"
}

hm_save_originals() {
    device="$1"
    originals="$(hm_originals_file)"
    mkdir -p "$(dirname "$originals")" || return 1
    if hm_uses_resolved; then
        # "Global: a b" and "Link 2 (eth0): a b"; the tunnel's own link is not an original.
        resolvectl dns 2>/dev/null | grep -v "($device)" | sed 's/^[^:]*://' | tr ' ' '\n'
    else
        sed -n 's/^[[:space:]]*nameserver[[:space:]]\{1,\}\([^[:space:]]*\).*/\1/p' \
            "$HM_RESOLV_CONF" 2>/dev/null
    fi | grep -E '^[0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$' | grep -v '^127\.' |
        sed 's/^/nameserver /' >"$originals.new" || true
    mv -f "$originals.new" "$originals"
}

# Fills HM_SERVERS and HM_DOMAINS from "dhcp-option DNS|DNS6|DOMAIN|DOMAIN-SEARCH" options.
hm_collect_options() {
    HM_SERVERS=""
    HM_DOMAINS=""
    i=1
    while :; do
        eval "option=\${foreign_option_$i:-}"
        [ -n "$option" ] || break
        # shellcheck disable=SC2086 # split the option into its words on purpose
        set -- $option
        if [ "${1:-}" = "dhcp-option" ] && [ -n "${3:-}" ]; then
            case "$2" in
            DNS | DNS6) HM_SERVERS="$HM_SERVERS $3" ;;
            DOMAIN | DOMAIN-SEARCH) HM_DOMAINS="$HM_DOMAINS $3" ;;
            esac
        fi
        i=$((i + 1))
    done
}

hm_uses_resolved() {
    command -v resolvectl >/dev/null 2>&1 || return 1
    [ -d /run/systemd/resolve ] || return 1
    [ "$(readlink /proc/self/ns/net)" = "$(readlink /proc/1/ns/net 2>/dev/null)" ] || return 1
    resolvectl status >/dev/null 2>&1
}

hm_dns_up() {
    device="$1"
    hm_collect_options
    if [ -z "$HM_SERVERS" ]; then
        hm_log "no name servers given for $device; names resolve as before"
        return 0
    fi
    # Only the first run knows the originals: after a restart the resolver file is ours.
    if [ ! -e "$(hm_state_file "$device")" ]; then
        hm_save_originals "$device" || return 1
    fi
    if hm_uses_resolved; then
        # shellcheck disable=SC2086
        resolvectl dns "$device" $HM_SERVERS || return 1
        # shellcheck disable=SC2086
        resolvectl domain "$device" "~." $HM_DOMAINS || return 1
        resolvectl default-route "$device" true 2>/dev/null
        resolvectl flush-caches 2>/dev/null
        hm_log "systemd-resolved uses$HM_SERVERS for $device"
        return 0
    fi

    saved="$(hm_state_file "$device")"
    # A restart of the tunnel runs this again; the first saved copy is the one to keep.
    if [ ! -e "$saved" ]; then
        mkdir -p "$(dirname "$saved")" || return 1
        if [ -L "$HM_RESOLV_CONF" ]; then
            printf 'link %s\n' "$(readlink "$HM_RESOLV_CONF")" >"$saved.new" || return 1
        elif [ -e "$HM_RESOLV_CONF" ]; then
            { echo file; cat "$HM_RESOLV_CONF"; } >"$saved.new" || return 1
        else
            echo absent >"$saved.new" || return 1
        fi
        mv -f "$saved.new" "$saved" || return 1
    fi

    new="$saved.resolv"
    {
        echo "$HM_MARKER $device; put back when it goes down"
        [ -z "$HM_DOMAINS" ] || echo "search$HM_DOMAINS"
        for server in $HM_SERVERS; do
            echo "nameserver $server"
        done
    } >"$new" || return 1
    # Written in place when it is a file: it may be a bind mount that cannot be replaced.
    if [ -L "$HM_RESOLV_CONF" ]; then
        rm -f "$HM_RESOLV_CONF" || return 1
    fi
    cat "$new" >"$HM_RESOLV_CONF" || return 1
    rm -f "$new"
    hm_log "$HM_RESOLV_CONF now names$HM_SERVERS for $device"
}

hm_dns_down() {
    device="$1"
    rm -f "$(hm_originals_file)"
    saved="$(hm_state_file "$device")"
    if [ ! -e "$saved" ]; then
        if hm_uses_resolved; then
            resolvectl revert "$device" 2>/dev/null
        fi
        return 0
    fi
    # Put the old file back only if it is still ours; if something else rewrote it while
    # the tunnel was up, that newer file stays.
    if head -n 1 "$HM_RESOLV_CONF" 2>/dev/null | grep -q "^$HM_MARKER"; then
        kind="$(head -n 1 "$saved")"
        case "$kind" in
        link\ *)
            rm -f "$HM_RESOLV_CONF" && ln -s "${kind#link }" "$HM_RESOLV_CONF" || return 1
            ;;
        file)
            tail -n +2 "$saved" >"$HM_RESOLV_CONF" || return 1
            ;;
        absent)
            rm -f "$HM_RESOLV_CONF" || return 1
            ;;
        esac
        hm_log "$HM_RESOLV_CONF restored after $device"
    else
        hm_log "$HM_RESOLV_CONF was changed by someone else while $device was up; left as it is"
    fi
    rm -f "$saved"
}
