"""IP source guard and ARP inspection: a host that forges its source is cut off, one with a binding loses nothing."""

import signal
import threading
import time

import labtest

from lab import MACS, TRUNK_CLIENTS
from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import ARP, Dot1Q, Ether
from wire import BOOTP, BROADCAST, exchange, from_client

ITEMS = "ip mac vlan port"
OTHER_MAC, OTHER, STATIC, STATIC6 = "02:00:00:00:99:99", "10.0.10.250", "10.0.10.77", "2001:db8:10::77"
ASKED = "10.0.10.79"  # of another server, which is not there
PORT = 4242  # of UDP


def ipv4(mac, address, text=b"", vlan=None):
    front = Ether(src=mac, dst=BROADCAST) / Dot1Q(vlan=vlan) if vlan else Ether(src=mac, dst=BROADCAST)
    return front / IP(src=address, dst="10.0.10.9") / UDP(sport=PORT, dport=PORT) / text


def ipv6(mac, address):
    return Ether(src=mac, dst=BROADCAST) / IPv6(src=address, dst="2001:db8:10::9") / UDP(sport=PORT, dport=PORT) / b"6"


def arp(mac, address, sender=None, operation=2):
    return Ether(src=mac, dst=BROADCAST) / ARP(op=operation, hwsrc=sender or mac, psrc=address, pdst="10.0.10.1")


class Stream(threading.Thread):
    """A host that sends without a pause: a numbered packet of its own, then a forged one."""

    def __init__(self, sender, own, forged):
        super().__init__()
        self.sender, self.own, self.forged = sender, own, forged
        self.sent, self.ending = 0, threading.Event()

    def run(self):
        while not self.ending.is_set():
            self.sender.send(self.own(b"own %06d" % self.sent))
            self.sender.send(self.forged)
            self.sent += 1
            time.sleep(0.001)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.ending.set()
        self.join()


