"""Two switches that are each other's peer units, and light traffic: many clients and their server in one process.

    left, right   a switch each: swp1 access 10 to the clients, swp2 access 10 to the server, trusted; peer0 to each other
    hosts         c-left, c-right, s-left, s-right: the other ends of swp1 and swp2
"""

import contextlib
import json
import os
import shutil
import signal
import socket
import subprocess
import threading
import time

from lab import RUN, Failure, Host, Process, wait_for
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Ether
from wire import BROADCAST, from_client, from_server

PEERS = {"left": ("192.0.2.1", "connect", "right"), "right": ("192.0.2.2", "listen", "left")}
SERVER = ("10.0.10.1", "02:00:00:00:05:01")
PORTS = {"swp1": "access 10", "swp2": "access 10"}


def make_certificates(directory):
    """An authority and a certificate for each unit."""
    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], check=True, capture_output=True, cwd=directory)

    os.makedirs(directory)
    for name in ("authority", *PEERS):
        openssl("ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", f"{name}.key")
    openssl("req", "-x509", "-new", "-key", "authority.key", "-days", "2", "-subj", "/CN=lab", "-out", "authority.crt")
    for name in PEERS:
        with open(f"{directory}/{name}.ext", "w") as file:
            file.write(f"subjectAltName=DNS:{name}\n")
        openssl("req", "-new", "-key", f"{name}.key", "-subj", f"/CN={name}", "-out", f"{name}.csr")
        openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "authority.crt", "-CAkey", "authority.key", "-CAcreateserial",
                "-days", "2", "-extfile", f"{name}.ext", "-out", f"{name}.crt")


class Unit(Host):
    """A switch with its own /tmp and /run/dhcpsnoop, for the daemon's sockets in there."""

    def __init__(self, name, build):
        self.name, self.daemon = name, None
        self.bin = f"{RUN}/usr/sbin"
        subprocess.run(["cmake", "--install", build, "--prefix", f"{RUN}/usr"], check=True, capture_output=True)
        os.makedirs("/run/dhcpsnoop", exist_ok=True)
        mounts = "mount -t tmpfs tmpfs /tmp && mount -t tmpfs tmpfs /run/dhcpsnoop && mkdir /run/dhcpsnoop/bpf && " \
                 "mount -t bpf bpf /run/dhcpsnoop/bpf && echo && exec sleep infinity"
        self.holder = subprocess.Popen(["unshare", "--mount", "--propagation", "private", "sh", "-c", mounts],
                                       stdout=subprocess.PIPE)
        if self.holder.stdout.readline() != b"\n":
            raise Failure(f"{name}: no mounts of its own")
        super().__init__(name)

    def command(self, *arguments):
        return ["nsenter", f"--net=/run/netns/{self.name}", f"--mount=/proc/{self.holder.pid}/ns/mnt", "--", *arguments]

    def configure(self, role, *lines):
        self.ip("link set lo up")
        with open(f"{RUN}/{self.name}.conf", "w") as conf:
            conf.write(f"role {role}\n" + "".join(f"port {port} {model}\n" for port, model in PORTS.items()))
        with open(f"{RUN}/{self.name}-redundancy.conf", "w") as conf:
            conf.write("\n".join(lines) + "\n")

    def start(self, *settings, bindings=512):
        self.daemon = Process(self, f"dhcpsnoop-{self.name}", f"{self.bin}/dhcpsnoop", "20", str(bindings), "1", "1",
                              env={"DHCPSNOOP_SWITCH_CONF": f"{RUN}/{self.name}.conf",
                                   "DHCPSNOOP_REDUNDANCY_CONF": f"{RUN}/{self.name}-redundancy.conf"})
        self.wait_answer()
        for setting in settings:
            self.ctl(setting)

    def wait_answer(self):
        def answers():
            if not self.daemon.running():
                raise Failure(f"{self.name}: the daemon ended with {self.daemon.popen.returncode}\n{self.daemon.log()}")
            return self.ctl("show interfaces", check=False).returncode == 0

        wait_for(f"answer of {self.name}", answers)

    def kill(self):
        self.daemon.signal(signal.SIGKILL)
        self.daemon.popen.wait()

    @contextlib.contextmanager
    def stalled(self):
        """Meanwhile two clients in turn keep the daemon waiting for their request, 50 ms each."""
        path, done = f"/proc/{self.holder.pid}/root/tmp/dhcpsnoop.socket", threading.Event()

        def stall():
            while not done.is_set():
                with socket.socket(socket.AF_UNIX) as client:
                    client.connect(path)
                    time.sleep(0.05)

        threads = [threading.Thread(target=stall) for _ in range(2)]
        for thread in threads:
            thread.start()
        try:
            yield
        finally:
            done.set()
            for thread in threads:
                thread.join()

    def ctl(self, line, check=True):
        return self.run(f"{self.bin}/dhcpsnoopctl", *line.split(), check=check)

    def show(self, what):
        return json.loads(self.ctl(f"show {what} --json").stdout)

    def bindings(self):
        """Who holds what: address to (MAC, port, VLAN), of the bound ones."""
        return {b["address"]: (b["mac"], b["interface"], b["vlan"]) for b in self.show("bindings") if b["state"] == "bound"}

    def stop(self):
        if self.daemon and self.daemon.running():
            self.daemon.stop()
        self.holder.kill()
        self.holder.wait()


