"""The guard's configuration: from the client into the kernel and to the daemon, and back out of show."""

import re
import subprocess

import labtest

from lab import MACS

EVENT = re.compile(r"Receive RTM_SYSTEM_(DAISTART|DAISTOP)|RTM_(IPSG|ANTIARP)_\w+ p_param->item = (\d+)")


class GuardConfig(labtest.LabTest):
    daemon_arguments = ("20", "256", "1", "1")  # with IP source guard and ARP inspection

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.give_vlan_interface()

    def start_daemon(self, under=()):
        super().start_daemon(under)
        self.ctl("debug trace on")

    def events(self):
        """What the daemon was told of check items: DAISTART, DAISTOP, IPSG and ANTIARP with the items."""
        return " ".join(start or f"{kind} {int(items):#x}" for start, kind, items in EVENT.findall(self.daemon.log()))

    def items(self, key):
        return {place.get("interface", place.get("vlan")): ",".join(place[key])
                for places in self.show("guard").values() for place in places if place[key]}

    def refusal(self, line):
        done = self.lab.ctl(*line.split(), check=False)
        self.assertEqual(done.returncode, 1, done.stderr)
        return done.stderr

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
        self.assertEqual(self.items("ip"), {20: "ip"})
        self.assertEqual(self.items("arp"), {})
        self.assertIn("dhcpsnoopctl guard vlan 20 ip\n", self.ctl("show config"))

    def test_a_daemon_that_starts_is_told(self):
        for line in ("guard vlan 20 ip", "arp-inspection interface swp1 ip mac"):
            self.ctl(line)
        self.lab.stop_daemon()
        done = self.lab.ctl("guard", "interface", "swp3", "ip", "port")
        self.assertIn("no daemon listens", done.stderr)
        self.assertEqual((self.items("ip"), self.items("ip-pending")), ({20: "ip"}, {"swp3": "ip,port"}))
        self.daemon = self.lab.start_daemon(*self.daemon_arguments)
        self.wait("guard in force", lambda: self.items("ip") == {20: "ip", "swp3": "ip,port"})
        self.assertEqual(self.items("arp"), {"swp1": "ip,mac"})

    def test_a_daemon_without_the_feature(self):
        self.lab.stop_daemon()
        self.lab.ctl("guard", "interface", "swp1", "ip")
        self.daemon = self.lab.start_daemon()
        self.wait("warning", lambda: "IP source guard is configured, but" in self.daemon.log())
        self.assertEqual(self.items("ip"), {}, "nobody would install bindings")

    def refused(self, reason):
        return {place["interface"]: place["refused"][reason] for place in self.show("guard")["interfaces"]
                if place["refused"][reason]}

    def test_a_host_with_a_binding_loses_nothing_by_changes(self):
        self.client(self.lab.pc2).wait_lease()
        for line in ("guard interface swp4 exempt", "arp-inspection interface swp4 exempt"):
            self.ctl(line)  # the server has no binding
        ping = subprocess.Popen(self.lab.pc2.command("ping", "-q", "-i", "0.0005", "-w", "4", "10.0.20.1"),
                                stdout=subprocess.PIPE, text=True)
        while ping.poll() is None:
            for line in ("guard vlan 20 ip", "guard interface swp2 ip mac", "guard interface swp2 ip vlan port",
                         "guard interface swp2 off", "guard vlan 20 ip mac vlan port", "guard vlan 20 off"):
                self.ctl(line)
        sent = int(re.match(r"(\d+) packets", ping.communicate()[0].split("\n\n", 1)[1].split("\n", 1)[1])[1])
        self.assertGreater(sent, 500)
        self.assertEqual(self.refused("ipv4"), {})

    def test_static_bindings_outlive_a_stop_of_arp_inspection(self):
        host, address = self.lab.pc1, "10.0.10.50"
        host.ip(f"addr add {address}/24 dev eth0")
        self.addCleanup(host.ip, f"addr del {address}/24 dev eth0")

        def answered():
            host.ip("neigh flush dev eth0")
            return host.run("ping", "-c", "1", "-W", "1", "10.0.10.1", check=False).returncode == 0

        self.ctl(f"binding add {address} mac {MACS['pc1']} vlan 10 interface swp1")
        for _ in range(2):
            self.ctl("arp-inspection interface swp1 ip mac")
            self.assertTrue(answered(), self.daemon.log()[-3000:])
            self.ctl("arp-inspection interface swp1 off")
            self.wait("stop", lambda: self.events().endswith("DAISTOP"))
        self.ctl("arp-inspection interface swp1 ip mac")
        self.ctl(f"binding delete {address}")
        self.assertFalse(answered())
        self.assertEqual(list(self.refused("arp")), ["swp1"])

    def test_what_is_refused(self):
        self.assertIn("guard vlan 10: the VLAN has no interface", self.refusal("guard vlan 10 ip"))
        self.assertIn("guard interface lo: no port of the switch", self.refusal("guard interface lo ip"))
        self.assertEqual(self.items("ip"), {})


labtest.main()
