"""IP source guard and ARP inspection: a host that forges its source is cut off, one with a binding loses nothing."""

import re
import subprocess
import time

import labtest

from lab import MACS, RUN
from scapy.layers.dhcp6 import DUID_LL, DHCP6OptServerId
from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import ARP, Ether
from wire import BOOTP, BROADCAST, exchange, from_client, from_client6, ia_na, tagged

ITEMS = "ip mac vlan port"
PC1, ROGUE, TRUNK, OTHER_MAC = MACS["pc1"], MACS["rogue"], MACS["trunk"], "02:00:00:00:99:99"
OTHER, STATIC, STATIC6, ASKED, ASKED6 = "10.0.10.250", "10.0.10.77", "2001:db8:10::77", "10.0.10.79", "2001:db8:10::79"
PC1_HEARD, ROGUE_HEARD = "rogue server/10 trunk/10", "pc1 server/10 trunk/10"  # who hears a broadcast of theirs


def ipv4(mac, address, text=b""):
    return Ether(src=mac, dst=BROADCAST) / IP(src=address, dst="10.0.10.9") / UDP(sport=4242, dport=4242) / text


def ipv6(mac, address):
    return Ether(src=mac, dst=BROADCAST) / IPv6(src=address, dst="2001:db8:10::9") / UDP(sport=4242, dport=4242) / b"6"


def arp(mac, address, sender=None, operation=2):
    return Ether(src=mac, dst=BROADCAST) / ARP(op=operation, hwsrc=sender or mac, psrc=address, pdst="10.0.10.1")


