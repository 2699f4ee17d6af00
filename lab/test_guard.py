"""IP source guard and ARP inspection: a host that forges its source is cut off, one with a binding loses nothing."""

import re
import subprocess
import threading
import time

import labtest

from dhcpv6 import DHCP6OptServerId, Ether, IPv6, duid, from_client6, ia_na
from lab import MACS
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import ARP
from wire import BOOTP, BROADCAST, exchange, from_client, from_server, tagged

ITEMS = "ip mac vlan port"
PC1, ROGUE, TRUNK, OTHER_MAC = MACS["pc1"], MACS["rogue"], MACS["trunk"], "02:00:00:00:99:99"
OTHER, STATIC, STATIC6, ASKED, ASKED6 = "10.0.10.250", "10.0.10.77", "2001:db8:10::77", "10.0.10.79", "2001:db8:10::79"
PORT = 4242  # of UDP
EVENT = re.compile(r"Receive RTM_SYSTEM_(DAISTART|DAISTOP)|RTM_(IPSG|ANTIARP)_\w+ p_param->item = (\d+)")


def ipv4(mac, address, text=b""):
    return Ether(src=mac, dst=BROADCAST) / IP(src=address, dst="10.0.10.9") / UDP(sport=PORT, dport=PORT) / text


def ipv6(mac, address):
    return Ether(src=mac, dst=BROADCAST) / IPv6(src=address, dst="2001:db8:10::9") / UDP(sport=PORT, dport=PORT) / b"6"


def arp(mac, address, sender=None, operation=2):
    return Ether(src=mac, dst=BROADCAST) / ARP(op=operation, hwsrc=sender or mac, psrc=address, pdst="10.0.10.1")


FORGED = bytes(ipv4(PC1, OTHER, b"forged"))


class Stream(threading.Thread):
    """A host that sends without a pause: a packet of its own, then a forged one."""

    def __init__(self, test):
        super().__init__()
        self.sender, self.sink, self.own = test.endpoint("pc1"), test.endpoint("rogue"), bytes(ipv4(PC1, test.address, b"own"))
        self.sent, self.ending = 0, threading.Event()

    def run(self):
        while not self.ending.wait(0.001):
            self.sender.send(self.own, FORGED)
            self.sent += 1

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.ending.set()
        self.join()

    def lost(self):
        """How many of its own packets did not arrive at another host, and how many forged ones did."""
        frames = list(iter(self.sink.next, None))
        return self.sent - frames.count(self.own), frames.count(FORGED)


