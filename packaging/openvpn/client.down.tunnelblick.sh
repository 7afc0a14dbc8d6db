#!/bin/sh
# Run by OpenVPN when the tunnel goes down:
#   client.down.tunnelblick.sh [flags ...] <device> <tun-mtu> <link-mtu> <local> <remote> <init|restart>
# Puts back the name servers the up script replaced.
. "$(dirname "$0")/hollowmere-dns.sh" || exit 1

device="$(hm_device "$@")"
if [ -z "$device" ]; then
    hm_log "down: OpenVPN named no tunnel device"
    exit 1
fi
hm_dns_down "$device" || {
    hm_log "down: could not restore the name servers after $device"
    exit 1
}
exit 0
