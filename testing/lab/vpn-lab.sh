#!/usr/bin/env bash
# A private OpenVPN lab made of two network namespaces joined by a veth pair:
#
#   <name>-srv   OpenVPN 2.6 servers (UDP 1194, TCP 443) with a fresh CA and certificates
#   <name>-cli   the client side: the helper, its OpenVPN and the application run here
#
# The host's own interfaces, routes and resolver are never touched: the veth ends are
# created inside the namespaces, and the client namespace gets its own hosts and resolv.conf
# through /etc/netns/<name>-cli/ (bind-mounted by "ip netns exec").
#
#   vpn-lab.sh up   --name NAME --dir DIR [--host HOST] [--user USER] [--password PASSWORD]
#   vpn-lab.sh down --name NAME --dir DIR
#
# NAME must be unique per running lab (tests use their pid); DIR is a root-owned working
# directory. "up" prints the lab's facts as KEY=VALUE lines; "down" removes everything "up"
# made (processes, namespaces, /etc/netns entries, tun devices) and is safe to run after a
# partial or failed "up", or twice. Files for the client (ca.crt, key.crt, key.key) end up in
# DIR/client. Accepted credentials are the lines "USER PASSWORD" in DIR/server/credentials;
# add lines there to accept more.
set -euo pipefail

usage() {
    sed -n '2,21p' "$0" >&2
    exit 2
}

command=${1:-}
[ $# -gt 0 ] && shift
name="" dir="" host="vpn.lab.test" user="lab-user" password="lab-password"
while [ $# -gt 0 ]; do
    case "$1" in
    --name) name=$2; shift 2 ;;
    --dir) dir=$2; shift 2 ;;
    --host) host=$2; shift 2 ;;
    --user) user=$2; shift 2 ;;
    --password) password=$2; shift 2 ;;
    *) usage ;;
    esac
done
if [ -z "$name" ] || [ -z "$dir" ]; then
    usage
fi
case "$name" in
*[!a-zA-Z0-9_-]* | "") echo "vpn-lab: NAME may hold only letters, digits, '-' and '_'" >&2; exit 2 ;;
esac

srv="$name-srv"
cli="$name-cli"
server_ip=10.231.0.1
client_ip=10.231.0.2
openvpn=$(command -v openvpn || echo /usr/sbin/openvpn)

in_srv() { ip netns exec "$srv" "$@"; }

# Ends every process that still runs in a namespace, then the namespace itself.
remove_namespace() {
    local ns=$1 pids attempt signal
    ip netns list 2>/dev/null | grep -qw "^$ns" || { rm -rf "/etc/netns/$ns"; return 0; }
    for attempt in 1 2 3 4 5 6 7 8 9 10; do
        pids=$(ip netns pids "$ns" 2>/dev/null || true)
        [ -n "$pids" ] || break
        signal=TERM
        [ "$attempt" -le 5 ] || signal=KILL
        # shellcheck disable=SC2086 # one word per pid
        kill -s "$signal" $pids 2>/dev/null || true
        sleep 0.2
    done
    ip netns del "$ns" 2>/dev/null || true
    rm -rf "/etc/netns/$ns"
}

