"""DHCPv6 through the daemon: whole leases of two real clients from a real server, what a client or server can say besides,
a rogue server, and options 18 and 37 as the server sees them."""

import signal
import time

import labtest

from dhcpv6 import (DHCP6OptIA_NA, DHCP6OptIAAddress, DHCP6OptServerId, IPv6, TYPES, addresses, exchange, from_client,
                    from_server, ia_na, is_dhcp6, link_local, receive)
from lab import MACS, TRUNK_CLIENTS
from scapy.layers.dhcp6 import DHCP6OptIfaceId, DHCP6OptReconfMsg, DHCP6OptRemoteID, DHCP6OptStatusCode, DUID_LL
from scapy.layers.l2 import Ether
from wire import outer_vid

STOLEN = "2001:db8:10::bad"
# claim, host, device, program, port, VLAN, MAC, how many addresses the server has for it
CLIENTS = (
    ("dhclient on an access port", "pc1", "eth0", "dhclient", "swp1", 10, MACS["pc1"], 1),
    ("dhcpcd on an access port, two addresses", "pc2", "eth0", "dhcpcd", "swp2", 20, MACS["pc2"], 2),
    ("dhcpcd in a tagged VLAN", "trunk", "vlan10", "dhcpcd", "swp3", 10, TRUNK_CLIENTS["vlan10"], 1),
    ("dhclient in a tagged VLAN, two addresses", "trunk", "vlan20", "dhclient", "swp3", 20, TRUNK_CLIENTS["vlan20"], 2),
)


class Six(labtest.LabTest):
    version = "both"

    def server_says(self, *words):
        """Is there a line in the server's log with all these words?"""
        return any(all(word in line for word in words) for line in self.lab.processes[0].log().splitlines())