class Guard(labtest.LabTest):
    def setUp(self):
        super().setUp()
        self.address = exchange(self.endpoint("pc1"), PC1)[BOOTP].yiaddr

    def guard(self, *ports):
        for port in ports:
            self.ctl(f"guard interface {port} {ITEMS} family both --force")

    def ask(self):
        """pc1 asks a server for two addresses, which nobody answers: the bindings are provisional."""
        self.endpoint("pc1").send(from_client("request", PC1, ("requested_addr", ASKED), ("server_id", "10.0.10.66")),
                                  from_client6("request", PC1, DHCP6OptServerId(duid=DUID_LL(lladdr=ROGUE)), ia_na(ASKED6)))
        self.wait("provisional bindings", lambda: {ASKED, ASKED6} <= set(self.bindings()))

    def test_sources(self):
        for address, mac, port in ((STATIC, ROGUE, "swp5"), (STATIC6, PC1, "swp1"), ("10.0.10.78", TRUNK, "swp3")):
            self.ctl(f"binding add {address} mac {mac} vlan 10 interface {port}")
        self.ask()
        self.guard("swp1", "swp3", "swp5")
        self.play(("a lease's address", "", "pc1", ipv4(PC1, self.address), PC1_HEARD),
                  ("a forged address", "", "pc1", ipv4(PC1, OTHER), "| ipv4 1"),
                  ("an address that was only asked for", "", "pc1", ipv4(PC1, ASKED), "| ipv4 1"),
                  ("a forged MAC", "", "pc1", ipv4(OTHER_MAC, self.address), "| ipv4 1"),
                  ("a static binding's address", "", "rogue", ipv4(ROGUE, STATIC), ROGUE_HEARD),
                  ("in its VLAN, tagged", "", "trunk", tagged(ipv4(TRUNK, "10.0.10.78"), 10), "pc1 rogue server/10"),
                  ("its own ARP", "", "pc1", arp(PC1, self.address), PC1_HEARD),
                  ("ARP for an address that was only asked for", "", "pc1", arp(PC1, ASKED), "| arp 1"),
                  ("an ARP probe", "", "pc1", arp(PC1, "0.0.0.0", operation=1), PC1_HEARD),
                  ("a bound IPv6 address", "", "pc1", ipv6(PC1, STATIC6), PC1_HEARD),
                  ("an IPv6 address that was only asked for", "", "pc1", ipv6(PC1, ASKED6), "| ipv6 1"),
                  ("link-local", "", "pc1", ipv6(PC1, "fe80::77"), PC1_HEARD),
                  ("a deleted binding", f"binding delete {STATIC}", "rogue", ipv4(ROGUE, STATIC), "| ipv4 1"),
                  ("one that management confirms", f"binding bind {ASKED}", "pc1", ipv4(PC1, ASKED), PC1_HEARD),
                  ("off again", "guard interface swp1 off", "pc1", ipv4(PC1, OTHER), PC1_HEARD))

    def test_who_would_be_cut_off(self):
        """The client refuses before it cuts somebody off, and does it when it is forced."""
        self.endpoint("rogue").send(arp(ROGUE, OTHER))
        for line, said in ((f"guard interface swp1 {ITEMS}", ""), ("guard interface swp1 ip family both", f"1 host without an IPv6 binding would lose its network ({PC1})"),
                           ("guard interface swp4 ip", "swp4 is trusted"), ("arp-inspection interface swp5 ip", f"1 host without an IPv4 binding would lose its network ({ROGUE})"),
                           ("interface swp5 version 4", ""), ("guard interface swp5 ip family 6", "IPv6 is not snooped there"), ("guard interface swp5 ip --force", "")):
            with self.subTest(line):
                done = self.switch.ctl(line, check=False)
                self.assertEqual((done.returncode, said in done.stderr), (int(bool(said)), True), done.stderr)
        with open(f"{RUN}/candidate", "w") as file:
            file.write("\n".join((*self.model, "interface swp4 snooping on", "interface swp4 trust on", "guard interface swp4 ip")))
        self.assertIn("note: swp4 is trusted", self.switch.ctl(f"check {RUN}/candidate").stderr)

    def verdict(self, address):
        """The kernel's, on an address of pc1 whose uniqueness it has tested: usable or dadfailed."""
        self.borrow("pc1", f"{address}/64")
        shown = lambda: self.lab.pc1.run("ip", "-6", "-o", "addr", "show", "dev", "eth0", "to", address).stdout
        self.wait("verdict", lambda: "dadfailed" in shown() or "tentative" not in shown())
        return "dadfailed" if "dadfailed" in shown() else "usable"

    def test_leases(self):
        """A lease opens its address alone, until it ends; an INFORM's answer opens none; hosts test that addresses are unique."""
        self.guard("swp1")
        pc1, forged = self.endpoint("pc1"), "2001:db8:10::f0"
        pings = lambda address: self.lab.pc1.run("ping", "-6", "-c", "1", "-W", "1", "-I", address, "2001:db8:10::1",
                                                 check=False).returncode == 0
        self.borrow("pc1", f"{forged}/64")
        client = self.client("pc1", family=6)
        address, = client.wait_leases(2) - {forged}
        self.assertEqual((pings(address), pings(forged)), (True, False))
        client.release()
        self.wait("end of the binding", lambda: not self.binding(address))
        self.borrow("pc1", f"{address}/64")
        self.assertFalse(pings(address))
        self.ctl("guard interface swp1 off")
        self.assertTrue(pings(address) and pings(forged))
        self.ctl(f"guard interface swp1 {ITEMS} family both --force; arp-inspection interface swp1 off")  # the server asks for the address by ARP
        self.borrow("pc1", f"{ASKED}/24")
        self.ask()
        pc1.send(from_client("inform", PC1, ciaddr=ASKED, xid=7))
        pc1.receive_dhcp("ack", xid=7)
        self.assertEqual(self.outcome("pc1", ipv4(PC1, ASKED)), "| ipv4 1")
        for name in ("accept_dad", "dad_transmits"):  # addresses are tentative until nobody claims them, as outside the lab
            self.lab.pc1.sysctl(f"net/ipv6/conf/eth0/{name}", 1)
            self.addCleanup(self.lab.pc1.sysctl, f"net/ipv6/conf/eth0/{name}", 0)
        self.borrow("rogue", "fe80::99/64", "nodad")
        self.borrow("rogue", "2001:db8:10::99/64", "nodad")
        self.assertEqual([self.verdict(address) for address in ("fe80::99", "fe80::77", "2001:db8:10::99", "2001:db8:10::98")],
                         ["dadfailed", "usable"] * 2)

    def test_restart_under_traffic(self):
        """The daemon is killed, absent for a time, started and configured, twice, each time by another clock: nothing of the host is lost,
        nothing forged let in."""
        sender, neighbour = self.endpoint("pc1"), self.endpoint("rogue")
        own, forged, sent = bytes(ipv4(PC1, self.address, b"own")), bytes(ipv4(PC1, OTHER, b"forged")), []

        def send():
            sender.send(own, forged)
            sent.append(own)

        self.guard("swp1", "swp5")
        self.ctl("save")
        with labtest.meanwhile(send):
            for offset in ("100000", "200000"):
                time.sleep(0.1)
                self.switch.daemon.kill()
                time.sleep(0.3)
                self.start_daemon(under=("unshare", "--time", "--boottime", offset, "--"))
                time.sleep(0.3)
        self.assertEqual([frame for frame in iter(neighbour.next, None) if frame in (own, forged)], sent)
        self.assertIn("2 binding rules of an earlier run", self.switch.daemon.log())
        # What a restart inherits ends: the address of an earlier run's binding is given to another host.
        self.play(("another's address now", f"binding add {self.address} mac {ROGUE} vlan 10 interface swp5", "pc1",
                   ipv4(PC1, self.address), "| ipv4 1"),
                  ("its new host", "", "rogue", ipv4(ROGUE, self.address), ROGUE_HEARD))


