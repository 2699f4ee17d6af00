"""Whole leases of real clients from a real server: got, renewed, given back, relayed."""

import re
import signal

import labtest

from lab import MACS, RELAY_ADDRESS, RELAY_SERVERS, ROOT, TRUNK_CLIENTS

# claim, host, device, DHCPv4 client, port, VLAN, DHCPv6 client, how many addresses the server has for it
CLIENTS = (
    ("on an access port", "pc1", "eth0", "udhcpc", "swp1", 10, "dhclient", 1),
    ("on an access port, two IPv6 addresses", "pc2", "eth0", "dhclient", "swp2", 20, "dhcpcd", 2),
    ("in a tagged VLAN", "trunk", "vlan10", "udhcpc", "swp3", 10, "dhcpcd", 1),
    ("in a tagged VLAN, two IPv6 addresses", "trunk", "vlan20", "dhclient", "swp3", 20, "dhclient", 2),
)


class Leases(labtest.LabTest):
    def test_lease(self):
        """Bound where the client is, with its VLAN's tag and true checksums at both ends."""
        at_server, at_host = self.capture("server"), {row[1]: self.capture(row[1]) for row in CLIENTS}
        clients = [(self.client(host, device, program), self.client(host, device, program6, 6))
                   for _, host, device, program, _, _, program6, _ in CLIENTS]
        held = [client.wait_leases() | client6.wait_leases(row[-1]) for row, (client, client6) in zip(CLIENTS, clients)]
        tree = "dhcp.option.dhcp dhcpv6.msgtype vlan.id udp.checksum.status ip.checksum.status"
        for (claim, host, device, _, port, vid, _, _), own in zip(CLIENTS, held):
            mac = TRUNK_CLIENTS.get(device, MACS[host])
            with self.subTest(claim):
                self.assertEqual({self.binding(address) for address in own}, {f"{mac} {vid} {port} dynamic bound 120"})
                tag = str(vid) if host == "trunk" else ""
                for capture, where, kinds, tags in ((at_server, "dhcp.type == 1 && dhcp.hw.mac_addr", "13", str(vid)),
                                                    (at_server, "dhcpv6 && eth.src", "13", str(vid)),
                                                    (at_host[host], "dhcp.type == 2 && dhcp.hw.mac_addr", "25", tag),
                                                    (at_host[host], "dhcpv6 && eth.dst", "27", tag)):
                    seen = {" ".join(frame) for frame in capture.decode(tree, f"{where} == {mac}")}
                    expected = {f"{kind}  {tags} 1 1" if "dhcp." in where else f" {kind} {tags} 1 " for kind in kinds}
                    self.assertEqual(seen - {f" 5 {tags} 1 "}, expected)  # on a slow machine also a RENEW
        self.assertEqual(set(self.bindings()), set.union(*held))

    def test_renewals(self):
        """The bindings begin anew, and are otherwise as they were."""
        pc1, pc2 = self.client("pc1"), self.client("pc2", program="dhcpcd", family=6)
        own, own6 = pc1.wait_leases(), pc2.wait_leases(2)
        for claim, client, held, number, message, source in (
                ("udhcpc by unicast", pc1, own, signal.SIGUSR1, "dhcp.option.dhcp == 3", [*own]),
                ("dhcpcd's RENEW", pc2, own6, signal.SIGUSR1, "dhcpv6.msgtype == 5", [""]),
                ("dhcpcd's REBIND", pc2, own6, signal.SIGHUP, "dhcpv6.msgtype == 6", [""])):
            with self.subTest(claim):
                before, at_server = [self.binding(address) for address in held], self.capture("server")
                elapsed = lambda: [self.bindings()[address]["elapsed"] for address in held]
                self.wait("three seconds on the leases", lambda: min(elapsed()) >= 3)
                client.process.signal(number)
                self.wait("the bindings' new begin", lambda: max(elapsed()) < 3)
                self.assertEqual([self.binding(address) for address in held], before)
                self.assertEqual(at_server.decode("ip.src", message)[0], source)

    def test_release(self):
        for host, program, family in (("pc1", "udhcpc", 4), ("pc1", "dhclient", 6), ("pc2", "dhcpcd", 6), ("pc2", "dhclient", 4)):
            with self.subTest(program, family=family):
                client = self.client(host, program=program, family=family)
                held = client.wait_leases(2 if (host, family) == ("pc2", 6) else 1)
                self.assertEqual({self.bindings()[address]["state"] for address in held}, {"bound"})
                client.release()
                self.wait("end of the bindings", lambda: not self.bindings())
                words = "DHCPRELEASE", f"00:03:00:01:{MACS[host]}" if family == 6 else f" {held.pop()} "
                self.wait(f"{words} at the server", lambda said=words: any(all(word in line for word in said)
                                                                           for line in self.lab.processes[0].log().splitlines()), 30)


