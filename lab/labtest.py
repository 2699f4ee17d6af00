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

from dhcpv6 import Client6
from lab import PORTS, SWITCH_CONF, TRUSTED, Client, Lab, wait_for
from wire import Capture, Endpoint


class LabTest(unittest.TestCase):
    offload = True  # checksum offload at every link, as veth has it
    daemon_arguments = ()
    version = "4"

    @classmethod
    def setUpClass(cls):
        cls.lab = Lab(BUILD, cls.offload)
        cls.addClassCleanup(cls.lab.stop)
        cls.lab.start()

    @classmethod
    def give_vlan_interface(cls):
        """VLAN 20 gets one, vlan20."""
        cls.lab.switch.ip("link add vlan20 type bridge")  # any device will do as a name and an index
        cls.lab.switch.ip("link set vlan20 up")
        with open(SWITCH_CONF, "a") as conf:
            conf.write("vlan 20 interface vlan20\n")

    def setUp(self):
        self.clients = []
        self.addCleanup(self.finish)
        self.start_daemon()

    def start_daemon(self, under=()):
        """Every port snooped, the ports to the servers trusted."""
        self.daemon = self.lab.start_daemon(*self.daemon_arguments, under=under)
        for port, _, _ in PORTS:
            self.ctl(f"interface {port} snooping on")
            if self.version != "4":
                self.ctl(f"interface {port} version {self.version}")
        for port in TRUSTED:
            self.ctl(f"interface {port} trust on")

    def finish(self):
        for client in self.clients:
            client.kill()
            client.host.ip(f"addr flush dev {client.device} scope global")
        if self.lab.daemon is None:
            return
        alive, log = self.daemon.running(), self.daemon.log()
        self.lab.stop_daemon()
        self.lab.ctl("platform", "release", check=False)
        self.assertTrue(alive, f"the daemon did not survive the test:\n{log[-4000:]}")
        self.assertEqual(self.daemon.popen.returncode, -signal.SIGTERM, log[-4000:])

    def ctl(self, line):
        """One command of the client, by its words; gives what it printed."""
        return self.lab.ctl(*line.split()).stdout

    def show(self, line):
        return json.loads(self.ctl(f"show {line} --json"))

    def bindings(self):
        """The bindings by address."""
        return {binding["address"]: binding for binding in self.show("bindings")}

    def binding(self, address):
        """What of a binding does not change with the clock, or None."""
        binding = self.bindings().get(address)
        return binding and {name: value for name, value in binding.items() if name not in ("elapsed", "left")}

    def counter(self, port, name):
        return self.show(f"interface {port}")[name]

    def client(self, host, device="eth0", program="udhcpc"):
        client = Client(host, device, program)
        self.clients.append(client)
        return client.start()

    def client6(self, host, device="eth0", program="dhclient", **options):
        client = Client6(host, device, program, **options)
        self.clients.append(client)
        return client.start()

    def endpoint(self, host, device="eth0"):
        endpoint = Endpoint(host, device)
        self.addCleanup(endpoint.socket.close)
        return endpoint

    def detect_duplicates(self, host):
        """Addresses of the host are tentative until nobody claims them, as anywhere outside the lab."""
        for name in ("accept_dad", "dad_transmits"):
            host.sysctl(f"net/ipv6/conf/eth0/{name}", 1)
            self.addCleanup(host.sysctl, f"net/ipv6/conf/eth0/{name}", 0)

    def capture(self, host, device="eth0"):
        capture = Capture(host, device)
        self.addCleanup(capture.socket.close)
        return capture

    def arrives(self, frame, sender, receiver):
        """Does it reach the receiver? A frame that nobody guards, sent behind it, tells when to stop waiting."""
        wanted = bytes(frame)
        head = 16 if wanted[12:14] == b"\x81\x00" else 12
        with self.endpoint(self.lab.hosts[sender]) as source, self.endpoint(self.lab.hosts[receiver]) as sink:
            source.send(frame)
            source.send(wanted[:head] + b"\x88\xb6" + bytes(46))
            seen = []
            sink.receive("marker", lambda got: seen.append(bytes(got)) or b"\x88\xb6" in seen[-1][12:18])
        return any(wanted[head:] in got for got in seen)

    def wait(self, what, condition, timeout=20.0):
        return wait_for(what, condition, timeout)


def main():
    unittest.main(module="__main__", verbosity=2)
