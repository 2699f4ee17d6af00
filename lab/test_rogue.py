"""A DHCP server on an untrusted port: nobody hears it, every reply is counted, real leases go on."""

import labtest

from lab import MACS
from wire import BOOTP, exchange, from_client, from_server, is_dhcp, options

ROGUE, STOLEN = "10.0.10.66", "10.0.10.250"


class Rogue(labtest.LabTest):
    def replies(self, xid):
        for kind in ("offer", "ack", "nak"):
            for to in (("ff:ff:ff:ff:ff:ff", "255.255.255.255"), (MACS["pc1"], STOLEN)):
                yield from_server(kind, MACS["pc1"], ROGUE, STOLEN, source_mac=MACS["rogue"], to=to, xid=xid)

    def test_refused_and_counted(self):
        rogue, pc1 = self.endpoint(self.lab.rogue), self.endpoint(self.lab.pc1)
        trunk = self.endpoint(self.lab.trunk)
        pc1.send(from_client("discover", MACS["pc1"], xid=5, flags=0x8000))  # it races the real server
        sent = [rogue.send(reply) for reply in self.replies(5)]
        self.wait("count", lambda: self.counter("swp5", "dropped-untrusted") == len(sent))
        offer = pc1.receive_dhcp(None, xid=5)
        self.assertEqual(options(offer)["server_id"], "10.0.10.1")
        exchange(pc1, MACS["pc1"])
        for ear in (pc1, trunk):
            self.assertFalse([frame for frame in ear.drain() if is_dhcp(frame, siaddr=ROGUE) or
                              is_dhcp(frame, yiaddr=STOLEN)])
        self.assertNotIn(STOLEN, self.bindings())
        for port in ("swp1", "swp2", "swp3", "swp4", "swp6", "swp7"):
            self.assertEqual(self.counter(port, "dropped-untrusted"), 0, port)

    def test_ack_does_not_touch_a_binding(self):
        """It answers a client that asks for the address, before the real server can."""
        rogue, pc1 = self.endpoint(self.lab.rogue), self.endpoint(self.lab.pc1)
        pc1.send(from_client("request", MACS["pc1"], ("server_id", ROGUE), ("requested_addr", STOLEN), xid=6))
        self.wait("provisional binding", lambda: STOLEN in self.bindings())
        before = self.binding(STOLEN)
        for reply in self.replies(6):
            rogue.send(reply)
        self.wait("count", lambda: self.counter("swp5", "dropped-untrusted") == 6)
        self.assertEqual(self.binding(STOLEN), before)

    def test_hears_no_request(self):
        rogue = self.endpoint(self.lab.rogue)
        exchange(self.endpoint(self.lab.pc1), MACS["pc1"])
        self.assertFalse([frame for frame in rogue.drain() if is_dhcp(frame) and frame[BOOTP].op == 1])

    def test_trusted_again(self):
        """The same reply passes once the port is trusted: it was the trust that stopped it."""
        rogue, pc1 = self.endpoint(self.lab.rogue), self.endpoint(self.lab.pc1)
        self.ctl("interface swp5 trust on")
        rogue.send(next(self.replies(8)))
        pc1.receive_dhcp("offer", xid=8, yiaddr=STOLEN)
        self.assertEqual(self.counter("swp5", "dropped-untrusted"), 0)


labtest.main()
