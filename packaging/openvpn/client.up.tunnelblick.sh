#!/bin/sh
# Run by OpenVPN when the tunnel comes up (and, with --up-restart, after each restart):
#   client.up.tunnelblick.sh [flags ...] <device> <tun-mtu> <link-mtu> <local> <remote> <init|restart>
# The flags the application passes are accepted as written; on Linux the name servers are
# simply set for the tunnel and everything else stays as it is.
. "$(dirname "$0")/hollowmere-dns.sh" || exit 1

device="$(hm_device "$@")"
if [ -z "$device" ]; then
    hm_log "up: OpenVPN named no tunnel device"
    exit 1
fi
hm_dns_up "$device" || {
    hm_log "up: could not set the name servers for $device"
    exit 1
}
exit 0