class Traffic:
    """Clients and their server at one unit's ports, exchange by exchange, at a pace."""

    def __init__(self, clients=200):
        self.sockets = {}
        self.acknowledged = {}  # address: (MAC, when)
        self.frames = []
        for number in range(clients):
            mac = f"02:00:00:01:{number >> 8:02x}:{number & 255:02x}"
            address = f"10.0.10.{number + 2}"
            fields = {"xid": number + 1, "flags": 0x8000}
            request = from_client("request", mac, ("requested_addr", address), ("server_id", SERVER[0]), **fields)
            ack = from_server("ack", mac, SERVER[0], address, lease=3600, source_mac=SERVER[1], xid=number + 1)
            self.frames.append((mac, address, bytes(from_client("discover", mac, **fields)), bytes(request), bytes(ack)))

    def socket(self, host, device="eth0"):
        if host.name not in self.sockets:
            with host.inside():
                sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
                sock.bind((device, 0))
            sock.settimeout(2)
            self.sockets[host.name] = sock
        return self.sockets[host.name]

    def forget(self, *hosts):
        for host in hosts:
            if host.name in self.sockets:
                self.sockets.pop(host.name).close()

    def exchange(self, number, clients, server):
        """DISCOVER, REQUEST, ACK; true when the ACK has arrived at the client."""
        mac, address, discover, request, ack = self.frames[number % len(self.frames)]
        near, far = self.socket(clients), self.socket(server)
        xid = request[46:50]
        for frame in (discover, request):
            near.send(frame)
        if not (self.await_frame(far, xid, 1) and self.await_frame(far, xid, 1)):
            return False
        far.send(ack)
        if not self.await_frame(near, xid, 2):
            return False
        self.acknowledged[address] = (mac, time.monotonic())
        return True

    def packet(self, number, address=None):
        """A UDP packet of a client, with its own source address or a forged one."""
        mac, own = self.frames[number % len(self.frames)][:2]
        return bytes(Ether(src=mac, dst=BROADCAST) / IP(src=address or own, dst="10.0.10.255") / UDP(sport=9, dport=9))

    def arrive(self, clients, server, packets):
        """The source addresses of those packets that come through to the server, each as often as it does."""
        near, far = self.socket(clients), self.socket(server)
        for packet in packets:
            near.send(packet)
        # Not IP, so it always passes; it cannot overtake.
        marker = bytes.fromhex("ffffffffffff" + "020000000101" + "88b5") + os.urandom(46)
        near.send(marker)
        sources = []
        while (frame := far.recv(2048)) != marker:
            if frame[12:14] == b"\x08\x00" and frame[34:36] == b"\x00\x09":
                sources.append(socket.inet_ntoa(frame[26:30]))
        return sources

    @staticmethod
    def await_frame(sock, xid, op):
        try:
            while True:
                frame = sock.recv(2048)
                if frame[12:14] == b"\x08\x00" and frame[46:50] == xid and frame[42] == op:
                    return True
        except TimeoutError:
            return False

    def run(self, clients, server, exchanges, rate=20, first=0):
        """So many exchanges, evenly; all must succeed."""
        begin = time.monotonic()
        for i in range(exchanges):
            if not self.exchange(first + i, clients, server):
                raise Failure(f"exchange {first + i} was not answered")
            time.sleep(max(0, begin + (i + 1) / rate - time.monotonic()))


class Pair:
    """Both units with their hosts."""

    def __init__(self, build):
        os.makedirs(RUN, exist_ok=True)
        make_certificates(f"{RUN}/tls")
        self.units = {name: Unit(name, build) for name in PEERS}
        self.left, self.right = self.units.values()
        self.hosts = {}
        for name, unit in self.units.items():
            unit.ip("link add br0 type bridge mcast_snooping 0")
            for table in ("iptables", "ip6tables", "arptables"):
                unit.sysctl(f"net/bridge/bridge-nf-call-{table}", 0)
            for port, end in (("swp1", f"c-{name}"), ("swp2", f"s-{name}")):
                host = self.hosts[end] = Host(end)
                mac = SERVER[1] if port == "swp2" else "02:00:00:00:01:01"
                self.connect(host, unit, port, mac)
            unit.ip("link set br0 up")
        subprocess.run("ip link add peer0 netns left type veth peer name peer0 netns right".split(), check=True)
        for name, unit in self.units.items():
            unit.ip(f"addr add {PEERS[name][0]}/30 dev peer0")
            unit.ip("link set peer0 up")

    @staticmethod
    def connect(host, unit, port, mac):
        host.ip(f"link add eth0 address {mac} type veth peer name {port} netns {unit.name}")
        host.ip("link set eth0 up")
        unit.ip(f"link set {port} master br0")
        unit.ip(f"link set {port} up")

    def peer_lines(self, name):
        _, verb, other = PEERS[name]
        return (f"{verb} {PEERS['right'][0]}:4747", f"certificate {RUN}/tls/{name}.crt", f"key {RUN}/tls/{name}.key",
                f"authority {RUN}/tls/authority.crt", f"peer {other}")

    def stop(self):
        for unit in self.units.values():
            unit.stop()
        for name in (*self.units, *self.hosts):
            subprocess.run(["ip", "netns", "del", name], check=True)
        shutil.rmtree(RUN)
