"""Relaying: the request goes by UDP to both servers behind the router port, the reply comes back to the client's port."""

import labtest

from lab import MACS, RELAY_ADDRESS, RELAY_SERVERS
from wire import BOOTP, BROADCAST, IP, UDP, Ether, exchange, is_dhcp, options


class Relay(labtest.LabTest):
    def setUp(self):
        super().setUp()
        self.ctl(f"interface swp7 relay-address {RELAY_ADDRESS}")
        for address in RELAY_SERVERS.values():
            self.ctl(f"interface swp7 relay-server {address} add")

    def test_lease(self):
        captures = {name: self.capture(self.lab.hosts[name]) for name in RELAY_SERVERS}
        at_client = self.capture(self.lab.pc3)
        client = self.client(self.lab.pc3)
        address = client.wait_lease()
        self.assertTrue(address.startswith("10.0.30."))
        binding = self.bindings()[address]
        self.assertEqual((binding["interface"], binding["vlan"], binding["mac"]), ("swp7", 30, MACS["pc3"]))
        self.assertEqual((binding["state"], binding["lease"]), ("bound", 120))
        fields = ["dhcp.option.dhcp", "dhcp.ip.relay", "ip.src", "ip.dst", "udp.srcport", "udp.dstport"]
        for name, server in RELAY_SERVERS.items():
            seen = captures[name].decode(fields, "dhcp.type == 1")
            for kind, frame in zip("13", seen, strict=True):
                self.assertEqual(list(frame.values()), [kind, RELAY_ADDRESS, RELAY_ADDRESS, server, "67", "67"])
        # Both servers offer, the chosen one acknowledges; everything reaches the client as from the relay.
        replies = at_client.decode([*fields, "udp.checksum.status"], "dhcp.type == 2")
        self.assertEqual([frame["dhcp.option.dhcp"] for frame in replies], ["2", "2", "5"])
        for frame in replies:
            self.assertEqual((frame["ip.src"], frame["udp.srcport"], frame["udp.dstport"]), (RELAY_ADDRESS, "67", "68"))
            self.assertEqual(frame["udp.checksum.status"], "1")

    def test_destination(self):
        """Broadcast when the client asks for it, else to the address and MAC that it is to have."""
        for claim, flags, mac, ip in (("broadcast flag", 0x8000, BROADCAST, "255.255.255.255"),
                                      ("no broadcast flag", 0, MACS["pc3"], None)):
            with self.subTest(claim):
                ack = exchange(self.endpoint(self.lab.pc3), MACS["pc3"], flags=flags)
                self.assertEqual((ack[Ether].dst, ack[IP].dst), (mac, ip or ack[BOOTP].yiaddr))
                self.assertEqual((ack[IP].src, ack[UDP].dport), (RELAY_ADDRESS, 68))

    def test_not_at_layer_2(self):
        """A relayed request leaves by UDP only: the server of the other VLANs does not see it."""
        server = self.endpoint(self.lab.server)
        exchange(self.endpoint(self.lab.pc3), MACS["pc3"])
        self.assertFalse([frame for frame in server.drain() if is_dhcp(frame)])

    def test_option82(self):
        """The circuit-id travels with the relayed request and is gone in the reply."""
        at_server = self.capture(self.lab.relay1)
        self.ctl("interface swp7 option82 on")
        self.ctl("interface swp7 circuit-id text room-3")
        ack = exchange(self.endpoint(self.lab.pc3), MACS["pc3"])
        self.assertNotIn("relay_agent_information", options(ack))
        field = "dhcp.option.agent_information_option.agent_circuit_id"
        seen = at_server.decode([field], "dhcp.type == 1")
        self.assertEqual([frame[field].replace(":", "") for frame in seen], ["0106" + b"room-3".hex()] * 2)


labtest.main()