down() {
    remove_namespace "$cli"
    remove_namespace "$srv"
    # Processes started with "ip netns exec" that left the namespace are found by their
    # pid files, and only if they still run OpenVPN.
    local pidfile pid
    for pidfile in "$dir"/server/*.pid; do
        [ -f "$pidfile" ] || continue
        pid=$(cat "$pidfile" 2>/dev/null || true)
        if [ -n "$pid" ] && [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" = "$(readlink -f "$openvpn")" ]; then
            kill -KILL "$pid" 2>/dev/null || true
        fi
        rm -f "$pidfile"
    done
}

make_certificates() {
    local pki="$dir/pki"
    mkdir -p "$pki" "$dir/client" "$dir/server"
    cat >"$pki/ext.cnf" <<CNF
[server]
basicConstraints = CA:FALSE
keyUsage = digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
nsCertType = server
subjectAltName = DNS:$host
[client]
basicConstraints = CA:FALSE
keyUsage = digitalSignature
extendedKeyUsage = clientAuth
CNF
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj "/CN=Hollowmere Lab CA $name" -keyout "$pki/ca.key" -out "$pki/ca.crt" 2>/dev/null
    local role
    for role in server client; do
        openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
            -subj "/CN=$role.$host" -keyout "$pki/$role.key" -out "$pki/$role.csr" 2>/dev/null
        openssl x509 -req -in "$pki/$role.csr" -CA "$pki/ca.crt" -CAkey "$pki/ca.key" \
            -CAcreateserial -days 2 -extfile "$pki/ext.cnf" -extensions "$role" \
            -out "$pki/$role.crt" 2>/dev/null
    done
    cp "$pki/ca.crt" "$dir/client/ca.crt"
    cp "$pki/client.crt" "$dir/client/key.crt"
    cp "$pki/client.key" "$dir/client/key.key"
    cp "$pki/ca.crt" "$pki/server.crt" "$pki/server.key" "$dir/server/"
    chmod 600 "$dir/client/key.key" "$dir/server/server.key"
}

write_server_files() {
    printf '%s %s\n' "$user" "$password" >"$dir/server/credentials"
    chmod 600 "$dir/server/credentials"
    cat >"$dir/server/check-credentials.sh" <<'SH'
#!/bin/sh
# OpenVPN passes a file with the user name and the password on two lines.
user=$(sed -n 1p "$1")
password=$(sed -n 2p "$1")
while read -r u p; do
    [ "$u" = "$user" ] && [ "$p" = "$password" ] && exit 0
done <"$(dirname "$0")/credentials"
exit 1
SH
    chmod 755 "$dir/server/check-credentials.sh"
    local proto port subnet
    for proto in udp tcp; do
        if [ "$proto" = udp ]; then port=1194 subnet=10.8.0.0; else port=443 subnet=10.9.0.0; fi
        cat >"$dir/server/$proto.conf" <<CONF
dev tun-$proto
proto $proto$([ "$proto" = tcp ] && echo -server)
local $server_ip
port $port
topology subnet
server $subnet 255.255.255.0
ca $dir/server/ca.crt
cert $dir/server/server.crt
key $dir/server/server.key
dh none
comp-lzo
keepalive 10 60
script-security 2
auth-user-pass-verify $dir/server/check-credentials.sh via-file
username-as-common-name
verb 3
log $dir/server/$proto.log
writepid $dir/server/$proto.pid
status $dir/server/$proto.status 1
CONF
    done
}

wait_for_servers() {
    local attempt proto
    for attempt in $(seq 1 100); do
        if in_srv ss -Hlun "sport = :1194" | grep -q . && in_srv ss -Hltn "sport = :443" | grep -q .; then
            return 0
        fi
        for proto in udp tcp; do
            if [ -f "$dir/server/$proto.pid" ] && ! kill -0 "$(cat "$dir/server/$proto.pid")" 2>/dev/null; then
                echo "vpn-lab: the $proto server stopped:" >&2
                tail -n 5 "$dir/server/$proto.log" >&2 || true
                return 1
            fi
        done
        sleep 0.1
    done
    echo "vpn-lab: the servers did not start listening" >&2
    return 1
}

up() {
    trap 'echo "vpn-lab: set-up failed; removing what was made" >&2; down' ERR
    mkdir -p "$dir"
    chmod 755 "$dir"
    ip netns add "$srv"
    ip netns add "$cli"
    ip -n "$srv" link set lo up
    ip -n "$cli" link set lo up
    ip -n "$srv" link add lab0 type veth peer name lab0 netns "$cli"
    ip -n "$srv" addr add "$server_ip/24" dev lab0
    ip -n "$cli" addr add "$client_ip/24" dev lab0
    ip -n "$srv" link set lab0 up
    ip -n "$cli" link set lab0 up
    # Everything the client sends outside the tunnel goes to the server namespace, which
    # routes nowhere: nothing can leave the lab.
    ip -n "$cli" route add default via "$server_ip"

    mkdir -p "/etc/netns/$cli"
    printf '127.0.0.1 localhost\n%s %s\n' "$server_ip" "$host" >"/etc/netns/$cli/hosts"
    # A resolver file of the client namespace's own, for the up/down scripts to change.
    printf 'nameserver 192.0.2.53\n' >"/etc/netns/$cli/resolv.conf"

    make_certificates
    write_server_files
    local proto
    for proto in udp tcp; do
        in_srv "$openvpn" --config "$dir/server/$proto.conf" --daemon "vpn-lab-$proto" \
            2>>"$dir/server/$proto.start.log"
    done
    wait_for_servers
    trap - ERR

    cat <<FACTS
LAB_SERVER_NAMESPACE=$srv
LAB_CLIENT_NAMESPACE=$cli
LAB_SERVER_IP=$server_ip
LAB_CLIENT_IP=$client_ip
LAB_HOST=$host
LAB_UDP_PORT=1194
LAB_TCP_PORT=443
LAB_USER=$user
LAB_PASSWORD=$password
LAB_CLIENT_FILES=$dir/client
LAB_CLIENT_RESOLV_CONF=/etc/netns/$cli/resolv.conf
FACTS
}

case "$command" in
up) up ;;
down) down ;;
*) usage ;;
esac
