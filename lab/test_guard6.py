"""IP source guard and IPv6: a confirmed lease opens its own address and no other, and a guarded port still finds its
neighbours, routers and duplicates."""

import labtest

from dhcpv6 import DHCP6OptServerId, Ether, IPv6, addresses, exchange, from_client, ia_na, link_local
from lab import MACS
from scapy.layers.dhcp6 import DUID_LL
from scapy.layers.inet6 import ICMPv6ND_NA, ICMPv6ND_RA, ICMPv6ND_RS, ICMPv6NDOptDstLLAddr, ICMPv6NDOptSrcLLAddr

SERVER = "2001:db8:10::1"
FORGED, ASKED = "2001:db8:10::f0", "2001:db8:10::f1"
ALL_NODES, ALL_ROUTERS = ("33:33:00:00:00:01", "ff02::1"), ("33:33:00:00:00:02", "ff02::2")


class Guard6(labtest.LabTest):
    daemon_arguments = ("20", "256", "1", "1")
    version = "both"

    def setUp(self):
        super().setUp()
        self.ctl("guard interface swp1 ip mac vlan port")
        self.lab.pc1.ip("route replace 2001:db8:10::/64 dev eth0")
        self.addCleanup(self.lab.pc1.ip, "route del 2001:db8:10::/64 dev eth0")

    def own(self, address):
        """pc1 uses that address, whoever gave it."""
        self.lab.pc1.ip(f"addr add {address}/128 dev eth0")

    def pings(self, address):
        return self.lab.pc1.run("ping", "-6", "-c", "1", "-W", "1", "-I", address, SERVER, check=False).returncode == 0

    def refused(self):
        place, = [place for place in self.show("guard")["interfaces"] if place["interface"] == "swp1"]
        return place["refused"]["ipv6"]

    def test_a_lease_opens_its_address_and_nothing_else(self):
        self.own(FORGED)
        self.assertFalse(self.pings(FORGED))
        client = self.client6(self.lab.pc1)  # DHCPv6 itself passes
        address, = client.wait_leases(2) - {FORGED}
        self.assertTrue(self.pings(address))
        before = self.refused()
        self.assertFalse(self.pings(FORGED))
        self.assertGreater(self.refused(), before)
        client.release()
        self.wait("end of the binding", lambda: address not in self.bindings())
        self.own(address)
        self.assertFalse(self.pings(address))
        self.ctl("guard interface swp1 off")
        self.assertTrue(self.pings(address) and self.pings(FORGED))

    def test_an_address_that_was_only_asked_for_stays_shut(self):
        self.own(ASKED)
        pc1 = self.endpoint(self.lab.pc1)
        nobody = DHCP6OptServerId(duid=DUID_LL(lladdr=MACS["rogue"]))
        pc1.send(from_client("request", MACS["pc1"], nobody, ia_na(ASKED)))
        self.wait("provisional binding", lambda: ASKED in self.bindings())
        self.assertFalse(self.pings(ASKED))
        self.ctl("guard interface swp1 off")
        self.assertTrue(self.pings(ASKED))

    def test_another_host_cannot_use_it(self):
        """The lease of pc1, taken by a host on another guarded port."""
        address, = addresses(exchange(self.endpoint(self.lab.pc1), MACS["pc1"]))
        rogue = self.lab.rogue
        rogue.ip(f"addr add {address}/64 dev eth0")
        self.addCleanup(rogue.ip, f"addr del {address}/64 dev eth0")
        ping = ("ping", "-6", "-c", "1", "-W", "1", "-I", address, SERVER)
        self.assertEqual(rogue.run(*ping, check=False).returncode, 0)
        self.ctl("guard interface swp5 ip mac vlan port")
        self.assertNotEqual(rogue.run(*ping, check=False).returncode, 0)

    def test_neighbours_and_routers(self):
        """Solicitations and advertisements of both kinds, from the guarded port and to it."""
        pc1, server = self.endpoint(self.lab.pc1), self.endpoint(self.lab.server, "vlan10")
        for sender, receiver, mac, to, body, kind in (
                (pc1, server, MACS["pc1"], ALL_ROUTERS, ICMPv6ND_RS(), ICMPv6ND_RS),
                (server, pc1, MACS["server"], ALL_NODES, ICMPv6ND_RA() / ICMPv6NDOptSrcLLAddr(lladdr=MACS["server"]), ICMPv6ND_RA),
                (pc1, server, MACS["pc1"], ALL_NODES, ICMPv6ND_NA(tgt=ASKED) / ICMPv6NDOptDstLLAddr(lladdr=MACS["pc1"]),
                 ICMPv6ND_NA)):
            with self.subTest(kind.__name__):
                sender.send(Ether(src=mac, dst=to[0]) / IPv6(src=link_local(mac), dst=to[1], hlim=255) / body)
                receiver.receive(kind.__name__, lambda frame: kind in frame and frame[Ether].src == mac)

    def test_duplicate_address_detection(self):
        pc1, rogue = self.lab.pc1, self.lab.rogue
        self.detect_duplicates(pc1)
        for taken, free in (("fe80::99", "fe80::77"), ("2001:db8:10::99", "2001:db8:10::77")):
            rogue.ip(f"addr add {taken}/64 dev eth0 nodad")
            self.addCleanup(rogue.ip, f"addr del {taken}/64 dev eth0")
            for address, verdict in ((taken, "dadfailed"), (free, "")):
                with self.subTest(address):
                    pc1.ip(f"addr add {address}/64 dev eth0")
                    self.addCleanup(pc1.ip, f"addr del {address}/64 dev eth0")
                    show = ("ip", "-6", "-o", "addr", "show", "dev", "eth0", "to", address)
                    self.wait("verdict", lambda: "dadfailed" in (line := pc1.run(*show).stdout) or "tentative" not in line)
                    self.assertEqual("dadfailed" in pc1.run(*show).stdout, bool(verdict))

    def finish(self):
        self.lab.pc1.ip("-6 addr flush dev eth0 scope global")
        super().finish()


labtest.main()
