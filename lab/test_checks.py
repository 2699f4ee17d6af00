"""What an untrusted port may not do: lie about its MAC, touch another's binding, hold too many addresses."""

import labtest

from lab import MACS
from wire import BOOTP, exchange, from_client, is_dhcp, options

OTHER = "02:00:00:00:99:99"


class Checks(labtest.LabTest):
    def passes(self, port_host, frame, tag=None):
        """Does the frame reach the server? A frame sent after it on another port tells when to stop waiting."""
        server = self.endpoint(self.lab.server)
        with self.endpoint(port_host) as sender, self.endpoint(self.lab.pc2) as marker:
            sender.send(frame)
            marker.send(from_client("discover", OTHER, xid=0x7FFFFFFF))
            seen = []
            server.receive("marker", lambda f: is_dhcp(f) and (seen.append(f[BOOTP].xid) or seen[-1] == 0x7FFFFFFF))
        return frame[BOOTP].xid in seen

    def test_source_mac(self):
        honest = from_client("discover", MACS["pc1"])
        lying = from_client("discover", OTHER, source_mac=MACS["pc1"])
        for claim, check, frame, passes, count in (
            ("unchecked, another's MAC", "off", lying, True, 0),
            ("checked, its own MAC", "on", honest, True, 0),
            ("checked, another's MAC", "on", lying, False, 1),
            ("unchecked again", "off", lying, True, 1),
        ):
            with self.subTest(claim):
                self.ctl(f"interface swp1 source-mac-check {check}")
                self.assertEqual(self.passes(self.lab.pc1, frame), passes)
                self.assertEqual(self.counter("swp1", "dropped-source-mac"), count)

    def test_binding(self):
        """Another port renews or releases pc1's lease."""
        ack = exchange(self.endpoint(self.lab.pc1), MACS["pc1"])
        address = ack[BOOTP].yiaddr
        for port in ("swp1", "swp5"):
            self.ctl(f"interface {port} binding-check on")
        known = self.binding(address)
        server = ("server_id", options(ack)["server_id"])
        for claim, host, frame, passes in (
            ("renewal from another port", "rogue", from_client("request", MACS["pc1"], source=address, ciaddr=address),
             False),
            ("release from another port", "rogue",
             from_client("release", MACS["pc1"], server, source=address, ciaddr=address), False),
            ("release with another MAC", "pc1", from_client("release", OTHER, server, source=address, ciaddr=address),
             False),
            ("release from another address", "pc1",
             from_client("release", MACS["pc1"], server, source="10.0.10.7", ciaddr=address), False),
            ("renewal by its holder", "pc1", from_client("request", MACS["pc1"], source=address, ciaddr=address), True),
        ):
            with self.subTest(claim):
                self.assertEqual(self.passes(self.lab.hosts[host], frame), passes)
                self.assertEqual(self.binding(address), known)
        self.assertEqual((self.counter("swp5", "dropped-binding"), self.counter("swp1", "dropped-binding")), (2, 2))
        with self.subTest("release by its holder"):
            frame = from_client("release", MACS["pc1"], server, source=address, ciaddr=address)
            self.assertTrue(self.passes(self.lab.pc1, frame))
            self.assertNotIn(address, self.bindings())

    def test_limit(self):
        self.ctl("interface swp1 max-users 2")
        pc1 = self.endpoint(self.lab.pc1)
        macs = [f"02:00:00:00:77:{number:02x}" for number in range(3)]
        held = [exchange(pc1, mac)[BOOTP].yiaddr for mac in macs[:2]]
        self.assertEqual(self.counter("swp1", "users"), 2)
        third = from_client("request", macs[2], ("server_id", "10.0.10.1"), ("requested_addr", "10.0.10.180"))
        self.assertFalse(self.passes(self.lab.pc1, third))
        self.assertEqual(set(self.bindings()), set(held))
        with self.subTest("a holder renews"):
            self.assertTrue(self.passes(self.lab.pc1, from_client("request", macs[0], source=held[0], ciaddr=held[0])))
        with self.subTest("one leaves, the third comes"):
            self.assertTrue(self.passes(self.lab.pc1, from_client("release", macs[0], source=held[0], ciaddr=held[0])))
            exchange(pc1, macs[2])
            self.assertEqual(self.counter("swp1", "users"), 2)

    def test_malformed(self):
        """Frames that are no DHCP message of any use: nobody gets them, nothing is learned, the daemon lives."""
        good = bytes(from_client("discover", MACS["pc1"], xid=1))
        bad = (
            ("cut in the IP header", good[:30]),
            ("cut in the DHCP header", good[:100]),
            ("cut before the options", good[:14 + 28 + 239]),
            ("IP version 7", good[:14] + b"\x75" + good[15:]),
            ("IP header length 1", good[:14] + b"\x41" + good[15:]),
            ("IP total length 20", good[:16] + b"\0\x14" + good[18:]),
            ("UDP length 0", good[:38] + b"\0\0" + good[40:]),
            ("UDP length beyond the frame", good[:38] + b"\xff\xff" + good[40:]),
            ("no magic cookie", good[:278] + b"\0\0\0\0" + good[282:]),
        )
        server, pc1 = self.endpoint(self.lab.server), self.endpoint(self.lab.pc1)
        for _, frame in bad:
            pc1.send(frame)
        pc1.send(from_client("discover", MACS["pc1"], xid=2))
        server.receive_dhcp("discover", xid=2)
        self.assertFalse([frame for frame in server.drain() if is_dhcp(frame, xid=1)])
        self.assertEqual(self.bindings(), {})


labtest.main()
