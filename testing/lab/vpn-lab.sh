#!/usr/bin/env bash
# A private OpenVPN lab made of two network namespaces joined by a veth pair:
#
#   <name>-srv   OpenVPN 2.6 servers (UDP 1194, TCP 443) with a fresh CA and certificates;
#                with --service also the reference service (HTTPS and HTTP on 10.231.0.3,
#                its control API on 10.231.0.1:8080), which then decides which credentials
#                the OpenVPN servers accept: only an account's current VPN token
#   <name>-cli   the client side: the helper, its OpenVPN and the application run here;
#                with --helper the helper is started there by systemd-socket-activate
#
# The host's own interfaces, routes and resolver are never touched: the veth ends are
# created inside the namespaces, and the client namespace gets its own hosts and resolv.conf
# through /etc/netns/<name>-cli/ (bind-mounted by "ip netns exec").
#
#   vpn-lab.sh up   --name NAME --dir DIR [OPTIONS]
#   vpn-lab.sh down --name NAME --dir DIR
#   vpn-lab.sh run  [OPTIONS] -- COMMAND [ARGS...]
#
#   OPTIONS: [--host HOST] [--user USER] [--password PASSWORD]
#            [--service HM_REFSERVICE [--domain DOMAIN]] [--helper HMWISPD [--wisproute WISPROUTE]]
#
# NAME must be unique per running lab (tests use their pid); DIR is a root-owned working
# directory. "up" prints the lab's facts as KEY=VALUE lines; "down" removes everything "up"
# made (processes, namespaces, /etc/netns entries, tun devices) and is safe to run after a
# partial or failed "up", or twice. Files for the client (ca.crt, key.crt, key.key) end up in
# DIR/client. Without --service, accepted credentials are the lines "USER PASSWORD" in
# DIR/server/credentials (add lines there to accept more); with it, USER and PASSWORD sign
# in to the service, whose account hands out the token the servers check.
#
# With --wisproute the helper runs that DNS proxy, and (where dnsmasq is installed) the
# server namespace answers names as two resolvers: the tunnel's (LAB_TUNNEL_RESOLVER, the
# helper's tunnel-dns, reached through the tunnel) says every *.lab.test name is
# 10.231.77.7 / fd00::77, the original one (LAB_ORIGINAL_RESOLVER, the client's resolv.conf,
# reached over lab0) says 10.231.88.8 / fd00::88, so an answer tells which way a name went.
#
# "run" makes a lab of its own (name and directory derived from its pid), runs COMMAND in
# the client namespace with the facts in its environment, and removes the lab whatever
# COMMAND did; its exit status is COMMAND's. Labs of "run"s that were killed outright are
# removed by the next "run". Without root or network namespaces COMMAND runs as it is, with
# HM_LAB_UNAVAILABLE saying why, so that a test can skip with a clear message.
set -euo pipefail

usage() {
    sed -n '2,40p' "$0" >&2
    exit 2
}

command=${1:-}
[ $# -gt 0 ] && shift
name="" dir="" host="vpn.lab.test" user="lab-user" password="lab-password"
service="" domain="hollowmere.lab.test" helper="" wisproute=""
tunnel_resolver=10.231.53.1 original_resolver=192.0.2.53
options=()
while [ $# -gt 0 ]; do
    case "$1" in
    --name) name=$2; shift 2 ;;
    --dir) dir=$2; shift 2 ;;
    --host) host=$2; options+=("$1" "$2"); shift 2 ;;
    --user) user=$2; options+=("$1" "$2"); shift 2 ;;
    --password) password=$2; options+=("$1" "$2"); shift 2 ;;
    --service) service=$(readlink -f "$2"); options+=("$1" "$2"); shift 2 ;;
    --domain) domain=$2; options+=("$1" "$2"); shift 2 ;;
    --helper) helper=$(readlink -f "$2"); options+=("$1" "$2"); shift 2 ;;
    --wisproute) wisproute=$(readlink -f "$2"); options+=("$1" "$2"); shift 2 ;;
    --) shift; break ;;
    *) usage ;;
    esac
done

