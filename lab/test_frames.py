"""Single messages between hosts: where each arrives, what is counted, and options 82, 18 and 37 as the server sees them."""

import signal
import time

import labtest

from dhcpv6 import exchange6, from_client6, from_server6, ia_na
from lab import MACS
from scapy.layers.dhcp6 import DHCP6OptIfaceId, DHCP6OptRemoteID
from wire import BOOTP, Ether, exchange, from_client, from_server, is_dhcp, options, tagged

OTHER, ROGUE, STOLEN, STOLEN6 = "02:00:00:00:99:99", "10.0.10.66", "10.0.10.250", "2001:db8:10::bad"
PC1, PC2, TO_PC1 = MACS["pc1"], MACS["pc2"], (MACS["pc1"], STOLEN)
CIRCUIT_ID, REMOTE_ID, ENTERPRISE, VALUES = (f"dhcp.option.agent_information_option.{name}" for name in (
    "agent_circuit_id", "agent_remote_id", "vi.enterprise", "value"))
INTERFACE_ID, ENTERPRISE6, REMOTE_ID6 = "dhcpv6.interface_id", "dhcpv6.remoteid.enterprise", "dhcpv6.remoteid_enterprise_id"


class Frames(labtest.LabTest):
    def test_where_they_arrive(self):
        def rogue(kind, **fields):
            return from_server(kind, PC1, ROGUE, STOLEN, source_mac=MACS["rogue"], **fields)

        def rogue6(kind, *extra):
            return from_server6(kind, PC1, ia_na(STOLEN6, valid=600), *extra, source_mac=MACS["rogue"])

        lying = from_client("discover", OTHER, source_mac=PC1)
        held, third = exchange(self.endpoint("pc1"), PC1)[BOOTP].yiaddr, from_client("request", OTHER, ("requested_addr", "10.0.10.180"))
        renewal = {"source": held, "ciaddr": held}
        # Kept: a router port is asked for no VLAN. Being trusted it gets all requests, being snooped the flood.
        self.play(
            ("a request goes to the trusted ports", "", "pc1", from_client("discover", PC1), "core server/10"),
            ("one in another VLAN", "", "pc2", from_client("discover", PC2), "core server/20"),
            ("of DHCPv6", "", "pc1", from_client6("solicit", PC1), "core server/10"),
            ("tagged twice", "", "trunk", tagged(from_client("discover", MACS["trunk"]), 20, 5), "core/5 server/20"),
            ("of a VLAN that the port is no member of", "", "trunk", tagged(from_client("discover", MACS["trunk"]), 30), "| vlan 1"),
            ("a rogue OFFER", "", "rogue", rogue("offer"), "| dropped-untrusted 1"),
            ("a rogue ACK to the client alone", "", "rogue", rogue("ack", to=TO_PC1), "| dropped-untrusted 1"),
            ("a rogue NAK", "", "rogue", rogue("nak"), "| dropped-untrusted 1"),
            ("a rogue OFFER behind four tags, which hosts take off", "", "rogue", tagged(rogue("offer"), 0, 0, 0, 0), "| unclear 1"),
            ("one with another version in its header", "", "rogue", bytes(rogue("offer"))[:14] + b"\x65" + bytes(rogue("offer"))[15:], "| unclear 1"),
            ("one in a VLAN that no port is a member of", "", "rogue", tagged(rogue("offer"), 30), "| vlan 1"),
            ("a rogue ADVERTISE", "", "rogue", rogue6("advertise"), ""),
            ("a rogue REPLY", "", "rogue", rogue6("reply", DHCP6OptIfaceId(ifaceid=b"x")), ""),
            ("an OFFER from a trusted port", "interface swp5 trust on", "rogue", rogue("offer"), "core pc1 server/10 trunk/10"),
            ("an ADVERTISE from a trusted port", "", "rogue", rogue6("advertise"), "core pc1 server/10 trunk/10"),
            ("another's hardware address", "interface swp5 trust off", "pc1", lying, "core server/10"),
            ("checked", "interface swp1 source-mac-check on", "pc1", lying, "| dropped-source-mac 1"),
            ("its own", "", "pc1", from_client("discover", PC1), "core server/10"),
            ("renewal from another port", "interface swp1 binding-check on; interface swp5 binding-check on", "rogue",
             from_client("request", PC1, **renewal), "| dropped-binding 1"),
            ("release from another port", "", "rogue", from_client("release", PC1, **renewal), "| dropped-binding 1"),
            ("release with another MAC", "", "pc1", from_client("release", OTHER, source_mac=OTHER, **renewal), "| dropped-binding 1"),
            ("renewal by its holder", "", "pc1", from_client("request", PC1, **renewal), "core server/10"),
            ("one more than there may be", "interface swp1 max-users 1; interface swp1 source-mac-check off", "pc1", third, ""),
            ("release by its holder", "", "pc1", from_client("release", PC1, **renewal), "core server/10"),
            ("there may be another", "", "pc1", third, "core server/10"),
        )
        self.assertEqual(set(self.bindings()), {"10.0.10.180"})

    def test_rogue_past_the_trap(self):
        """A real client, while its server is silent and a rogue knows its transactions. dhclient does not look at the version of an IP header."""
        spy, rogue = self.endpoint("server"), self.endpoint("rogue")
        self.lab.processes[0].signal(signal.SIGSTOP)
        self.addCleanup(self.lab.processes[0].signal, signal.SIGCONT)
        client = self.client("pc1", program="dhclient")
        for _ in range(3):
            seen = spy.receive("request", is_dhcp)
            for kind in ("offer", "ack"):
                reply = from_server(kind, PC1, "10.0.10.1", STOLEN, source_mac=MACS["rogue"], xid=seen[BOOTP].xid)
                reply["IP"].version = 6
                rogue.send(reply)
        time.sleep(0.5)
        self.assertIsNone(self.lab.pc1.address("eth0"))
        self.lab.processes[0].signal(signal.SIGCONT)
        client.wait_lease()

    def test_option82(self):
        """In the REQUEST, decoded by tshark; the client's ACK has it when it cannot be known as our own."""
        def hexes(text):
            return text.encode().hex()

        link = self.lab.switch.run("ip", "-o", "link", "show", "swp1").stdout
        port_mac = link.split("link/ether ")[1].split()[0].replace(":", "")
        place, own = "000a" "01000001", (("relay_agent_information", bytes.fromhex("0103616263" "0203646566")),)  # VLAN; system, slot, card, port
        placed6, own6 = f"01060006{place}02080006{port_mac}", (DHCP6OptIfaceId(ifaceid=b"abc"), DHCP6OptRemoteID(enterprisenum=9, remoteid=b"def"))
        # claim, words after "interface swp1", circuit-id, remote-id, vendor's data, interface-id, remote-id of DHCPv6, is the reply's gone?
        rows = (
            ("generated", "option82 on;option18 on;option37 on", f"0006{place}", f"0006{port_mac}", "", placed6, f"32473 {placed6}", True),
            ("template", "circuit-id template %N:%s/%c;interface-id template %N:vlan.%s;remote-id6 template %D", hexes("swp1:10/0"),
             f"0006{port_mac}", "", hexes("swp1:vlan.10"), f"32473 {hexes('lab-switch')}", True),
            # RFC 4243: enterprise number, length, then type 1, length and the switch's host name.
            ("vendor's", "subopt9 on", hexes("swp1:10/0"), f"0006{port_mac}", f"32473 010a{hexes('lab-switch')}", hexes("swp1:vlan.10"),
             f"32473 {hexes('lab-switch')}", True),
            ("the client's own", "subopt9 off", "616263", "646566", "", "616263", "9 646566", False),
            # Kept: with mode 5 nothing tells whose option it is.
            ("template mode", "option82-mode template;circuit-id template %N", hexes("swp1"), None, "", hexes("swp1:vlan.10"),
             f"32473 {hexes('lab-switch')}", False),
        )
        pc1 = self.endpoint("pc1")
        for claim, settings, circuit, remote, vendor, interface6, remote6, gone in rows:
            with self.subTest(claim):
                self.ctl(";".join(f"interface swp1 {words}" for words in settings.split(";")))
                at_server = self.capture("server")
                ack = exchange(pc1, PC1, *(own if claim == "the client's own" else ()))
                exchange6(pc1, PC1, *(own6 if claim == "the client's own" else ()))
                seen, = at_server.decode([CIRCUIT_ID, REMOTE_ID, ENTERPRISE, VALUES, "udp.checksum.status"], "dhcp.option.dhcp == 3")
                seen6, = at_server.decode([INTERFACE_ID, ENTERPRISE6, REMOTE_ID6, "udp.checksum.status"], "dhcpv6.msgtype == 3")
                seen, seen6 = [text.replace(":", "") for text in seen.values()], [text.replace(":", "") for text in seen6.values()]
                block = f"{seen[2]} {seen[3].split(',')[-1]}" if seen[2] else ""
                self.assertEqual((seen[0], seen[1] if remote else None, block, seen6[0], " ".join(seen6[1:3]), seen[4] + seen6[3],
                                  "relay_agent_information" not in options(ack)),
                                 (circuit, remote, vendor, interface6, remote6, "11", gone))
        with self.subTest("a client's own, not allowed"):
            self.ctl("interface swp1 option82-policy drop")
            self.assertEqual(self.outcome("pc1", from_client("discover", PC1, *own)), "")


labtest.main()
