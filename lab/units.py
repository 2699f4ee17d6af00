"""Two switches that are each other's peer units, and light traffic: many clients and their server in one process.

    left, right   a switch each: swp1 access 10 to the clients, swp2 access 10 to the server, trusted; peer0 to each other
    hosts         left-swp1, left-swp2, right-swp1, right-swp2: the other ends of swp1 and swp2
"""

import os
import shutil
import signal
import socket
import subprocess
import time

from lab import RUN, Failure, Host, Switch
from wire import BROADCAST, IP, UDP, Endpoint, Ether, from_client, from_server

PEERS = {"left": ("192.0.2.1", "connect", "right"), "right": ("192.0.2.2", "listen", "left")}
SERVER = ("10.0.10.1", "02:00:00:00:05:01")


def make_certificates(directory):
    """An authority and a certificate for each unit."""
    os.makedirs(directory)
    for name in ("authority", *PEERS):
        signed = () if name == "authority" else ("-CA", "authority.crt", "-CAkey", "authority.key", "-addext", f"subjectAltName=DNS:{name}",
                                                 "-addext", "basicConstraints=critical,CA:FALSE")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                        f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.crt", *signed], check=True, capture_output=True, cwd=directory)


class Unit(Switch):
    """A switch with its own /tmp and /run/dhcpsnoop, for the daemon's sockets in there."""

    def __init__(self, name):
        os.makedirs("/run/dhcpsnoop", exist_ok=True)
        mounts = "mount -t tmpfs tmpfs /tmp && mount -t tmpfs tmpfs /run/dhcpsnoop && mkdir /run/dhcpsnoop/bpf && " \
                 "mount -t bpf bpf /run/dhcpsnoop/bpf && echo && exec sleep infinity"
        self.holder = subprocess.Popen(["unshare", "--mount", "--propagation", "private", "sh", "-c", mounts], stdout=subprocess.PIPE)
        if self.holder.stdout.readline() != b"\n":
            raise Failure(f"{name}: no mounts of its own")
        super().__init__(name, f"{RUN}/usr/sbin")
        self.bridge()

    def command(self, *arguments):
        return ["nsenter", f"--net=/run/netns/{self.name}", f"--mount=/proc/{self.holder.pid}/ns/mnt", "--", *arguments]

    def prepare(self, role, journal="off", peer="", ports=("swp1", "swp2")):
        """The daemon's file; `peer` is the name that the peer's certificate must have, none without a peer."""
        tls = f"{RUN}/tls"
        self.configure(f"role {role}", *(f"port {port} access 10" for port in ports), f"journal {journal}",
                       *((f"{PEERS[self.name][1]} {PEERS['right'][0]}:4747", f"certificate {tls}/{self.name}.crt", f"key {tls}/{self.name}.key",
                          f"authority {tls}/authority.crt", f"peer {peer}") if peer else ()))

    def start(self, *settings, bindings=512):
        self.start_daemon("--bindings", str(bindings))
        for setting in settings:
            self.ctl(setting)

    def stall(self):
        """The daemon stands still for 20 ms."""
        self.daemon.signal(signal.SIGSTOP)
        time.sleep(0.02)
        self.daemon.signal(signal.SIGCONT)

    def state(self, key):
        return self.show("redundancy")[key]

    def bindings(self):
        """Who holds what: address to (MAC, port, VLAN), of the bound ones."""
        return {b["address"]: (b["mac"], b["interface"], b["vlan"]) for b in self.show("bindings") if b["state"] == "bound"}

    def stop(self):
        self.stop_daemon()
        self.holder.kill()
        self.holder.communicate()


class Traffic:
    """Clients and their server at one unit's ports, exchange by exchange, at a pace."""

    def __init__(self):
        self.frames, self.acknowledged = [], {}  # address: (MAC, when)
        for number in range(200):
            mac, address = f"02:00:00:01:00:{number:02x}", f"10.0.10.{number + 2}"
            fields = {"xid": number + 1, "flags": 0x8000}
            request = from_client("request", mac, ("requested_addr", address), ("server_id", SERVER[0]), **fields)
            ack = from_server("ack", mac, SERVER[0], address, lease=3600, source_mac=SERVER[1], xid=number + 1)
            self.frames.append((mac, address, bytes(from_client("discover", mac, **fields)), bytes(request), bytes(ack)))

    def run(self, near, far, exchanges, rate=20, first=0):
        """So many exchanges of DISCOVER, REQUEST and ACK, evenly; each ACK must arrive at its client."""
        begin = time.monotonic()
        for done, number in enumerate(range(first, first + exchanges), 1):
            mac, address, discover, request, ack = self.frames[number % len(self.frames)]

            def arrives(end, op, xid=request[46:50]):
                return any(frame[12:14] == b"\x08\x00" and frame[42] == op and frame[46:50] == xid for frame in iter(lambda: end.next(2), None))

            near.send(discover, request)
            if arrives(far, 1) and arrives(far, 1):
                far.send(ack)
            if not arrives(near, 2):
                raise Failure(f"exchange {number} was not answered")
            self.acknowledged[address] = (mac, time.monotonic())
            time.sleep(max(0, begin + done / rate - time.monotonic()))

    def packet(self, number, address=None):
        """A UDP packet of a client, with its own source address or a forged one."""
        mac, own = self.frames[number][:2]
        return bytes(Ether(src=mac, dst=BROADCAST) / IP(src=address or own, dst="10.0.10.255") / UDP(sport=9, dport=9))

    def arrive(self, near, far, packets):
        """The source addresses of those packets that come through to the server, each as often as it does."""
        # The last is not IP, so it always passes; it cannot overtake.
        marker = bytes.fromhex("ffffffffffff" + "020000000101" + "88b5") + os.urandom(46)
        for _ in iter(far.next, None):  # older traffic would take the room
            pass
        near.send(*packets, marker)
        frames = iter(lambda: far.next(2) or marker, marker)
        return [socket.inet_ntoa(frame[26:30]) for frame in frames if frame[12:14] == b"\x08\x00" and frame[34:36] == b"\x00\x09"]


class Pair:
    """Both units with their hosts."""

    def __init__(self, build):
        make_certificates(f"{RUN}/tls")
        subprocess.run(["cmake", "--install", build, "--prefix", f"{RUN}/usr"], check=True, capture_output=True)
        self.units, self.hosts = {name: Unit(name) for name in PEERS}, {}
        self.left, self.right = self.units.values()
        for name, unit in self.units.items():
            unit.ends = [self.connect(unit, "swp1"), self.connect(unit, "swp2", SERVER[1])]
        self.left.connect("peer0", "02:00:00:00:00:01", self.right, "peer0")
        for name, unit in self.units.items():
            unit.ip(f"addr add {PEERS[name][0]}/30 dev peer0")
            unit.ip("link set peer0 up")

    def connect(self, unit, port, mac="02:00:00:00:01:01", address=None):
        """A host at a port; gives its end."""
        name = f"{unit.name}-{port}"
        host = self.hosts[name] = self.hosts.get(name) or Host(name)
        host.connect("eth0", mac, unit, port)
        unit.ip(f"link set {port} address {address or '02:00:00:00:06:0' + port[3:]} master br0 up")
        return Endpoint(host)

    def pull(self, unit, port, end):
        end.socket.close()
        self.hosts[f"{unit.name}-{port}"].ip("link del eth0")

    def stop(self):
        for unit in self.units.values():
            unit.stop()
            for end in unit.ends:
                end.socket.close()
        for name in (*self.units, *self.hosts):
            subprocess.run(["ip", "netns", "del", name], check=True)
        shutil.rmtree(RUN)
