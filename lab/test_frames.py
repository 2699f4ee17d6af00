"""Single messages between hosts: where each arrives, what is counted, and options 82, 18 and 37 as the server sees them."""

import labtest

from lab import MACS
from scapy.layers.dhcp6 import DHCP6OptIfaceId, DHCP6OptRemoteID
from wire import exchange, exchange6, from_client, from_client6, from_server, from_server6, ia_na, options, tagged

PC1, STOLEN, STOLEN6 = MACS["pc1"], "10.0.10.250", "2001:db8:10::bad"
OPTION82 = " ".join(f"dhcp.option.agent_information_option.{name}" for name in ("agent_circuit_id", "agent_remote_id", "vi.enterprise", "value"))
OPTIONS6 = "dhcpv6.interface_id dhcpv6.remoteid.enterprise dhcpv6.remoteid_enterprise_id"


class Frames(labtest.LabTest):
    def test_where_they_arrive(self):
        def rogue(kind, **fields):
            return from_server(kind, PC1, "10.0.10.66", STOLEN, source_mac=MACS["rogue"], **fields)

        def rogue6(kind, *extra):
            return from_server6(kind, PC1, ia_na(STOLEN6, valid=600), *extra, source_mac=MACS["rogue"])

        trunk, discover = from_client("discover", MACS["trunk"]), from_client("discover", PC1)
        # Kept: a router port is asked for no VLAN. Being trusted it gets all requests, being snooped the flood.
        self.play(
            ("a request goes to the trusted ports", "", "pc1", discover, "core server/10"),
            ("one in another VLAN", "", "pc2", from_client("discover", MACS["pc2"]), "core server/20"),
            ("of DHCPv6", "", "pc1", from_client6("solicit", PC1), "core server/10"),
            ("tagged twice", "", "trunk", tagged(trunk, 20, 5), "core/5 server/20"),
            ("of a VLAN that the port is no member of", "", "trunk", tagged(trunk, 30), "| vlan 1"),
            ("a rogue OFFER", "", "rogue", rogue("offer"), "| dropped-untrusted 1"),
            ("a rogue ACK to the client alone", "", "rogue", rogue("ack", to=(PC1, STOLEN)), "| dropped-untrusted 1"),
            ("a rogue OFFER behind four tags, which hosts take off", "", "rogue", tagged(rogue("offer"), 0, 0, 0, 0), "| unclear 1"),
            ("a rogue ADVERTISE", "", "rogue", rogue6("advertise"), ""),
            ("a rogue REPLY", "", "rogue", rogue6("reply", DHCP6OptIfaceId(ifaceid=b"x")), ""),
            ("an OFFER from a trusted port", "interface swp5 trust on", "rogue", rogue("offer"), "core pc1 server/10 trunk/10"),
            ("an ADVERTISE from a trusted port", "", "rogue", rogue6("advertise"), "core pc1 server/10 trunk/10"),
            ("snooping off: through a bridge that nobody guards", "interface swp1 snooping off", "pc1", discover, "rogue server/10 trunk/10"),
            ("on again", "interface swp1 snooping on; interface swp5 trust off", "pc1", discover, "core server/10"))

    def test_options(self):
        """In the REQUEST, decoded by tshark; the client's ACK has option 82 when it cannot be known as our own."""
        def hexes(text):
            return text.encode().hex()

        link = self.switch.run("ip", "-o", "link", "show", "swp1").stdout
        port_mac = link.split("link/ether ")[1].split()[0].replace(":", "")
        place, name = "000a" "01000001", hexes("lab-switch")  # VLAN; system, slot, card, port
        placed6, named6 = f"01060006{place}02080006{port_mac}", f"{hexes('swp1:vlan.10')} 32473 {name}"
        own = ("relay_agent_information", bytes.fromhex("0103616263" "0203646566")),
        own6 = DHCP6OptIfaceId(ifaceid=b"abc"), DHCP6OptRemoteID(enterprisenum=9, remoteid=b"def")
        # claim, words after "interface swp1", option 82, options 18 and 37, is the reply's gone?
        rows = (
            ("generated", "option82 on;option18 on;option37 on", f"0006{place} 0006{port_mac}", f"{placed6} 32473 {placed6}", True),
            ("template", "circuit-id template %N:%s/%c;interface-id template %N:vlan.%s;remote-id6 template %D",
             f"{hexes('swp1:10/0')} 0006{port_mac}", named6, True),
            # RFC 4243: enterprise number, length, then type 1, length and the switch's host name.
            ("vendor's", "subopt9 on", f"{hexes('swp1:10/0')} 0006{port_mac} 32473 010a{name}", named6, True),
            ("the client's own", "subopt9 off", "616263 646566", "616263 9 646566", False),
            # Kept: with mode 5 nothing tells whose option it is.
            ("template mode", "option82-mode template;circuit-id template %N;remote-id template %s", f"{hexes('swp1')} {hexes('10')}", named6, False),
        )
        pc1 = self.endpoint("pc1")
        for claim, settings, expected, expected6, gone in rows:
            with self.subTest(claim):
                self.ctl(";".join(f"interface swp1 {words}" for words in settings.split(";")))
                at_server = self.capture("server")
                ack = exchange(pc1, PC1, *(own if claim == "the client's own" else ()))
                exchange6(pc1, PC1, *(own6 if claim == "the client's own" else ()))
                (*seen, values), = at_server.decode(f"udp.checksum.status {OPTION82}", "dhcp.option.dhcp == 3")
                seen6, = at_server.decode(f"udp.checksum.status {OPTIONS6}", "dhcpv6.msgtype == 3")
                told = [" ".join(filter(None, texts)).replace(":", "") for texts in ((*seen, *values.split(",")[3:]), seen6)]
                self.assertEqual([*told, "relay_agent_information" not in options(ack)], [f"1 {expected}", f"1 {expected6}", gone])
        with self.subTest("a client's own, not allowed"):
            self.ctl("interface swp1 option82-policy drop")
            self.assertEqual(self.outcome("pc1", from_client("discover", PC1, *own)), "")


labtest.main()
