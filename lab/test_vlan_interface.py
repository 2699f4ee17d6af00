"""Snooping on a VLAN's interface: ports without snooping of their own are handled through it."""

import labtest

from lab import SWITCH_CONF, TRUSTED


class VlanInterface(labtest.LabTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.lab.switch.ip("link add vlan20 type bridge")  # any device will do as a name and an index
        cls.lab.switch.ip("link set vlan20 up")
        with open(SWITCH_CONF, "a") as conf:
            conf.write("vlan 20 interface vlan20\n")

    def start_daemon(self):
        self.daemon = self.lab.start_daemon()
        for interface in ("vlan20", *TRUSTED):
            self.ctl(f"interface {interface} snooping on")
        for port in TRUSTED:
            self.ctl(f"interface {port} trust on")

    def test_lease(self):
        address = self.client(self.lab.pc2, program="dhclient").wait_lease()
        tagged = self.client(self.lab.trunk, "vlan20").wait_lease()
        bindings = self.bindings()
        self.assertEqual((bindings[address]["interface"], bindings[address]["vlan"]), ("swp2", 20))
        self.assertEqual((bindings[tagged]["interface"], bindings[tagged]["vlan"]), ("swp3", 20))
        self.assertEqual(len(bindings), 2)


labtest.main()