class Leases(Six):
    def test_lease(self):
        at_server = self.capture(self.lab.server)
        at_client = {name: self.capture(self.lab.hosts[name]) for name in ("pc1", "pc2", "trunk")}
        clients = [self.client6(self.lab.hosts[host], device, program) for _, host, device, program, *_ in CLIENTS]
        held = [client.wait_leases(row[-1]) for client, row in zip(clients, CLIENTS)]
        bindings = self.bindings()
        fields = ["dhcpv6.msgtype", "vlan.id", "udp.checksum.status"]
        for (claim, host, _, _, port, vid, mac, _), own in zip(CLIENTS, held):
            with self.subTest(claim):
                for address in own:
                    binding = bindings[address]
                    self.assertEqual((binding["interface"], binding["vlan"], binding["mac"]), (port, vid, mac))
                    self.assertEqual((binding["type"], binding["state"], binding["lease"]), ("dynamic", "bound", 120))
                seen = at_server.decode(fields, f"dhcpv6 && eth.src == {mac}")
                self.assertEqual({frame["dhcpv6.msgtype"] for frame in seen}, {"1", "3"})
                self.assertEqual({frame["vlan.id"] for frame in seen}, {str(vid)})
                replies = at_client[host].decode(fields, f"dhcpv6 && eth.dst == {mac}")
                self.assertEqual({frame["dhcpv6.msgtype"] for frame in replies}, {"2", "7"})
                self.assertEqual({frame["vlan.id"] for frame in replies}, {str(vid) if host == "trunk" else ""})
                for frame in seen + replies:  # 1 is good
                    self.assertEqual(frame["udp.checksum.status"], "1")
        self.assertEqual(len(bindings), sum(row[-1] for row in CLIENTS))

    def begins(self, held):
        """When the leases began, by this test's clock."""
        bindings, now = self.bindings(), time.monotonic()
        return [now - bindings[address]["elapsed"] for address in held]

    def renewed(self, client, number, kind):
        """The client asks on a signal; its bindings begin anew, and are otherwise as they were."""
        held = client.wait_leases(2)
        before, begins = {address: self.binding(address) for address in held}, self.begins(held)
        at_server = self.capture(self.lab.server)
        self.wait("three seconds on the leases", lambda: time.monotonic() - max(begins) >= 3)
        client.process.signal(number)
        self.wait(kind, lambda: at_server.decode(["dhcpv6.xid"], f"dhcpv6.msgtype == {TYPES[kind]}"))
        self.wait("the bindings' new begin", lambda: min(self.begins(held)) > max(begins) + 1.5)
        self.assertEqual({address: self.binding(address) for address in held}, before)

    def test_renew(self):
        self.renewed(self.client6(self.lab.pc2, program="dhcpcd"), signal.SIGUSR1, "renew")

    def test_rebind(self):
        self.renewed(self.client6(self.lab.pc2, program="dhcpcd"), signal.SIGHUP, "rebind")

    def test_release(self):
        for host, program, release in (("pc1", "dhclient", lambda client: client.release()),
                                       ("pc2", "dhcpcd", lambda client: client.process.signal(signal.SIGALRM))):
            with self.subTest(program):
                client = self.client6(self.lab.hosts[host], program=program)
                client.wait_leases(1 if host == "pc1" else 2)
                self.assertEqual({binding["state"] for binding in self.bindings().values()}, {"bound"})
                release(client)
                self.wait("end of the bindings", lambda: not self.bindings())
                self.wait("release at the server",
                          lambda: self.server_says("DHCPRELEASE", MACS[host]))

    def test_temporary_address(self):
        at_server = self.capture(self.lab.server)
        address, = self.client6(self.lab.pc1, temporary=True).wait_leases()
        self.assertEqual(self.binding(address)["state"], "bound")
        asked = at_server.decode(["dhcpv6.option.type"], "dhcpv6.msgtype == 3")[0]["dhcpv6.option.type"].split(",")
        self.assertTrue("4" in asked and "3" not in asked, asked)  # IA_TA and no IA_NA

    def test_decline(self):
        """Another host has the address: the client's duplicate address detection finds it, and it declines."""
        pc1 = self.lab.pc1
        client = self.client6(pc1)
        address, = client.wait_leases()
        client.kill()
        pc1.ip(f"addr del {address}/128 dev eth0")
        self.lab.rogue.ip(f"addr add {address}/64 dev eth0")
        self.addCleanup(self.lab.rogue.ip, f"addr del {address}/64 dev eth0")
        self.detect_duplicates(pc1)
        self.assertIn(address, self.bindings())
        again = self.client6(pc1)
        self.wait("decline at the server", lambda: self.server_says("DHCPDECLINE", MACS["pc1"]), 30)
        self.wait("end of the binding", lambda: address not in self.bindings())
        other, = again.wait_leases()
        self.assertNotEqual(other, address)
        self.assertEqual(self.binding(other)["state"], "bound")

    def test_refused(self):
        """An address of another link: the server's status code reaches the client, and nothing is bound."""
        pc1 = self.endpoint(self.lab.pc1)
        server_id = exchange(pc1, MACS["pc1"])[DHCP6OptServerId].duid
        pc1.send(from_client("request", MACS["pc1"], DHCP6OptServerId(duid=server_id), ia_na("2001:db8:99::5", iaid=2), xid=9))
        reply = receive(pc1, "reply", 9)
        self.assertFalse(addresses(reply))
        self.assertNotEqual([option.statuscode for option in reply[DHCP6OptIA_NA].ianaopts
                             if isinstance(option, DHCP6OptStatusCode)], [0])
        # The request made it; the IA that was refused neither confirms nor removes it, so it stays until it expires.
        self.assertEqual(self.binding("2001:db8:99::5")["state"], "requested")

    def test_reconfigure_is_passed_on(self):
        server, rogue = self.endpoint(self.lab.server, "vlan10"), self.endpoint(self.lab.rogue)
        pc1 = self.endpoint(self.lab.pc1)
        ask_again = DHCP6OptReconfMsg(msgtype=TYPES["renew"])
        rogue.send(from_server("reconfigure", MACS["pc1"], ask_again, source_mac=MACS["rogue"], xid=0))
        server.send(from_server("reconfigure", MACS["pc1"], ask_again, source_mac=MACS["server"], xid=0))
        heard = receive(pc1, "reconfigure")
        self.assertEqual((heard[Ether].src, heard[DHCP6OptReconfMsg].msgtype), (MACS["server"], 5))
        self.assertFalse([frame for frame in pc1.drain() if is_dhcp6(frame)])

    def test_vlans_do_not_leak(self):
        names = ("pc1", "pc2", "pc3", "trunk", "rogue", "core", "server")
        ears = {name: self.endpoint(self.lab.hosts[name]) for name in names}
        exchange(ears["pc2"], MACS["pc2"])
        exchange(ears["pc1"], MACS["pc1"])  # whatever the first one caused has been sent by now
        heard = {name: {(kind, outer_vid(frame)) for frame in ear.drain() for kind in TYPES if is_dhcp6(frame, kind)}
                 for name, ear in ears.items()}
        self.assertEqual(heard["server"], {("solicit", 20), ("request", 20), ("solicit", 10), ("request", 10)})
        # Without options 18 and 37 nothing says where the client is: replies go to every port of the VLAN.
        self.assertEqual(heard["trunk"], {(kind, vid) for kind in ("advertise", "reply") for vid in (10, 20)})
        self.assertEqual(heard["rogue"], {("advertise", 0), ("reply", 0)})
        self.assertEqual(heard["pc3"], set())
        for name, mac in (("pc1", MACS["pc2"]), ("pc2", MACS["pc1"])):
            self.assertFalse([frame for frame in ears[name].drain() if is_dhcp6(frame) and frame[Ether].dst == mac])


