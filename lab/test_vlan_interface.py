"""Snooping on a VLAN's interface: ports without snooping of their own are handled through it."""

import labtest

from lab import TRUSTED


class VlanInterface(labtest.LabTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.give_vlan_interface()

    def start_daemon(self):
        self.daemon = self.lab.start_daemon()
        for interface in ("vlan20", *TRUSTED):
            self.ctl(f"interface {interface} snooping on")
            self.ctl(f"interface {interface} version both")
        for port in TRUSTED:
            self.ctl(f"interface {port} trust on")

    def test_lease(self):
        address = self.client(self.lab.pc2, program="dhclient").wait_lease()
        tagged = self.client(self.lab.trunk, "vlan20").wait_lease()
        bindings = self.bindings()
        self.assertEqual((bindings[address]["interface"], bindings[address]["vlan"]), ("swp2", 20))
        self.assertEqual((bindings[tagged]["interface"], bindings[tagged]["vlan"]), ("swp3", 20))
        self.assertEqual(len(bindings), 2)

    def test_lease6(self):
        self.ctl("interface vlan20 option18 on")
        at_server = self.capture(self.lab.server)
        held = self.client6(self.lab.pc2, program="dhcpcd").wait_leases(2)
        tagged = self.client6(self.lab.trunk, "vlan20").wait_leases(2)
        bindings = self.bindings()
        self.assertEqual({bindings[address]["interface"] for address in held}, {"swp2"})
        self.assertEqual({bindings[address]["interface"] for address in tagged}, {"swp3"})
        self.assertEqual({(binding["state"], binding["vlan"]) for binding in bindings.values()}, {("bound", 20)})
        asked = at_server.decode(["dhcpv6.interface_id"], "dhcpv6.msgtype == 3")
        self.assertTrue(asked and all(frame["dhcpv6.interface_id"] for frame in asked), asked)


labtest.main()