class WithoutOffload(Leases):
    """The senders' own checksums instead of the devices'."""
    offload = False
    test_renewals = test_release = None


class VlanInterface(labtest.LabTest):
    """Ports without snooping of their own are handled through their VLAN's interface."""
    vlan_interface = True
    snooped = ("vlan20", "swp4", "swp6")

    def test_lease(self):
        self.ctl("interface vlan20 option18 on")
        at_server = self.capture("server")
        for host, device, port in (("pc2", "eth0", "swp2"), ("trunk", "vlan20", "swp3")):
            held = self.client(host, device, "dhclient").wait_leases() | self.client(host, device, "dhcpcd", 6).wait_leases(2)
            self.assertEqual({self.binding(address).split(" ", 1)[1] for address in held}, {f"20 {port} dynamic bound 120"})
        self.assertEqual(len(self.bindings()), 6)
        asked = at_server.decode("dhcpv6.interface_id", "dhcpv6.msgtype == 3")
        self.assertTrue(asked and [""] not in asked, asked)


class Relay(labtest.LabTest):
    """The request goes by UDP to both servers behind the router port, the reply comes back to the client's port. The daemon has
    no capability but those that its service has."""

    def start_daemon(self, under=()):
        with open(f"{ROOT}/packaging/dhcpsnoop.service") as unit:
            names = re.search(r"CapabilityBoundingSet=(.*)", unit.read())[1].split()
        left = ",".join("+" + name.removeprefix("CAP_").lower() for name in names)
        super().start_daemon(("setpriv", "--no-new-privs", f"--bounding-set=-all,{left}"))

    def test_lease(self):
        self.ctl(f"interface swp7 relay-address {RELAY_ADDRESS}; interface swp7 option82 on; interface swp7 circuit-id text room-3")
        for address in RELAY_SERVERS.values():
            self.ctl(f"interface swp7 relay-server {address} add")
        at_servers, at_client, elsewhere = [self.capture(name) for name in RELAY_SERVERS], self.capture("pc3"), self.capture("server")
        address, = self.client("pc3").wait_leases()
        self.assertRegex(address, r"10\.0\.30\.")
        self.assertEqual(self.binding(address), f"{MACS['pc3']} 30 swp7 dynamic bound 120")
        fields = "dhcp.option.dhcp dhcp.ip.relay ip.src udp.srcport udp.dstport dhcp.option.agent_information_option.agent_circuit_id"
        for at_server, server in zip(at_servers, RELAY_SERVERS.values()):
            self.assertEqual([" ".join(frame) for frame in at_server.decode(f"{fields} ip.dst", "dhcp.type == 1")],
                             [f"{kind} {RELAY_ADDRESS} {RELAY_ADDRESS} 67 67 0106{b'room-3'.hex()} {server}" for kind in "13"])
        # Both servers offer, the chosen one acknowledges; everything reaches the client as from the relay.
        replies = [" ".join(frame) for frame in at_client.decode(f"{fields} udp.checksum.status", "dhcp.type == 2")]
        self.assertEqual(replies, [f"{kind} {RELAY_ADDRESS} {RELAY_ADDRESS} 67 68  1" for kind in "225"])
        self.assertEqual(elsewhere.decode(fields), [])  # not at layer 2


labtest.main()