# "run": a lab of its own around one command.
if [ "$command" = run ]; then
    [ $# -gt 0 ] || usage
    if [ "$(id -u)" -ne 0 ] || ! command -v ip >/dev/null || ! command -v openvpn >/dev/null ||
        [ ! -c /dev/net/tun ] || ! ip netns add "hmlab-probe-$$" 2>/dev/null; then
        HM_LAB_UNAVAILABLE="the VPN lab needs root, iproute2, network namespaces, /dev/net/tun and openvpn" \
            exec "$@"
    fi
    ip netns del "hmlab-probe-$$"
    # Labs whose "run" is gone (killed by a time-out) never cleaned up after themselves.
    for stale in $(ip netns list 2>/dev/null | sed -n 's/^hmlab\([0-9]\+\)-cli.*/\1/p'); do
        if ! kill -0 "$stale" 2>/dev/null; then
            "$0" down --name "hmlab$stale" --dir "/tmp/hmlab$stale" >/dev/null 2>&1 || true
            rm -rf "/tmp/hmlab$stale"
        fi
    done
    run_name="hmlab$$"
    run_dir="/tmp/hmlab$$"
    rm -rf "$run_dir"
    finish_run() {
        local status=$? left
        "$0" down --name "$run_name" --dir "$run_dir" >/dev/null 2>&1
        rm -rf "$run_dir"
        # Nothing may outlive the run: no namespace, no process working in the lab's folder.
        left=$(ip netns list 2>/dev/null | grep "^$run_name-" || true)
        left+=$(pgrep -f "$run_dir/" 2>/dev/null | while read -r pid; do
            [ "$(ps -o stat= -p "$pid" 2>/dev/null | cut -c1)" = Z ] || echo " pid $pid"
        done)
        if [ -n "$left" ]; then
            echo "vpn-lab: left behind after the run: $left" >&2
            exit 1
        fi
        exit "$status"
    }
    trap finish_run EXIT
    trap 'exit 130' INT TERM
    facts=$("$0" up --name "$run_name" --dir "$run_dir" "${options[@]}") || exit 1
    set +e
    (
        while IFS= read -r fact; do
            case "$fact" in
            # shellcheck disable=SC2163 # the fact is NAME=VALUE
            LAB_*=*) export "$fact" ;;
            esac
        done <<<"$facts"
        exec ip netns exec "$run_name-cli" "$@"
    )
    status=$?
    exit "$status"
fi

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
service_ip=10.231.0.3
control_port=8080
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
    local verify="$dir/server/check-credentials.sh"
    if [ -n "$service" ]; then
        verify="$service check-token --control $server_ip:$control_port"
    fi
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
auth-user-pass-verify "$verify" via-file
username-as-common-name
verb 3
log $dir/server/$proto.log
writepid $dir/server/$proto.pid
status $dir/server/$proto.status 1
CONF
    done
}

# The reference service: a certificate chain the client's certificate rule accepts (a leaf
# for "*.DOMAIN" issued by an authority named "RapidSSL CA", which a client must add to
# its trust store: LAB_SERVICE_CA), one account whose servers are
# this lab's, and the deployment file that points a client at it.
start_service() {
    local sdir="$dir/service"
    mkdir -p "$sdir/uploads"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj "/CN=RapidSSL CA" -keyout "$sdir/ca.key" -out "$sdir/ca.crt" 2>/dev/null
    printf 'subjectAltName = DNS:*.%s, DNS:%s\n' "$domain" "$domain" >"$sdir/leaf.cnf"
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -subj "/CN=*.$domain" -keyout "$sdir/leaf.key" -out "$sdir/leaf.csr" 2>/dev/null
    openssl x509 -req -in "$sdir/leaf.csr" -CA "$sdir/ca.crt" -CAkey "$sdir/ca.key" \
        -CAcreateserial -days 2 -extfile "$sdir/leaf.cnf" -out "$sdir/leaf.crt" 2>/dev/null
    cat "$sdir/leaf.crt" "$sdir/ca.crt" >"$sdir/chain.pem"
    cat >"$sdir/service.json" <<JSON
{
  "listeners": [
    {"name": "api", "address": "$service_ip", "port": 443, "cert": "$sdir/chain.pem", "key": "$sdir/leaf.key"},
    {"name": "api-http", "address": "$service_ip", "port": 80}
  ],
  "control": {"address": "$server_ip", "port": $control_port},
  "uploadsDir": "$sdir/uploads",
  "accounts": [{"username": "$user", "password": "$password", "plan": "paid",
                "dataAllowed": 1073741824, "dataCap": 1073741824,
                "vpnServers": [{"host": "$host", "port": 1194, "isUdp": true}],
                "fastestServers": {"US": [{"host": "$host", "port": 1194, "isUdp": true}]}}]
}
JSON
    cat >"$sdir/deployment.json" <<JSON
{"serviceDomain": "$domain", "streamingHost": "stream.$domain", "staticHost": "static.$domain",
 "webSiteRoot": "https://www.$domain", "helpHost": "help.$domain"}
JSON
    ip -n "$srv" addr add "$service_ip/24" dev lab0
    printf '%s %s www.%s stream.%s static.%s help.%s\n' "$service_ip" "$domain" "$domain" \
        "$domain" "$domain" "$domain" >>"/etc/netns/$cli/hosts"
    in_srv setsid "$service" serve --config "$sdir/service.json" </dev/null \
        >"$sdir/ready" 2>"$sdir/service.log" &
    local attempt
    for attempt in $(seq 1 100); do
        grep -q '"ready":true' "$sdir/ready" 2>/dev/null && return 0
        sleep 0.1
    done
    echo "vpn-lab: the reference service did not start:" >&2
    tail -n 5 "$sdir/service.log" >&2 || true
    return 1
}

