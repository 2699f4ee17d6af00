#!/bin/sh
# vlan_host.sh BUILD: this machine's own DHCP on br0, br0.10 and br0.20 of a VLAN-aware bridge, which the kernel of the lab may not have.
# For the emulated machine of scripts/test-kernel: everything stays. Each row is told as googletest tells it.
build=$1
export DHCPSNOOP_CONFIG=/run/conf
mkdir -p /etc /run/conf /run/netns /var/lib/misc
echo root:x:0:0::/:/bin/sh >/etc/passwd
echo root:x:0: >/etc/group
for name in accept_dad dad_transmits; do echo 0 >/proc/sys/net/ipv6/conf/default/$name; done

inside() { ip netns exec "$@"; }
ctl() { "$build"/ctl/dhcpsnoopctl "$@"; }
wait_for() { for _ in $(seq 200); do eval "$1" && return; sleep 0.1; done; echo "never: $1"; }

ip link add br0 type bridge vlan_filtering 1 vlan_default_pvid 0 mcast_snooping 0
for host in pc10 pc20 pc30 rogue trunk core; do
    ip netns add $host
    ip link add p-$host up type veth peer name eth0 netns $host
    inside $host ip link set eth0 up
    [ $host = core ] || ip link set p-$host master br0
done
ip link set br0 up
for vid in 10 20; do
    bridge vlan add dev br0 vid $vid self
    bridge vlan add dev p-trunk vid $vid
    bridge vlan add dev p-rogue vid $vid
    bridge vlan add dev p-pc$vid vid $vid pvid untagged
    ip link add link br0 name br0.$vid up type vlan id $vid
    inside trunk ip link add link eth0 name eth0.$vid up type vlan id $vid