class WithoutOffload(Six):
    """The sender's own checksums instead of the device's."""
    offload = False

    def test_lease(self):
        at_client = self.capture(self.lab.pc1)
        address, = self.client6(self.lab.pc1).wait_leases()
        self.assertEqual(self.binding(address)["state"], "bound")
        replies = at_client.decode(["udp.checksum.status"], "dhcpv6")
        self.assertEqual({frame["udp.checksum.status"] for frame in replies}, {"1"})


class LinkLocal(Six):
    def tentative_or_failed(self, host, address):
        line = host.run("ip", "-6", "-o", "addr", "show", "dev", "eth0", "to", address).stdout
        return "dadfailed" if "dadfailed" in line else "tentative" if "tentative" in line else "usable" if line else "none"

    def test_duplicate_address_detection(self):
        """Neighbour discovery passes a snooping port: a link-local address that is free is taken, one in use is not."""
        pc1, rogue = self.lab.pc1, self.lab.rogue
        self.addCleanup(pc1.ip, "addr flush dev eth0 scope link to fe80::99")
        self.detect_duplicates(pc1)
        rogue.ip("addr add fe80::99/64 dev eth0 nodad")
        self.addCleanup(rogue.ip, "addr del fe80::99/64 dev eth0")
        pc1.ip("addr add fe80::99/64 dev eth0")
        pc1.ip("addr add fe80::77/64 dev eth0")
        self.addCleanup(pc1.ip, "addr del fe80::77/64 dev eth0")
        for address, verdict in (("fe80::99", "dadfailed"), ("fe80::77", "usable")):
            self.wait(f"verdict on {address}", lambda: self.tentative_or_failed(pc1, address) != "tentative")
            self.assertEqual(self.tentative_or_failed(pc1, address), verdict)
        self.assertEqual(self.bindings(), {})  # a link-local address is nobody's lease
        address, = self.client6(pc1, program="dhcpcd").wait_leases()
        self.assertEqual(set(self.bindings()), {address})


class Rogue(Six):
    def replies(self, *options):
        for kind in ("advertise", "reply"):
            yield from_server(kind, MACS["pc1"], ia_na(STOLEN, valid=600), *options, source_mac=MACS["rogue"], xid=6)

    def test_refused(self):
        rogue, pc1, trunk = (self.endpoint(self.lab.hosts[name]) for name in ("rogue", "pc1", "trunk"))
        pc1.send(from_client("request", MACS["pc1"], DHCP6OptServerId(duid=DUID_LL(lladdr=MACS["rogue"])), ia_na(STOLEN), xid=6))
        self.wait("provisional binding", lambda: STOLEN in self.bindings())
        before = self.binding(STOLEN)
        for reply in self.replies():
            rogue.send(reply)
        for reply in self.replies(DHCP6OptIfaceId(ifaceid=b"x")):
            rogue.send(reply)
        own = exchange(pc1, MACS["pc1"], iaid=2)  # a real lease goes on, and what was sent before has been seen by now
        self.assertNotIn(STOLEN, addresses(own))
        for ear in (pc1, trunk):
            self.assertFalse([frame for frame in ear.drain() if is_dhcp6(frame) and frame[Ether].src == MACS["rogue"]])
        self.assertEqual(self.binding(STOLEN), before)

    def test_trusted(self):
        """The same reply passes once the port is trusted: it was the trust that stopped it."""
        rogue, pc1 = self.endpoint(self.lab.rogue), self.endpoint(self.lab.pc1)
        self.ctl("interface swp5 trust on")
        rogue.send(next(self.replies()))
        self.assertEqual(addresses(receive(pc1, "advertise", 6)), [STOLEN])

    def test_hears_no_request(self):
        rogue = self.endpoint(self.lab.rogue)
        exchange(self.endpoint(self.lab.pc1), MACS["pc1"])
        self.assertFalse([frame for frame in rogue.drain() if is_dhcp6(frame, "solicit") or is_dhcp6(frame, "request")])


INTERFACE_ID, ENTERPRISE, REMOTE_ID = "dhcpv6.interface_id", "dhcpv6.remoteid.enterprise", "dhcpv6.remoteid_enterprise_id"


def hexes(text):
    return text.encode().hex()