class Guard(labtest.LabTest):
    daemon_arguments = ("20", "256", "1", "1")

    def setUp(self):
        super().setUp()
        self.address = exchange(self.endpoint(self.lab.pc1), MACS["pc1"])[BOOTP].yiaddr

    def guard(self, *ports):
        for port in ports:
            self.ctl(f"guard interface {port} {ITEMS}")
            self.ctl(f"arp-inspection interface {port} {ITEMS}")

    def refused(self, port):
        (place,) = [place for place in self.show("guard")["interfaces"] if place["interface"] == port]
        return {reason: count for reason, count in place["refused"].items() if count}

    def test_sources(self):
        """What passes and what does not, each first with the guard off: then everything does."""
        pc1, rogue, trunk = MACS["pc1"], MACS["rogue"], TRUNK_CLIENTS["vlan10"]
        self.ctl(f"binding add {STATIC} mac {rogue} vlan 10 interface swp5")
        self.ctl(f"binding add {STATIC6} mac {pc1} vlan 10 interface swp1")
        self.ctl(f"binding add 10.0.10.78 mac {trunk} vlan 10 interface swp3")
        self.endpoint(self.lab.pc1).send(from_client("request", pc1, ("requested_addr", ASKED), ("server_id", "10.0.10.66")))
        self.wait("provisional binding", lambda: ASKED in self.ctl("show bindings"))
        rows = (
            ("a lease's address", ipv4(pc1, self.address), "pc1", "rogue", True),
            ("a forged address", ipv4(pc1, OTHER), "pc1", "rogue", False),
            ("an address that was only asked for", ipv4(pc1, ASKED), "pc1", "rogue", False),
            ("a forged MAC", ipv4(OTHER_MAC, self.address), "pc1", "rogue", False),
            ("on another port", ipv4(pc1, self.address), "rogue", "pc1", False),
            ("a static binding's address", ipv4(rogue, STATIC), "rogue", "pc1", True),
            ("in its VLAN, tagged", ipv4(trunk, "10.0.10.78", vlan=10), "trunk", "rogue", True),
            ("in another VLAN", ipv4(trunk, "10.0.10.78", vlan=20), "trunk", "pc2", False),
            ("its own ARP", arp(pc1, self.address), "pc1", "rogue", True),
            ("ARP for an address that was only asked for", arp(pc1, ASKED), "pc1", "rogue", False),
            ("ARP for the gateway", arp(pc1, "10.0.10.1"), "pc1", "rogue", False),
            ("ARP for another's MAC", arp(pc1, self.address, OTHER_MAC), "pc1", "rogue", False),
            ("ARP for a neighbour, from its port", arp(rogue, self.address), "rogue", "pc1", False),
            ("ARP of a static binding", arp(rogue, STATIC), "rogue", "pc1", True),
            ("an ARP probe", arp(pc1, "0.0.0.0", operation=1), "pc1", "rogue", True),
            ("a bound IPv6 address", ipv6(pc1, STATIC6), "pc1", "rogue", True),
            ("a forged IPv6 address", ipv6(pc1, "2001:db8:10::78"), "pc1", "rogue", False),
            ("a bound IPv6 address from elsewhere", ipv6(rogue, STATIC6), "rogue", "pc1", False),
            ("link-local", ipv6(pc1, "fe80::77"), "pc1", "rogue", True),
        )
        for claim, frame, sender, receiver, _ in rows:
            with self.subTest(f"{claim}, guard off"):
                self.assertTrue(self.arrives(frame, sender, receiver))
        self.guard("swp1", "swp3", "swp5")
        for claim, frame, sender, receiver, passes in rows:
            with self.subTest(claim):
                self.assertEqual(self.arrives(frame, sender, receiver), passes)
        self.assertEqual(self.refused("swp1"), {"ipv4": 3, "arp": 3, "ipv6": 1})
        self.assertEqual(self.refused("swp5"), {"ipv4": 1, "arp": 1, "ipv6": 1})
        with self.subTest("a deleted binding"):
            self.ctl(f"binding delete {STATIC}")
            self.assertFalse(self.arrives(ipv4(rogue, STATIC), "rogue", "pc1"))
        with self.subTest("DHCP all the same"):
            exchange(self.endpoint(self.lab.rogue), rogue)
        with self.subTest("off again"):
            self.ctl("guard interface swp1 off")
            self.assertTrue(self.arrives(ipv4(pc1, OTHER), "pc1", "rogue"))

    def test_asked_for_and_informed(self):
        """A server's answer without a lease acknowledges nothing; management may."""
        pc1, mac = self.lab.pc1, MACS["pc1"]
        self.ctl(f"guard interface swp1 {ITEMS}")
        pc1.ip(f"addr add {ASKED}/24 dev eth0")
        self.addCleanup(pc1.ip, f"addr del {ASKED}/24 dev eth0")
        host = self.endpoint(pc1)
        host.send(from_client("request", mac, ("requested_addr", ASKED), ("server_id", "10.0.10.66")))
        self.wait("provisional binding", lambda: ASKED in self.ctl("show bindings"))
        host.send(from_client("inform", mac, ciaddr=ASKED, xid=7))
        host.receive_dhcp("ack", xid=7)
        self.assertFalse(self.arrives(ipv4(mac, ASKED), "pc1", "rogue"))
        self.ctl(f"binding bind {ASKED}")
        self.assertTrue(self.arrives(ipv4(mac, ASKED), "pc1", "rogue"))

    def stream(self):
        """pc1's own packets and forged ones; with what arrives at another host."""
        return (Stream(self.endpoint(self.lab.pc1), lambda text: ipv4(MACS["pc1"], self.address, text),
                       ipv4(MACS["pc1"], OTHER, b"forged")), self.capture(self.lab.rogue))

    def arrived(self, capture):
        capture.save()
        texts = [frame[42:] for frame in capture.frames if frame[36:38] == PORT.to_bytes(2, "big")]
        return [text for text in texts if text.startswith(b"own")], [text for text in texts if text.startswith(b"forged")]

    def test_switched_under_traffic(self):
        stream, capture = self.stream()
        with stream:
            for items in (ITEMS, "off", "ip", "ip mac", ITEMS, "port", "off", ITEMS):
                self.ctl(f"guard interface swp1 {items}")
                time.sleep(0.05)
        own, _ = self.arrived(capture)
        self.assertEqual(own, [b"own %06d" % number for number in range(stream.sent)])
        self.assertGreater(self.refused("swp1")["ipv4"], 0)

    def test_killed_under_traffic(self):
        """SIGKILL, a time without a daemon, the next one's start and configuration: nothing lost, nothing let in."""
        self.guard("swp1")
        stream, capture = self.stream()
        with stream:
            time.sleep(0.1)
            self.daemon.signal(signal.SIGKILL)
            self.daemon.popen.wait()
            time.sleep(0.3)
            self.start_daemon()
            time.sleep(0.3)
        own, forged = self.arrived(capture)
        self.assertEqual(own, [b"own %06d" % number for number in range(stream.sent)])
        self.assertEqual(forged, [])
        self.assertIn("2 binding rules of an earlier run", self.daemon.log())

    def test_what_a_restart_inherits_ends(self):
        """The address of an earlier run's binding is leased to another: the first host has it no longer."""
        self.guard("swp1", "swp5")
        self.lab.stop_daemon()
        self.start_daemon()
        own = ipv4(MACS["pc1"], self.address)
        self.assertTrue(self.arrives(own, "pc1", "rogue"))
        self.ctl(f"binding add {self.address} mac {MACS['rogue']} vlan 10 interface swp5")
        self.assertFalse(self.arrives(own, "pc1", "rogue"))
        self.assertTrue(self.arrives(ipv4(MACS["rogue"], self.address), "rogue", "pc1"))


labtest.main()