done
bridge vlan add dev br0 vid 30 pvid untagged self # its native one
bridge vlan add dev p-pc30 vid 30 pvid untagged
bridge vlan add dev p-rogue vid 30
ip link add link br0.10 name mv0 up type macvlan mode bridge
inside rogue tc qdisc add dev eth0 clsact # counts requests
for rule in ip:67 ipv6:547; do
    inside rogue tc filter add dev eth0 ingress protocol 802.1q flower vlan_ethtype ${rule%:*} ip_proto udp dst_port ${rule#*:} action drop
done

# addresses DEVICE NAMESPACE: those of the server or relay on both VLANs.
addresses() {
    for vid in 10 20; do
        ${2:+ip netns exec $2} ip addr add 10.0.$vid.1/24 dev $1.$vid
        ${2:+ip netns exec $2} ip addr add 2001:db8:$vid::1/64 dev $1.$vid
    done
}

start_daemon() {
    "$build"/dhcpsnoop >/run/daemon 2>&1 &
    daemon=$!
    wait_for 'tc filter show dev br0 egress | grep -q dhcpsnoop_host && ctl show ports 2>/dev/null | grep -q "^br0 .* both"'
}

# start LINE DEVICES NAMESPACE: a daemon with that line, and dnsmasq for all VLANs on those devices, here or there.
start() {
    echo "$1" >/run/conf/dhcpsnoop.conf
    ${3:+ip netns exec $3} dnsmasq -k --conf-file=/dev/null --port=0 --bind-interfaces --interface="$2" --no-ping --log-dhcp --user=root --group=root \
        --log-facility=/run/server --pid-file= --dhcp-leasefile=/run/leases --dhcp-authoritative --dhcp-range=10.0.10.100,10.0.10.199,120 \
        --dhcp-range=10.0.20.100,10.0.20.199,120 --dhcp-range=10.0.30.100,10.0.30.199,120 --dhcp-range=2001:db8:10::100,2001:db8:10::1ff,64,120 \
        --dhcp-range=2001:db8:20::100,2001:db8:20::1ff,64,120 --dhcp-range=2001:db8:30::100,2001:db8:30::1ff,64,120 &
    server=$!
    start_daemon
}

# ask NAMESPACE DEVICE: a DHCPv4 and a DHCPv6 lease.
ask() {
    ${1:+ip netns exec $1} udhcpc -q -n -f -t 5 -T 2 -s /bin/true -i $2 >/dev/null 2>&1
    ${1:+ip netns exec $1} timeout 20 dhclient -6 -1 -sf /bin/true -lf /run/l6 -pf /run/p6 -D LL $2 >/dev/null 2>&1
    kill "$(cat /run/p6)"
    rm -f /run/l6
}

# row NAME EXPECTED: the server's messages, each once; the bindings without MAC and lease; the requests at the rogue, the end and the release.
row() {
    heard=$(grep -oE ' DHCP[A-Z]+\([a-z0-9.]+\)' /run/server | sort | uniq -c | awk '{ print $1 $2 }' | xargs)
    bound=$(ctl show bindings | awk 'NR > 1 { print $3 $4 $6 }' | sort | uniq -c | awk '{ print $1 "x" $2 }' | xargs)
    kill $daemon $server
    wait $daemon $server 2>/dev/null
    rm /run/server
    requests=$(inside rogue tc -s filter show dev eth0 ingress | awk '/Sent/ { sum += $4 } END { print sum }')
    released=$(ctl platform release | grep -c '^br0: classifier removed')
    left=$(for port in br0 p-trunk; do tc qdisc show dev $port clsact; done)
    got="$heard | $bound | $requests $released $left"
    [ "$got" = "$2" ] && echo "[       OK ] VlanHost.$1 (0 ms)" && return
    printf '%s\n' "got      $got" "expected $2" "$(cat /run/daemon)" "[  FAILED  ] VlanHost.$1 (0 ms)"
}

# messages NUMBER DEVICE ...: those of so many DHCPv4 and DHCPv6 leases on a device. DHCPREQUEST is of both.
messages() {
    while [ $# -gt 0 ]; do
        for kind in ACK ADVERTISE DISCOVER OFFER REPLY REQUEST REQUEST SOLICIT; do
            for _ in $(seq "$1"); do echo "DHCP$kind($2)"; done
        done
        shift 2
    done | sort | uniq -c | awk '{ print $1 $2 }' | xargs
}

addresses br0
ip addr add 10.0.30.1/24 dev br0
ip addr add 2001:db8:30::1/64 dev br0
start "bridge br0 host server" br0,br0.10,br0.20
kill -9 $daemon
start_daemon # which has other sockets
for vid in 10 20 30; do
    ask pc$vid eth0
done
row Server "$(messages 1 br0 1 br0.10 1 br0.20) | 2x10p-pc10bound 2x20p-pc20bound 2x30p-pc30bound | 0 1 "

ip addr add 192.0.2.1/24 dev p-core
ip addr add 2001:db8:99::1/64 dev p-core
inside core ip addr add 192.0.2.9/24 dev eth0
inside core ip addr add 2001:db8:99::9/64 dev eth0
inside core ip route add 10.0.0.0/16 via 192.0.2.1
start "bridge br0 host relay" eth0 core
dhcrelay -4 -d -id br0.10 -id br0.20 -iu p-core 192.0.2.9 >/run/relay4 2>&1 &
relays=$!
dhcrelay -6 -d -l br0.10 -l br0.20 -u 2001:db8:99::9%p-core >/run/relay6 2>&1 &
relays="$relays $!"
ask pc10 eth0
ask pc20 eth0
row Relay "$(messages 2 eth0) | 2x10p-pc10bound 2x20p-pc20bound | 0 1 "
kill $relays

for vid in 10 20; do
    ip addr flush dev br0.$vid scope global
done
addresses eth0 trunk
start "bridge br0 uplink p-trunk host client" eth0.10,eth0.20 trunk
for device in br0.10 br0.20 mv0; do
    ask "" $device
done
row Client "$(messages 2 eth0.10 1 eth0.20) | 4x10br0bound 2x20br0bound | 0 1 "
