"""A lease that is not renewed: its binding goes with the first scan after its end, and closes the port to it."""

import labtest

from lab import MACS
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Ether
from wire import BROADCAST, exchange, from_client, from_server

SHORT = "10.0.10.40"


class Expiry(labtest.LabTest):
    daemon_arguments = ("20", "256", "1", "1")

    def test_expiry(self):
        """Scans are a minute apart, and the first one was at the daemon's start."""
        self.ctl("guard interface swp1 ip mac vlan port")
        packet = Ether(src=MACS["pc1"], dst=BROADCAST) / IP(src=SHORT, dst="10.0.10.9") / UDP() / b"still here"
        pc1, server = self.endpoint(self.lab.pc1), self.endpoint(self.lab.server, "vlan10")
        exchange(self.endpoint(self.lab.pc2), MACS["pc2"])
        (long,) = self.bindings()
        # Of a server that is not there, so that the real one says nothing.
        pc1.send(from_client("request", MACS["pc1"], ("server_id", "10.0.10.2"), ("requested_addr", SHORT), xid=3))
        self.wait("provisional binding", lambda: SHORT in self.bindings())
        server.send(from_server("ack", MACS["pc1"], "10.0.10.2", SHORT, source_mac=MACS["server"], lease=2, xid=3))
        self.wait("bound binding", lambda: self.bindings()[SHORT]["state"] == "bound")
        self.assertEqual(self.bindings()[SHORT]["lease"], 2)
        self.assertTrue(self.arrives(packet, "pc1", "rogue"))
        self.wait("expiry", lambda: SHORT not in self.bindings(), timeout=70)
        self.assertEqual(set(self.bindings()), {long})
        self.assertFalse(self.arrives(packet, "pc1", "rogue"))


labtest.main()