# The helper as the service manager would run it: its own root-owned configuration, resource
# folder (the lab's client certificates and the shipped up/down scripts), logs and run
# folder, listening on a socket of its own, with the service unit's privilege limits.
start_helper() {
    local hdir="$dir/helper" packaged script
    packaged="$(cd "$(dirname "$0")/../.." && pwd)/packaging/openvpn"
    mkdir -p "$hdir/etc" "$hdir/share" "$hdir/log" "$hdir/run" "$hdir/app"
    chmod 755 "$hdir" "$hdir/etc" "$hdir/share" "$hdir/app"
    chmod 700 "$hdir/log" "$hdir/run"
    for script in client.up.tunnelblick.sh client.down.tunnelblick.sh; do
        install -m 755 "$packaged/$script" "$hdir/share/$script"
    done
    install -m 644 "$packaged/hollowmere-dns.sh" "$hdir/share/hollowmere-dns.sh"
    install -m 600 "$dir/client/ca.crt" "$dir/client/key.crt" "$dir/client/key.key" "$hdir/share/"
    ln -sf "$(readlink -f "$openvpn")" "$hdir/app/openvpn"
    # Without --wisproute there is no proxy: "checkDNSPortOpen" then says so.
    [ -z "$wisproute" ] || install -m 755 "$wisproute" "$hdir/app/wisproute"
    cat >"$hdir/etc/hmwispd.conf" <<CONF
# the lab's helper
openvpn = $(readlink -f "$openvpn")
wisproute = $hdir/app/wisproute
tunnel-dns = $tunnel_resolver
resources = $hdir/share
logs = $hdir/log
run = $hdir/run
management = $hdir/management
CONF
    chmod 644 "$hdir/etc/hmwispd.conf"
    ip netns exec "$cli" setsid setpriv --no-new-privs \
        --bounding-set=-all,+net_admin,+net_bind_service,+setuid,+setgid \
        systemd-socket-activate --listen="$hdir/hmwispd.socket" --fdname=MasterSocket \
        "$helper" --config "$hdir/etc/hmwispd.conf" </dev/null >>"$hdir/activate.log" 2>&1 &
    local attempt
    for attempt in $(seq 1 100); do
        # Listening, not merely bound: the file appears before listen(), and a client in
        # between would be refused.
        ip netns exec "$cli" ss -xlnH | grep -qF " $hdir/hmwispd.socket " && return 0
        sleep 0.05
    done
    echo "vpn-lab: the helper's socket did not appear" >&2
    cat "$hdir/activate.log" >&2 || true
    return 1
}

# The two resolvers of the selective-routing cases (see the header).
start_resolvers() {
    local role address answer
    for role in tunnel original; do
        if [ "$role" = tunnel ]; then address=$tunnel_resolver answer=77; else address=$original_resolver answer=88; fi
        ip -n "$srv" addr add "$address/32" dev lo
        in_srv dnsmasq --conf-file=/dev/null --no-resolv --no-hosts --bind-interfaces \
            --listen-address="$address" --address="/lab.test/10.231.$answer.$((answer / 11))" \
            --address="/lab.test/fd00::$answer" --pid-file="$dir/dns-$role.pid" \
            --log-facility="$dir/dns-$role.log"
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
    if [ -n "$service" ]; then
        start_service
    fi
    write_server_files
    local proto
    for proto in udp tcp; do
        in_srv "$openvpn" --config "$dir/server/$proto.conf" --daemon "vpn-lab-$proto" \
            >>"$dir/server/$proto.start.log" 2>&1
    done
    wait_for_servers
    if [ -n "$helper" ]; then
        start_helper
    fi
    local resolvers=""
    if [ -n "$wisproute" ] && command -v dnsmasq >/dev/null; then
        start_resolvers
        resolvers=yes
    fi
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
    if [ -n "$service" ]; then
        cat <<FACTS
LAB_SERVICE_DOMAIN=$domain
LAB_SERVICE_IP=$service_ip
LAB_SERVICE_CONTROL=$server_ip:$control_port
LAB_SERVICE_DEPLOYMENT=$dir/service/deployment.json
LAB_SERVICE_CA=$dir/service/ca.crt
LAB_SERVICE_UPLOADS=$dir/service/uploads
FACTS
    fi
    if [ -n "$helper" ]; then
        cat <<FACTS
LAB_HELPER_SOCKET=$dir/helper/hmwispd.socket
LAB_HELPER_APP_DIR=$dir/helper/app
LAB_HELPER_RESOURCES=$dir/helper/share
LAB_HELPER_RUN=$dir/helper/run
LAB_HELPER_MANAGEMENT=$dir/helper/management
LAB_HELPER_LOGS=$dir/helper/log
FACTS
    fi
    if [ -n "$resolvers" ]; then
        cat <<FACTS
LAB_TUNNEL_RESOLVER=$tunnel_resolver
LAB_ORIGINAL_RESOLVER=$original_resolver
FACTS
    fi
}

case "$command" in
up) up ;;
down) down ;;
*) usage ;;
esac
