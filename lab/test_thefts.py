"""Hosts that claim the address of another: with every message that could, none takes, ends or moves a binding. Clients that move get theirs."""

import random
import signal

import labtest

from lab import MACS
from scapy.layers.dhcp6 import DHCP6OptClientId, DUID_LL
from wire import BOOTP, exchange, exchange6, from_client, from_client6, ia_na, DHCP6OptIAAddress

PC1, ROGUE, SERVER, FREE = MACS["pc1"], MACS["rogue"], "10.0.10.1", "10.0.10.222"


class Thefts(labtest.LabTest):
    """The attacker has all the protections of before against it, too."""

    def setUp(self):
        super().setUp()
        for port in ("swp1", "swp5"):
            self.ctl(f"interface {port} source-mac-check on binding-check on dhcp-rate off")

    def refusals(self):
        return {row["reason"]: row["total"] for row in self.switch.show("refusals") if row["interface"] == "swp5"}

    def check(self, held, *rows):
        """Each of the messages, five times; what the victim holds is what it held."""
        before = {address: self.binding(address) for address in held}
        self.assertNotIn("", before.values())
        rogue = self.endpoint("rogue")
        for claim, *frames in rows:
            with self.subTest(claim):
                for _ in range(5):
                    rogue.send(*frames)
                self.wait("the messages to be handled", lambda: rogue.send(from_client("discover", ROGUE, xid=7)) or rogue.receive_dhcp("offer", xid=7))
                self.assertEqual({address: self.binding(address) for address in held}, before)

    def test_ipv4(self):
        client = self.client("pc1")
        own, = client.wait_leases()
        asks = lambda kind, *extra, mac=ROGUE, **fields: from_client(kind, mac, *extra, **fields)
        named = ("requested_addr", own)
        self.check([own],
                   ("a request", asks("request", named)), ("a renewal", asks("request", ciaddr=own, source=own)),
                   ("a request to another server", asks("request", named, ("server_id", "10.0.10.66"))),
                   ("with yiaddr", asks("request", yiaddr=own)),
                   ("behind another address", asks("request", ("requested_addr", FREE), ciaddr=own)),
                   ("a decline", asks("decline", named, ("server_id", SERVER))), ("a release", asks("release", ("server_id", SERVER), ciaddr=own, source=own)),
                   ("with the client identifier of the victim", asks("discover", ("client_id", b"\1" + bytes.fromhex(PC1.replace(":", ""))), xid=9),
                    asks("request", named, ("client_id", b"\1" + bytes.fromhex(PC1.replace(":", ""))), ("server_id", SERVER), xid=9)),
                   ("in the name of the victim: a decline", asks("decline", named, ("server_id", SERVER), mac=PC1)),
                   ("a request", asks("request", named, mac=PC1)), ("a release", asks("release", ("server_id", SERVER), mac=PC1, ciaddr=own, source=own)),
                   ("a NAK provoked", asks("request", ("requested_addr", "10.0.66.66"), ("server_id", SERVER), mac=PC1)))
        self.assertGreater(self.refusals()["binding-theft"], 20)
        for _ in range(10):
            client.process.signal(signal.SIGUSR1)
            self.check([own], ("while the victim renews", *(asks("request", named) for _ in range(20))))
        self.assertEqual(self.lab.pc1.addresses("eth0"), {own})

    def test_ipv6(self):
        own, = self.client("pc1", family=6).wait_leases()
        asks = lambda kind, mac=ROGUE: from_client6(kind, mac, ia_na(own))
        victims = from_client6("request", ROGUE, ia_na(own))
        victims[DHCP6OptClientId].duid = DUID_LL(lladdr=PC1)
        self.check([own], *((kind, asks(kind)) for kind in ("solicit", "request", "renew", "rebind", "release", "decline")),
                   ("in the name of the victim", asks("release", PC1), asks("decline", PC1), asks("request", PC1)), ("with its DUID", victims))
        self.assertGreater(self.refusals()["binding-theft"], 20)

    def test_moves(self):
        """A host that really is at another port has its binding there: at once when its old port is down, else when it is silent."""
        for claim, down in (("the old port down", True), ("nobody there", False)):
            with self.subTest(claim):
                acked = exchange(self.endpoint("pc1"), PC1)[BOOTP].yiaddr
                reply = exchange6(self.endpoint("pc1"), PC1)
                own6 = reply[DHCP6OptIAAddress].addr
                self.assertEqual([self.bindings()[address]["interface"] for address in (acked, own6)], ["swp1"] * 2)
                if down:
                    self.switch.ip("link set swp1 down")
                    self.addCleanup(self.switch.ip, "link set swp1 up")
                moved, xid = self.endpoint("rogue"), random.getrandbits(24)

                def bound():
                    moved.send(from_client("request", PC1, ("requested_addr", acked), xid=xid, flags=0x8000),
                               from_client6("rebind", PC1, ia_na(own6), xid=xid))
                    return all(self.bindings()[address]["interface"] == "swp5" and self.bindings()[address]["state"] == "bound" for address in (acked, own6))

                self.wait("bindings at the new port", bound, 1 if down else 8)
                self.switch.ip("link set swp1 up")
                self.wait("the port", lambda: "LOWER_UP" in self.switch.run("ip", "link", "show", "swp1").stdout)
                for address in (acked, own6):
                    self.ctl(f"binding delete {address}")

    def test_as_asked(self):
        """The latest request wins, where the operator wants it."""
        self.ctl("protection as-asked")
        self.assertIn("protection as-asked", self.switch.ctl("show config").stdout)
        own = exchange(self.endpoint("pc1"), PC1)[BOOTP].yiaddr
        self.endpoint("rogue").send(from_client("decline", ROGUE, ("requested_addr", own)))
        self.wait("end of the binding", lambda: not self.binding(own))


labtest.main()