class Guard(labtest.LabTest):
    daemon_arguments = labtest.GUARDED

    def setUp(self):
        super().setUp()
        self.address = exchange(self.endpoint("pc1"), PC1)[BOOTP].yiaddr

    def guard(self, *ports):
        for port in ports:
            self.ctl(f"guard interface {port} {ITEMS}; arp-inspection interface {port} {ITEMS}")

    def test_sources(self):
        for address, mac, port in ((STATIC, ROGUE, "swp5"), (STATIC6, PC1, "swp1"), ("10.0.10.78", TRUNK, "swp3")):
            self.ctl(f"binding add {address} mac {mac} vlan 10 interface {port}")
        self.endpoint("pc1").send(from_client("request", PC1, ("requested_addr", ASKED), ("server_id", "10.0.10.66")),
                                  from_client6("request", PC1, DHCP6OptServerId(duid=duid(ROGUE)), ia_na(ASKED6)))
        self.wait("provisional bindings", lambda: {ASKED, ASKED6} <= set(self.bindings()))
        pc1 = "rogue server/10 trunk/10"  # who hears it
        self.guard("swp1", "swp3", "swp5")
        self.play(*((claim, "", sender, frame, outcome) for claim, sender, frame, outcome in (
            ("a lease's address", "pc1", ipv4(PC1, self.address), pc1),
            ("a forged address", "pc1", ipv4(PC1, OTHER), "| ipv4 1"),
            ("an address that was only asked for", "pc1", ipv4(PC1, ASKED), "| ipv4 1"),
            ("a forged MAC", "pc1", ipv4(OTHER_MAC, self.address), "| ipv4 1"),
            ("on another port", "rogue", ipv4(PC1, self.address), "| ipv4 1"),
            ("a static binding's address", "rogue", ipv4(ROGUE, STATIC), "pc1 server/10 trunk/10"),
            ("in its VLAN, tagged", "trunk", tagged(ipv4(TRUNK, "10.0.10.78"), 10), "pc1 rogue server/10"),
            ("in another VLAN", "trunk", tagged(ipv4(TRUNK, "10.0.10.78"), 20), "| ipv4 1"),
            ("its own ARP", "pc1", arp(PC1, self.address), pc1),
            ("ARP for an address that was only asked for", "pc1", arp(PC1, ASKED), "| arp 1"),
            ("ARP for the gateway", "pc1", arp(PC1, "10.0.10.1"), "| arp 1"),
            ("ARP for another's MAC", "pc1", arp(PC1, self.address, OTHER_MAC), "| arp 1"),
            ("ARP for a neighbour, from its port", "rogue", arp(ROGUE, self.address), "| arp 1"),
            ("an ARP probe", "pc1", arp(PC1, "0.0.0.0", operation=1), pc1),
            ("a bound IPv6 address", "pc1", ipv6(PC1, STATIC6), pc1),
            ("a forged IPv6 address", "pc1", ipv6(PC1, "2001:db8:10::78"), "| ipv6 1"),
            ("an IPv6 address that was only asked for", "pc1", ipv6(PC1, ASKED6), "| ipv6 1"),
            ("a bound IPv6 address from elsewhere", "rogue", ipv6(ROGUE, STATIC6), "| ipv6 1"),
            ("link-local", "pc1", ipv6(PC1, "fe80::77"), pc1))),
                  ("a deleted binding", f"binding delete {STATIC}", "rogue", ipv4(ROGUE, STATIC), "| ipv4 1"),
                  ("one that management confirms", f"binding bind {ASKED}", "pc1", ipv4(PC1, ASKED), pc1),
                  ("off again", "guard interface swp1 off", "pc1", ipv4(PC1, OTHER), pc1))

    def test_leases(self):
        """DHCP passes a guarded port, and a lease opens its address alone: until it ends, while nobody answers but an INFORM's
        server, and while the host tests that its addresses are unique."""
        self.guard("swp1")
        pc1, forged = self.endpoint("pc1"), "2001:db8:10::f0"
        pings = lambda address: self.lab.pc1.run("ping", "-6", "-c", "1", "-W", "1", "-I", address, "2001:db8:10::1",
                                                 check=False).returncode == 0
        self.borrow("pc1", f"{forged}/64")
        client = self.client6("pc1")
        address, = client.wait_leases(2) - {forged}
        self.assertEqual((pings(address), pings(forged)), (True, False))
        client.release()
        self.wait("end of the binding", lambda: not self.binding(address))
        self.borrow("pc1", f"{address}/64")
        self.assertFalse(pings(address))
        self.ctl("guard interface swp1 off")
        self.assertTrue(pings(address) and pings(forged))
        self.ctl(f"guard interface swp1 {ITEMS}; arp-inspection interface swp1 off")  # the server asks for the address by ARP
        self.borrow("pc1", f"{ASKED}/24")
        pc1.send(from_client("request", PC1, ("requested_addr", ASKED), ("server_id", "10.0.10.66")))
        self.wait("provisional binding", lambda: self.binding(ASKED))
        pc1.send(from_client("inform", PC1, ciaddr=ASKED, xid=7))
        pc1.receive_dhcp("ack", xid=7)
        self.assertEqual(self.outcome("pc1", ipv4(PC1, ASKED)), "| ipv4 1")
        self.detect_duplicates("pc1")
        self.borrow("rogue", "fe80::99/64", "nodad")
        self.borrow("rogue", "2001:db8:10::99/64", "nodad")
        self.assertEqual([self.verdict("pc1", address) for address in ("fe80::99", "fe80::77", "2001:db8:10::99", "2001:db8:10::98")],
                         ["dadfailed", "usable"] * 2)

    def test_under_traffic(self):
        """Switched; then killed, absent for a time, started and configured: nothing of its own lost, nothing forged let in."""
        with Stream(self) as stream:
            for items in (ITEMS, "off", "ip", "ip mac", ITEMS, "port", "off", ITEMS):
                self.ctl(f"guard interface swp1 {items}")
                time.sleep(0.05)
        self.assertEqual(stream.lost()[0], 0)
        self.guard("swp1", "swp5")
        with Stream(self) as stream:
            time.sleep(0.1)
            self.kill_daemon()
            time.sleep(0.3)
            self.start_daemon()
            time.sleep(0.3)
        self.assertEqual(stream.lost(), (0, 0))
        self.assertIn("2 binding rules of an earlier run", self.daemon.log())
        # What a restart inherits ends: the address of an earlier run's binding is given to another host.
        self.play(("another's address now", f"binding add {self.address} mac {ROGUE} vlan 10 interface swp5", "pc1",
                   ipv4(PC1, self.address), "| ipv4 1"),
                  ("its new host", "", "rogue", ipv4(ROGUE, self.address), "pc1 server/10 trunk/10"))

    def test_expiry(self):
        """A lease that is not renewed goes with the first scan after its end, and closes the port. Scans are a minute apart, and
        the first one was at the daemon's start."""
        self.guard("swp1")
        # Of a server that is not there, so that the real one says nothing.
        self.endpoint("pc1").send(from_client("request", PC1, ("server_id", "10.0.10.2"), ("requested_addr", STATIC), xid=3))
        self.wait("provisional binding", lambda: self.binding(STATIC))
        ack = from_server("ack", PC1, "10.0.10.2", STATIC, source_mac=MACS["server"], lease=2, xid=3)
        self.endpoint("server", "vlan10").send(ack)
        self.wait("bound binding", lambda: self.binding(STATIC).endswith(" bound 2"))
        self.play(("held", "", "pc1", ipv4(PC1, STATIC), "rogue server/10 trunk/10"))
        self.wait("expiry", lambda: not self.binding(STATIC), timeout=70)
        self.play(("over", "", "pc1", ipv4(PC1, STATIC), "| ipv4 1"))


