"""What the lab's tests share: a lab for each test case, a configured daemon for each test.

A test file ends with `labtest.main()`; run alone it takes the build directory and unittest's arguments.
"""

import json
import os
import signal
import sys
import unittest

import isolate

BUILD = os.path.realpath(sys.argv.pop(1))
isolate.enter([BUILD, os.path.dirname(os.path.dirname(os.path.realpath(__file__)))])

from dhcpv6 import Client6, dhcp6
from lab import MACS, PORTS, SWITCH_CONF, TRUSTED, Client, Lab, wait_for
from wire import BOOTP, Capture, Dot1Q, Endpoint, Ether, from_client, is_dhcp, outer_vid

HOSTS = {host: port for port, _, host in PORTS}
GUARDED = ("20", "256", "1", "1")  # interfaces, bindings, with IP source guard and ARP inspection
LAST = 0x7FFFFFFF


class LabTest(unittest.TestCase):
    offload = True  # checksum offload at every link, as veth has it
    daemon_arguments = ()
    version = "both"
    vlan_interface = False  # VLAN 20 has one, vlan20
    snooped = tuple(HOSTS.values())

    @classmethod
    def setUpClass(cls):
        cls.lab = Lab(BUILD, cls.offload)
        cls.addClassCleanup(cls.lab.stop)
        cls.lab.start()
        if cls.vlan_interface:
            cls.lab.switch.ip("link add vlan20 type bridge")  # any device will do as a name and an index
            cls.lab.switch.ip("link set vlan20 up")
            with open(SWITCH_CONF, "a") as conf:
                conf.write("vlan 20 interface vlan20\n")

    def setUp(self):
        self.clients = []
        self.addCleanup(self.finish)
        self.start_daemon()

    def start_daemon(self, under=()):
        """The ports to the servers are trusted."""
        self.daemon = self.lab.start_daemon(*self.daemon_arguments, under=under)
        for interface in self.snooped:
            self.ctl(f"interface {interface} snooping on; interface {interface} version {self.version}")
        for port in TRUSTED:
            self.ctl(f"interface {port} trust on")

    def finish(self):
        for client in self.clients:
            client.kill()  # all before their addresses go, which a dhcpcd would tell the server
        for client in self.clients:
            client.host.ip(f"addr flush dev {client.device} scope global")
        if self.lab.daemon is None:
            return
        alive, log = self.daemon.running(), self.daemon.log()
        self.lab.stop_daemon()
        self.lab.ctl("platform", "release", check=False)
        self.assertTrue(alive, f"the daemon did not survive the test:\n{log[-4000:]}")
        self.assertEqual(self.daemon.popen.returncode, -signal.SIGTERM, log[-4000:])

    def kill_daemon(self):
        self.daemon.signal(signal.SIGKILL)
        self.daemon.popen.wait()

    def ctl(self, lines):
        """Commands of the client, by their words; gives what the last one printed."""
        return [self.lab.ctl(*line.split()).stdout for line in lines.split(";")][-1]

    def show(self, line):
        return json.loads(self.ctl(f"show {line} --json"))

    def bindings(self):
        """The bindings by address."""
        return {binding["address"]: binding for binding in self.show("bindings")}

    def binding(self, address):
        """A binding in words, without what changes with the clock; "" when there is none."""
        binding = self.bindings().get(address)
        return binding and "{mac} {vlan} {interface} {type} {state} {lease}".format(**binding) or ""

    def counts(self, port):
        """What the daemon and the guard have dropped there, by reason."""
        guard = [place["refused"] for place in self.show("guard")["interfaces"] if place["interface"] == port]
        counts = [*self.show(f"interface {port}").items(), *(row for rows in guard for row in rows.items())]
        return {name: count for name, count in counts if name in ("ipv4", "ipv6", "arp", "unclear", "vlan") or name.startswith("dropped-")}

    def client(self, host, device="eth0", program="udhcpc", made=Client, **options):
        client = made(self.lab.hosts[host], device, program, **options)
        self.clients.append(client)
        return client.start()

    def client6(self, host, device="eth0", program="dhclient", **options):
        return self.client(host, device, program, Client6, **options)

    def closed_at_end(self, endpoint):
        self.addCleanup(endpoint.socket.close)
        return endpoint

    def endpoint(self, host, device="eth0"):
        return self.closed_at_end(Endpoint(self.lab.hosts[host], device))

    def capture(self, host, device="eth0"):
        return self.closed_at_end(Capture(self.lab.hosts[host], device))

    def borrow(self, host, address, *words):
        """The host has an address until the test ends."""
        self.lab.hosts[host].ip(" ".join(("addr add", address, "dev eth0", *words)))
        self.addCleanup(self.lab.hosts[host].run, "ip", "addr", "del", address, "dev", "eth0", check=False)

    def detect_duplicates(self, host):
        """Addresses of the host are tentative until nobody claims them, as anywhere outside the lab."""
        for name in ("accept_dad", "dad_transmits"):
            self.lab.hosts[host].sysctl(f"net/ipv6/conf/eth0/{name}", 1)
            self.addCleanup(self.lab.hosts[host].sysctl, f"net/ipv6/conf/eth0/{name}", 0)

    def verdict(self, host, address):
        """The kernel's, on an address whose uniqueness it has tested: usable or dadfailed."""
        self.borrow(host, f"{address}/64")
        show = ("ip", "-6", "-o", "addr", "show", "dev", "eth0", "to", address)
        self.wait("verdict", lambda: "dadfailed" in (line := self.lab.hosts[host].run(*show).stdout) or "tentative" not in line)
        return "dadfailed" if "dadfailed" in self.lab.hosts[host].run(*show).stdout else "usable"

    def outcome(self, sender, *frames, device="eth0"):
        """Who hears these frames, a DHCP message by its transaction, with the VLAN of tagged ones, and what the sender's port
        then counts, as one text. Behind them goes a DISCOVER that always arrives."""
        def mark(frame):
            found = dhcp6(frame)
            return (frame[BOOTP].op, frame[BOOTP].xid) if is_dhcp(frame) else (found.msgtype, found.trid) if found else \
                bytes(frame[Dot1Q if Dot1Q in frame else Ether].payload)

        port, marks = HOSTS[sender], {mark(Ether(bytes(frame))) for frame in frames}
        before, ears, heard = self.counts(port), {host: self.endpoint(host) for host in HOSTS}, []
        self.endpoint(sender, device).send(*frames)
        self.endpoint("trunk", "vlan20").send(from_client("discover", "02:00:00:00:99:01", xid=LAST))
        ears["server"].receive("marker", lambda got: heard.append(("server", got)) or is_dhcp(got, xid=LAST, op=1))
        heard += [(host, frame) for host, ear in ears.items() for frame in ear.drain() if host != sender]
        places = [f"{host}/{outer_vid(frame)}".removesuffix("/0") for host, frame in heard if mark(frame) in marks]
        counted = [f"| {name} {count - before[name]}" for name, count in self.counts(port).items() if count > before.get(name, 0)]
        return " ".join([*sorted(places), *counted])

    def play(self, *rows):
        """Rows {claim, settings, sender, frame, outcome}, over one state."""
        for claim, settings, sender, frame, expected in rows:
            with self.subTest(claim):
                self.ctl(settings or "show interfaces")
                self.assertEqual(self.outcome(sender, frame), expected)

    def wait(self, what, condition, timeout=20.0):
        return wait_for(what, condition, timeout)


def main():
    unittest.main(module="__main__", verbosity=2)
