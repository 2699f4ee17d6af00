"""Whole leases of real clients from a real server: got, renewed, given back, refused."""

import labtest
import signal

from lab import MACS, TRUNK_CLIENTS
from wire import BOOTP, BROADCAST, Ether, exchange, from_client, is_dhcp, options, outer_vid

# claim, host, device, program, port, VLAN, MAC
CLIENTS = (
    ("udhcpc on an access port", "pc1", "eth0", "udhcpc", "swp1", 10, MACS["pc1"]),
    ("dhclient on an access port", "pc2", "eth0", "dhclient", "swp2", 20, MACS["pc2"]),
    ("udhcpc in a tagged VLAN", "trunk", "vlan10", "udhcpc", "swp3", 10, TRUNK_CLIENTS["vlan10"]),
    ("dhclient in a tagged VLAN", "trunk", "vlan20", "dhclient", "swp3", 20, TRUNK_CLIENTS["vlan20"]),
)


class Leases(labtest.LabTest):
    def test_lease(self):
        at_server = self.capture(self.lab.server)
        at_client = {name: self.capture(self.lab.hosts[name]) for name in ("pc1", "pc2", "trunk")}
        clients = [self.client(self.lab.hosts[host], device, program) for _, host, device, program, *_ in CLIENTS]
        fields = ["dhcp.option.dhcp", "vlan.id", "udp.checksum.status", "ip.checksum.status"]
        addresses = [client.wait_lease() for client in clients]
        bindings = self.bindings()
        for (claim, host, _, _, port, vid, mac), address in zip(CLIENTS, addresses):
            with self.subTest(claim):
                binding = bindings[address]
                self.assertEqual((binding["interface"], binding["vlan"], binding["mac"]), (port, vid, mac))
                self.assertEqual((binding["type"], binding["state"], binding["lease"]), ("dynamic", "bound", 120))
                seen = at_server.decode(fields, f"dhcp.hw.mac_addr == {mac} && dhcp.type == 1")
                self.assertEqual({frame["dhcp.option.dhcp"] for frame in seen}, {"1", "3"})
                self.assertEqual({frame["vlan.id"] for frame in seen}, {str(vid)})
                replies = at_client[host].decode(fields, f"dhcp.hw.mac_addr == {mac} && dhcp.type == 2")
                self.assertEqual({frame["dhcp.option.dhcp"] for frame in replies}, {"2", "5"})
                self.assertEqual({frame["vlan.id"] for frame in replies}, {str(vid) if host == "trunk" else ""})
                for frame in seen + replies:  # 1 is good
                    self.assertEqual((frame["udp.checksum.status"], frame["ip.checksum.status"]), ("1", "1"))
        self.assertEqual(len(bindings), len(CLIENTS))

    def test_renew_by_unicast(self):
        client = self.client(self.lab.pc1)
        address = client.wait_lease()
        before = self.binding(address)
        at_server, at_client = self.capture(self.lab.server), self.capture(self.lab.pc1)
        self.wait("two seconds on the lease", lambda: self.bindings()[address]["elapsed"] >= 2)
        client.process.signal(signal.SIGUSR1)
        self.wait("renewal", lambda: client.count("renew"))
        self.assertLess(self.bindings()[address]["elapsed"], 2)
        self.assertEqual(self.binding(address), before)
        # The first of each: udhcpc starts to listen after it has asked, can miss a fast answer and then broadcasts.
        fields = ["ip.src", "ip.dst", "dhcp.ip.client"]
        request = at_server.decode(fields, "dhcp.option.dhcp == 3")[0]
        self.assertEqual(request, {"ip.src": address, "ip.dst": "10.0.10.1", "dhcp.ip.client": address})
        reply = at_client.decode(fields, "dhcp.option.dhcp == 5")[0]
        self.assertEqual(reply, {"ip.src": "10.0.10.1", "ip.dst": address, "dhcp.ip.client": address})

    def test_renew_by_broadcast(self):
        pc1 = self.endpoint(self.lab.pc1)
        ack = exchange(pc1, MACS["pc1"])
        address = ack[BOOTP].yiaddr
        self.lab.pc1.ip(f"addr add {address}/24 dev eth0")  # the server asks for it by ARP and answers by unicast
        self.addCleanup(self.lab.pc1.ip, "addr flush dev eth0 scope global")
        self.wait("two seconds on the lease", lambda: self.bindings()[address]["elapsed"] >= 2)
        pc1.send(from_client("request", MACS["pc1"], source=address, ciaddr=address, xid=7, flags=0x8000))
        self.assertEqual(pc1.receive_dhcp("ack", xid=7)[BOOTP].yiaddr, address)
        self.assertLess(self.bindings()[address]["elapsed"], 2)

    def test_release(self):
        for _, host, device, program, *_ in CLIENTS[:2]:
            with self.subTest(program):
                client = self.client(self.lab.hosts[host], device, program)
                address = client.wait_lease()
                self.assertIn(address, self.bindings())
                client.release()
                self.wait("end of the binding", lambda: address not in self.bindings())
                self.wait("release at the server",
                          lambda: f"DHCPRELEASE(vlan{address.split('.')[2]}) {address}" in self.lab.processes[0].log())

    def test_decline(self):
        pc1 = self.endpoint(self.lab.pc1)
        ack = exchange(pc1, MACS["pc1"])
        address = ack[BOOTP].yiaddr
        self.assertIn(address, self.bindings())
        pc1.send(from_client("decline", MACS["pc1"], ("server_id", options(ack)["server_id"]),
                             ("requested_addr", address)))
        self.wait("end of the binding", lambda: address not in self.bindings())
        self.wait("decline at the server", lambda: f"DHCPDECLINE(vlan10) {address}" in self.lab.processes[0].log())

    def test_nak(self):
        """A client that asks for an address of another network: refused by the server, and nothing is left bound."""
        pc1 = self.endpoint(self.lab.pc1)
        pc1.send(from_client("request", MACS["pc1"], ("requested_addr", "10.99.0.5"), xid=9, flags=0x8000))
        nak = pc1.receive_dhcp("nak", xid=9)
        self.assertEqual(nak[Ether].dst, BROADCAST)
        # Recorded with the request, which named no server: the NAK's server is another, so it stays until it expires.
        self.assertEqual(self.bindings()["10.99.0.5"]["state"], "requested")

    def test_vlans_do_not_leak(self):
        """Requests go to the trusted port only, replies to the ports of their VLAN only."""
        names = ("pc1", "pc2", "pc3", "trunk", "rogue", "core", "server")
        ears = {name: self.endpoint(self.lab.hosts[name]) for name in names}
        exchange(ears["pc2"], MACS["pc2"], xid=20)
        exchange(ears["pc1"], MACS["pc1"], xid=10)  # whatever the first one caused has been sent by now
        heard = {name: [(frame[BOOTP].op, frame[BOOTP].xid, outer_vid(frame)) for frame in ear.drain() if is_dhcp(frame)]
                 for name, ear in ears.items()}
        self.assertEqual(heard["server"], [(1, 20, 20), (1, 20, 20), (1, 10, 10), (1, 10, 10)])
        # The OFFER is flooded in its VLAN: no binding says yet where the client is.
        self.assertEqual(heard["trunk"], [(2, 20, 20), (2, 10, 10)])
        self.assertEqual(heard["rogue"], [(2, 10, 0)])
        self.assertEqual(heard["pc3"], [])
        # Kept: a router port is asked for no VLAN. Being trusted it gets all requests, being snooped the flood.
        self.assertEqual(set(heard["core"]), {(1, 20, 0), (2, 20, 0), (1, 10, 0), (2, 10, 0)})
        self.assertNotIn((2, 20, 0), heard["pc1"])
        self.assertNotIn((2, 10, 0), heard["pc2"])

    def test_frame_of_a_foreign_vlan(self):
        """A tag that the port is no member of gets a frame nowhere."""
        trunk, server = self.endpoint(self.lab.trunk), self.endpoint(self.lab.server)
        for vid in (30, 99):
            request = from_client("discover", MACS["trunk"], xid=vid)
            trunk.send(bytes(request)[:12] + bytes((0x81, 0, 0, vid)) + bytes(request)[12:])
        exchange(self.endpoint(self.lab.pc1), MACS["pc1"], xid=1)
        self.assertEqual({frame[BOOTP].xid for frame in server.drain() if is_dhcp(frame)}, {1})


class LeasesWithoutOffload(Leases):
    offload = False


labtest.main()