class Configuration(labtest.LabTest):
    """From the client into the kernel and to the daemon, and back out of show."""
    daemon_arguments = labtest.GUARDED
    vlan_interface = True

    def start_daemon(self, under=()):
        super().start_daemon(under)
        self.ctl("debug trace on")

    def events(self):
        """What the daemon was told of check items: DAISTART, DAISTOP, IPSG and ANTIARP with the items."""
        return " ".join(start or f"{kind} {int(items):#x}" for start, kind, items in EVENT.findall(self.daemon.log()))

    def items(self, key):
        return {place.get("interface", place.get("vlan")): ",".join(place[key])
                for places in self.show("guard").values() for place in places if place[key]}

    def test_switched_on_and_off(self):
        told = ""
        for line, event in (
                ("guard interface swp1 ip mac", "IPSG 0xc0"),
                ("guard vlan 20 ip", "IPSG 0x80"),
                ("guard interface swp1 ip mac vlan port", "IPSG 0xf0"),
                ("guard interface swp1 port vlan mac ip", ""),
                ("arp-inspection interface swp1 ip", "DAISTART"),
                ("arp-inspection interface swp2 mac", "ANTIARP 0x40 DAISTART"),
                ("arp-inspection vlan 20 ip mac", "ANTIARP 0xc0"),
                ("arp-inspection interface swp1 off", "ANTIARP 0x0"),
                ("arp-inspection interface swp2 off", "ANTIARP 0x0 ANTIARP 0xc0"),  # falls back to its VLAN
                ("arp-inspection vlan 20 off", "DAISTOP"),
                ("guard interface swp1 off", "IPSG 0x0")):
            self.ctl(line)
            told = f"{told} {event}".strip()
            self.wait(f"'{event}' after {line}", lambda expected=told: self.events() == expected)
        self.assertEqual((self.items("ip"), self.items("arp")), ({20: "ip"}, {}))
        self.assertIn("dhcpsnoopctl guard vlan 20 ip\n", self.ctl("show config"))
        for line, text in (("guard vlan 10 ip", "the VLAN has no interface"), ("guard interface lo ip", "no port of the switch")):
            done = self.lab.ctl(*line.split(), check=False)
            self.assertEqual((done.returncode, text in done.stderr), (1, True), done.stderr)

    def test_a_daemon_that_starts_is_told(self):
        self.lab.stop_daemon()
        self.lab.ctl("guard", "interface", "swp1", "ip")
        self.daemon = self.lab.start_daemon()  # without the feature
        self.wait("warning", lambda: "IP source guard is configured, but" in self.daemon.log())
        self.assertEqual(self.items("ip"), {}, "nobody would install bindings")
        self.lab.stop_daemon()
        self.daemon = self.lab.start_daemon(*self.daemon_arguments)
        self.ctl("guard interface swp1 off; guard vlan 20 ip; arp-inspection interface swp1 ip mac")
        self.lab.stop_daemon()
        self.assertIn("no daemon listens", self.lab.ctl("guard", "interface", "swp3", "ip", "port").stderr)
        self.assertEqual((self.items("ip"), self.items("ip-pending")), ({20: "ip"}, {"swp3": "ip,port"}))
        self.daemon = self.lab.start_daemon(*self.daemon_arguments)
        self.wait("guard in force", lambda: self.items("ip") == {20: "ip", "swp3": "ip,port"})
        self.assertEqual(self.items("arp"), {"swp1": "ip,mac"})

    def test_changes_while_a_host_speaks(self):
        """One with a binding loses nothing, and a stop of ARP inspection takes no static binding away."""
        self.client("pc2").wait_lease()
        self.ctl("guard interface swp4 exempt; arp-inspection interface swp4 exempt")  # the server has no binding
        ping = subprocess.Popen(self.lab.pc2.command("ping", "-q", "-i", "0.0005", "-w", "4", "10.0.20.1"),
                                stdout=subprocess.PIPE, text=True)
        while ping.poll() is None:
            self.ctl("guard vlan 20 ip; guard interface swp2 ip mac; guard interface swp2 ip vlan port; guard interface swp2 off;"
                     "guard vlan 20 ip mac vlan port; guard vlan 20 off")
        self.assertGreater(int(re.search(r"(\d+) packets", ping.communicate()[0])[1]), 500)
        self.assertFalse([place for place in self.show("guard")["interfaces"] if place["refused"]["ipv4"]])
        self.ctl(f"binding add {STATIC} mac {PC1} vlan 10 interface swp1")
        claim = arp(PC1, STATIC)
        arrives = ("", "pc1", claim, "rogue server/10 trunk/10")
        for _ in range(2):
            self.play(("a static binding", "arp-inspection interface swp1 ip mac", *arrives[1:]))
            self.ctl("arp-inspection interface swp1 off")
            self.wait("stop", lambda: self.events().endswith("DAISTOP"))
        self.play(("deleted", f"arp-inspection interface swp1 ip mac; binding delete {STATIC}", "pc1", claim, "| arp 1"))


labtest.main()
