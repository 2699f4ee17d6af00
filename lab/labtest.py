"""What the lab's tests share: a lab for each test case, a configured daemon for each test.

A test file ends with `labtest.main()`; run alone it takes the build directory and unittest's arguments.
"""

import concurrent.futures
import contextlib
import os
import signal
import sys
import threading
import unittest

import isolate

BUILD = os.path.realpath(sys.argv.pop(1))
isolate.enter([BUILD, os.path.dirname(os.path.dirname(os.path.realpath(__file__)))])

from lab import MODEL, PORTS, TRUSTED, Client, Lab, wait_for
from wire import BOOTP, Capture, Dot1Q, Endpoint, Ether, dhcp6, from_client, is_dhcp

HOSTS = {host: port for port, _, host in PORTS}
LAST = 0x7FFFFFFF


@contextlib.contextmanager
def meanwhile(action, threads=1):
    """Repeats the action in threads of its own until the body ends."""
    ending = threading.Event()

    def repeat(_):
        while not ending.wait(0.001):
            action()

    with concurrent.futures.ThreadPoolExecutor(threads) as pool:
        pool.map(repeat, range(threads))
        try:
            yield
        finally:
            ending.set()


class LabTest(unittest.TestCase):
    offload = True  # checksum offload at every link, as veth has it
    model = MODEL
    vlan_interface = False  # VLAN 20 has one, vlan20
    snooped = tuple(HOSTS.values())

    @classmethod
    def setUpClass(cls):
        cls.lab = Lab(BUILD, cls.offload)
        cls.addClassCleanup(cls.lab.stop)
        cls.lab.start()
        cls.switch = cls.lab.switch
        if cls.vlan_interface:
            cls.switch.ip("link add vlan20 type bridge")  # any device will do as a name and an index
            cls.switch.ip("link set vlan20 up")
            cls.model = (*MODEL, "vlan 20 interface vlan20")

    def setUp(self):
        self.clients = []
        self.switch.configure(*self.model)
        self.addCleanup(self.finish)
        self.start_daemon()

    def start_daemon(self, under=()):
        """The ports to the servers are trusted."""
        self.switch.start_daemon(under=under)
        for interface in self.snooped:
            self.ctl(f"interface {interface} snooping on; interface {interface} version both")
        for port in TRUSTED:
            self.ctl(f"interface {port} trust on")

    def finish(self):
        for client in self.clients:
            client.kill()  # all before their addresses go, which a dhcpcd would tell the server
        for client in self.clients:
            client.host.ip(f"addr flush dev {client.device} scope global")
        status = self.switch.daemon.stop()
        self.switch.ctl("platform release", check=False)
        self.assertEqual(status, -signal.SIGTERM, f"the daemon did not survive the test:\n{self.switch.daemon.log()[-4000:]}")

    def ctl(self, lines):
        """Commands of the client, by their words; gives what the last one printed."""
        return [self.switch.ctl(line).stdout for line in lines.split(";")][-1]

    def bindings(self):
        """The bindings by address."""
        return {binding["address"]: binding for binding in self.switch.show("bindings")}

    def binding(self, address):
        """A binding in words, without what changes with the clock; "" when there is none."""
        binding = self.bindings().get(address)
        return binding and "{mac} {vlan} {interface} {type} {state} {lease}".format(**binding) or ""

    def counts(self, port):
        """What the daemon and the guard have dropped there, by reason."""
        guard, daemon = self.switch.show("guard")["interfaces"], self.switch.show("statistics")
        return {name: count for place in (*guard, *daemon) if place["interface"] == port for name, count in place.get("refused", place).items()
                if name != "interface"}

    def client(self, host, device="eth0", program=None, family=4):
        self.clients.append(Client(self.lab.hosts[host], device, program, family))
        return self.clients[-1].start()

    def endpoint(self, host, device="eth0", made=Endpoint):
        endpoint = made(self.lab.hosts[host], device)
        self.addCleanup(endpoint.socket.close)
        return endpoint

    def capture(self, host):
        return self.endpoint(host, made=Capture)

    def borrow(self, host, address, *words):
        """The host has an address until the test ends."""
        self.lab.hosts[host].ip(" ".join(("addr add", address, "dev eth0", *words)))
        self.addCleanup(self.lab.hosts[host].run, "ip", "addr", "del", address, "dev", "eth0", check=False)

    def outcome(self, sender, *frames):
        """Who hears these frames, a DHCP message by its transaction, with the VLAN of tagged ones, and what the sender's port
        then counts, as one text. Behind them goes a DISCOVER that always arrives."""
        def mark(frame):
            found = dhcp6(frame)
            return (frame[BOOTP].op, frame[BOOTP].xid) if is_dhcp(frame) else (found.msgtype, found.trid) if found else \
                bytes(frame[Dot1Q if Dot1Q in frame else Ether].payload)

        port, marks = HOSTS[sender], {mark(Ether(bytes(frame))) for frame in frames}
        before, ears, heard = self.counts(port), {host: self.endpoint(host) for host in HOSTS}, []
        self.endpoint(sender).send(*frames)
        self.endpoint("trunk", "vlan20").send(from_client("discover", "02:00:00:00:99:01", xid=LAST))
        ears["server"].receive("marker", lambda got: heard.append(("server", got)) or is_dhcp(got, xid=LAST, op=1))
        heard += [(host, frame) for host, ear in ears.items() for frame in ear.drain() if host != sender]
        places = [f"{host}/{frame[Dot1Q].vlan}" if Dot1Q in frame else host for host, frame in heard if mark(frame) in marks]
        counted = [f"| {name} {count - before[name]}" for name, count in self.counts(port).items() if count > before.get(name, 0)]
        return " ".join([*sorted(places), *counted])

    def play(self, *rows):
        """Rows {claim, settings, sender, frame, outcome}, over one state."""
        for claim, settings, sender, frame, expected in rows:
            with self.subTest(claim):
                self.ctl(settings or "show interfaces")
                self.assertEqual(self.outcome(sender, frame), expected)

    wait = staticmethod(wait_for)


def main():
    unittest.main(module="__main__", verbosity=2)
