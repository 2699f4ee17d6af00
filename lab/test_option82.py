"""Option 82 as the server sees it, decoded by tshark, and that the client never sees it in its ACK."""

import labtest

from lab import MACS
from wire import exchange, from_client, is_dhcp, options

CIRCUIT_ID = "dhcp.option.agent_information_option.agent_circuit_id"
REMOTE_ID = "dhcp.option.agent_information_option.agent_remote_id"
VALUES = "dhcp.option.agent_information_option.value"  # of every sub-option, then of the vendor's data
ENTERPRISE = "dhcp.option.agent_information_option.vi.enterprise"


def hexes(text):
    return text.encode().hex()


class Option82(labtest.LabTest):
    def seen(self, *commands, extra=(), strip=True):
        """Option 82's fields in the REQUEST at the server after these settings of swp1."""
        at_server, pc1 = self.capture(self.lab.server), self.endpoint(self.lab.pc1)
        self.ctl("interface swp1 option82 on")
        for command in commands:
            self.ctl(f"interface swp1 {command}")
        ack = exchange(pc1, MACS["pc1"], *extra)
        self.assertEqual("relay_agent_information" in options(ack), not strip)
        frames = at_server.decode([CIRCUIT_ID, REMOTE_ID, VALUES, ENTERPRISE, "udp.checksum.status"],
                                  "dhcp.option.dhcp == 3")
        self.assertEqual(len(frames), 1)
        self.assertEqual(frames[0]["udp.checksum.status"], "1")
        return {name: value.replace(":", "") for name, value in frames[0].items()}

    def port_mac(self):
        link = self.lab.switch.run("ip", "-o", "link", "show", "swp1").stdout
        return link.split("link/ether ")[1].split()[0].replace(":", "")

    def test_typed(self):
        """Type and length, VLAN 10 and the location 1, 0, 0, 1 (system, slot, card, port)."""
        seen = self.seen()
        self.assertEqual(seen[CIRCUIT_ID], "0006" "000a" "01000001")
        self.assertEqual(seen[REMOTE_ID], "0006" + self.port_mac())
        self.assertEqual(seen[ENTERPRISE], "")

    def test_typed_text(self):
        seen = self.seen("circuit-id text door-7", "remote-id typed text building-A")
        self.assertEqual(seen[CIRCUIT_ID], "0106" + hexes("door-7"))
        self.assertEqual(seen[REMOTE_ID], "010a" + hexes("building-A"))

    def test_raw(self):
        seen = self.seen("option82-mode raw", "circuit-id raw generated", "remote-id raw text building-A")
        self.assertEqual(seen[CIRCUIT_ID], "000a" "01000001")
        self.assertEqual(seen[REMOTE_ID], hexes("building-A"))

    def test_template(self):
        """The remote-id stays generated, and so the reply is known as our own and loses the option."""
        seen = self.seen("circuit-id template %N:%s/%c")
        self.assertEqual(seen[CIRCUIT_ID], hexes("swp1:10/0"))

    def test_double_tagged(self):
        """A provider's tag, 20, around the customer's, 5: both stay, and a template can name both."""
        at_server, trunk = self.capture(self.lab.server), self.endpoint(self.lab.trunk)
        self.ctl("interface swp3 option82 on")
        self.ctl("interface swp3 circuit-id template %s.%c")
        server = self.endpoint(self.lab.server)
        discover = bytes(from_client("discover", MACS["trunk"], xid=205))
        trunk.send(discover[:12] + bytes.fromhex("8100 0014 8100 0005") + discover[12:])
        server.receive_dhcp("discover", xid=205)
        seen = at_server.decode(["vlan.id", CIRCUIT_ID, "udp.checksum.status"])
        self.assertEqual(seen, [{"vlan.id": "20,5", CIRCUIT_ID: hexes("20.5"), "udp.checksum.status": "1"}])

    def test_mode_template_is_not_stripped(self):
        """Kept: with mode 5 nothing tells whose option it is, so the client gets it."""
        self.seen("option82-mode template", "circuit-id template %N", strip=False)

    def test_vendor_block(self):
        """RFC 4243: enterprise number, length, then type 1, length and the switch's host name."""
        seen = self.seen("subopt9 on")
        self.assertEqual(seen[ENTERPRISE], "32473")
        self.assertEqual(seen[VALUES].split(",")[2:], ["00007ed9" "0c" "010a" + hexes("lab-switch"),
                                                       "010a" + hexes("lab-switch")])

    def test_vendor_block_text(self):
        seen = self.seen("subopt9 on", "subopt9-text rack-12")
        self.assertEqual(seen[VALUES].split(",")[3], "0107" + hexes("rack-12"))

    def test_policy(self):
        """A client that brings an option 82 of its own."""
        own = bytes.fromhex("0103616263" "0203646566")
        extra = (("relay_agent_information", own),)
        with self.subTest("kept as it is"):
            seen = self.seen(extra=extra, strip=False)
            self.assertEqual((seen[CIRCUIT_ID], seen[REMOTE_ID]), (hexes("abc"), hexes("def")))
        with self.subTest("dropped"):
            self.ctl("interface swp1 option82-policy drop")
            server, pc1 = self.endpoint(self.lab.server), self.endpoint(self.lab.pc1)
            pc1.send(from_client("discover", MACS["pc1"], *extra, xid=11))
            pc1.send(from_client("discover", MACS["pc1"], xid=12))
            server.receive_dhcp("discover", xid=12)
            self.assertFalse([frame for frame in server.drain() if is_dhcp(frame, xid=11)])


labtest.main()