class Configuration(labtest.LabTest):
    """From the client into the kernel and to the daemon, and back out of show."""
    vlan_interface = True

    def items(self, key):
        return {place.get("interface", place.get("vlan")): ",".join(place[key])
                for places in self.switch.show("guard").values() for place in places if place[key]}

    def test_a_daemon_that_starts_is_told(self):
        for line, text in (("guard vlan 10 ip", "the VLAN has no interface"), ("guard interface lo ip", "no port of the switch"), (f"binding add {STATIC} mac {PC1} vlan 20 interface swp1", "no member of VLAN 20")):
            done = self.switch.ctl(line, check=False)
            self.assertEqual((done.returncode, text in done.stderr), (1, True), done.stderr)
        self.switch.stop_daemon()
        self.switch.configure(*self.model, "guard interface swp1 ip")
        self.switch.start_daemon("0", "0", "0", "0")  # without the features
        self.wait("warning", lambda: "IP source guard is configured, but" in self.switch.daemon.log())
        self.assertEqual(self.items("ip"), {}, "nobody would install bindings")
        self.switch.stop_daemon()
        self.switch.start_daemon()
        self.ctl("guard interface swp1 off; guard vlan 20 ip family 6 --force; arp-inspection interface swp1 ip mac --force; save")
        self.assertIn("\nguard vlan 20 ip family 6\n", self.ctl("show config"))
        self.switch.stop_daemon()
        self.assertIn("no daemon listens", self.switch.ctl("guard interface swp3 ip port").stderr)
        self.assertEqual((self.items("ip"), self.items("ip-pending")), ({20: "ip"}, {"swp3": "ip,port"}))
        self.switch.start_daemon()  # it does as the file says
        self.wait("guard in force", lambda: (self.items("ip"), self.items("ip-pending")) == ({20: "ip"}, {}))
        self.assertEqual(self.items("arp"), {"swp1": "ip,mac"})

    def test_changes_while_a_host_speaks(self):
        """One with a binding loses nothing, and a stop of ARP inspection takes no static binding away."""
        self.client("pc2").wait_leases()
        self.ctl("guard interface swp4 exempt")  # the server has no binding
        ping = subprocess.Popen(self.lab.pc2.command("ping", "-q", "-i", "0.0005", "-w", "4", "10.0.20.1"),
                                stdout=subprocess.PIPE, text=True)
        while ping.poll() is None:
            self.ctl("guard vlan 20 ip --force; guard interface swp2 ip mac; guard interface swp2 ip vlan port; guard interface swp2 off;"
                     "guard vlan 20 ip mac vlan port --force; guard vlan 20 off")
        self.assertGreater(int(re.search(r"(\d+) packets", ping.communicate()[0])[1]), 500)
        self.assertFalse([place for place in self.switch.show("guard")["interfaces"] if place["refused"]["ipv4"]])
        self.ctl(f"debug trace on; binding add {STATIC} mac {PC1} vlan 10 interface swp1")
        claim = arp(PC1, STATIC)
        for times in (1, 2):
            self.play(("a static binding", "arp-inspection interface swp1 ip mac", "pc1", claim, PC1_HEARD))
            self.ctl("arp-inspection interface swp1 off")
            self.wait("stop", lambda expected=times: self.switch.daemon.log().count("Receive RTM_SYSTEM_DAISTOP") == expected)
        self.play(("deleted", f"arp-inspection interface swp1 ip mac; binding delete {STATIC}", "pc1", claim, "| arp 1"))


labtest.main()