class Options(Six):
    """Options 18 and 37 in the REQUEST at the server, decoded by tshark; the server sends nothing of them back, so the replies
    that carry them are made here."""

    def seen(self, *commands, extra=()):
        at_server = self.capture(self.lab.server)
        for command in ("option18 on", "option37 on", *commands):
            self.ctl(f"interface swp1 {command}")
        reply = exchange(self.endpoint(self.lab.pc1), MACS["pc1"], *extra)
        self.assertFalse(DHCP6OptIfaceId in reply or DHCP6OptRemoteID in reply)
        frame, = at_server.decode([INTERFACE_ID, ENTERPRISE, REMOTE_ID, "udp.checksum.status"], "dhcpv6.msgtype == 3")
        self.assertEqual(frame.pop("udp.checksum.status"), "1")
        return {name: value.replace(":", "") for name, value in frame.items()}

    def generated(self):
        """Type 1: VLAN 10 and the location 1, 0, 0, 1 (system, slot, card, port); type 2: the port's MAC address."""
        link = self.lab.switch.run("ip", "-o", "link", "show", "swp1").stdout
        return "01060006" "000a" "01000001" "02080006" + link.split("link/ether ")[1].split()[0].replace(":", "")

    def test_generated(self):
        self.assertEqual(self.seen(), {INTERFACE_ID: self.generated(), ENTERPRISE: "32473", REMOTE_ID: self.generated()})

    def test_text(self):
        self.assertEqual(self.seen("interface-id text door-7", "remote-id6 raw text building-A"),
                         {INTERFACE_ID: hexes("door-7"), ENTERPRISE: "32473", REMOTE_ID: hexes("building-A")})

    def test_template(self):
        self.assertEqual(self.seen("interface-id template %N:vlan.%s", "remote-id6 template %D"),
                         {INTERFACE_ID: hexes("swp1:vlan.10"), ENTERPRISE: "32473", REMOTE_ID: hexes("lab-switch")})

    def test_a_clients_own_are_kept(self):
        own = (DHCP6OptIfaceId(ifaceid=b"mine"), DHCP6OptRemoteID(enterprisenum=9, remoteid=b"too"))
        self.assertEqual(self.seen(extra=own), {INTERFACE_ID: hexes("mine"), ENTERPRISE: "9", REMOTE_ID: hexes("too")})

    def test_only_where_it_is_on(self):
        at_server = self.capture(self.lab.server)
        self.ctl("interface swp2 option18 on")
        exchange(self.endpoint(self.lab.pc1), MACS["pc1"])
        exchange(self.endpoint(self.lab.pc2), MACS["pc2"])
        frames = at_server.decode(["eth.src", INTERFACE_ID, REMOTE_ID], "dhcpv6.msgtype == 3")
        self.assertEqual([(frame["eth.src"], bool(frame[INTERFACE_ID]), frame[REMOTE_ID]) for frame in frames],
                         [(MACS["pc1"], False, ""), (MACS["pc2"], True, "")])

    def test_replies_find_the_client_and_lose_the_options(self):
        """By either option, and by both: to the client's port alone."""
        self.ctl("interface swp1 option18 on")
        self.ctl("interface swp1 option37 on")
        server, data = self.endpoint(self.lab.server, "vlan10"), bytes.fromhex(self.generated())
        at_client, trunk, rogue = (self.capture(self.lab.hosts[name]) for name in ("pc1", "trunk", "rogue"))
        both = (DHCP6OptIfaceId(ifaceid=data), DHCP6OptRemoteID(enterprisenum=32473, remoteid=data))
        for xid, options in enumerate((both, both[:1], both[1:]), 1):
            server.send(from_server("reply", MACS["pc1"], *options, ia_na("2001:db8:10::1234"), source_mac=MACS["server"], xid=xid))
        other = DHCP6OptIfaceId(ifaceid=b"nobody's")
        server.send(from_server("reply", MACS["pc1"], other, source_mac=MACS["server"], xid=4))
        self.wait("all replies", lambda: at_client.decode(["dhcpv6.xid"], "dhcpv6.xid == 4"))
        fields = ["dhcpv6.xid", INTERFACE_ID, REMOTE_ID, "dhcpv6.iaaddr.ip", "udp.checksum.status"]
        found = [tuple(frame.values()) for frame in at_client.decode(fields, "dhcpv6")]
        self.assertEqual(found, [*((f"0x{xid:06x}", "", "", "2001:db8:10::1234", "1") for xid in (1, 2, 3)),
                                 ("0x000004", hexes("nobody's"), "", "", "1")])
        for ear in (trunk, rogue):
            self.assertEqual([frame["dhcpv6.xid"] for frame in ear.decode(["dhcpv6.xid"], "dhcpv6")], ["0x000004"])


labtest.main()
