"""A rogue that knows every transaction, while the server is silent, answers real clients in disguises that they see through: without
snooping each of them takes its address, with it none."""

import functools
import signal
import time

import labtest

from lab import MACS
from scapy.layers.dhcp6 import DHCP6OptIA_NA, DHCP6OptPref
from scapy.layers.inet import IP
from scapy.layers.inet6 import IPv6, IPv6ExtHdrDestOpt, IPv6ExtHdrFragment, PadN, fragment6
from wire import BOOTP, Ether, dhcp6, from_server, from_server6, ia_na, is_dhcp, tagged

PC1, ROGUE, STOLEN = MACS["pc1"], MACS["rogue"], {4: "10.0.10.250", 6: "2001:db8:10::bad"}


def in_version(reply, version):
    reply[IP].version = version
    return [reply]


def with_header(reply, header):
    """The IPv6 packet with an extension header."""
    packet = Ether(bytes(reply))[IPv6]  # its checksum is made
    message = packet.payload
    packet.remove_payload()
    del packet.nh, packet.plen
    return packet / header / message


def behind_options(reply):
    return [Ether(src=ROGUE, dst=reply.dst) / with_header(reply, IPv6ExtHdrDestOpt(nh=17, options=[PadN(optdata=bytes(4))]))]


def in_fragments(reply):
    return [Ether(src=ROGUE, dst=reply.dst) / part for part in fragment6(with_header(reply, IPv6ExtHdrFragment(nh=17, id=7)), 100)]


class Disguises(labtest.LabTest):
    # The client, its family, the disguise.
    ROWS = (
        ("udhcpc", 4, "four priority tags", lambda reply: [tagged(reply, 0, 0, 0, 0)]),
        ("udhcpc", 4, "tags of both kinds", lambda reply: [bytes(reply)[:12] + 3 * bytes.fromhex("88a81000 8100e000") + bytes(reply)[12:]]),
        ("dhclient", 4, "another IP version", lambda reply: in_version(reply, 6)),
        ("dhclient", 6, "four priority tags", lambda reply: [tagged(reply, 0, 0, 0, 0)]),
        ("dhclient", 6, "in fragments", in_fragments),
        ("dhcpcd", 6, "behind destination options", behind_options),
    )

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.switch.run("tc", "filter", "del", "dev", "swp1", "egress")  # the lab's VLANs, which let no tag out there: a plain bridge does

    def answers(self, seen, family):
        """Both answers to a client's message, none to anything else."""
        if family == 4 and is_dhcp(seen, op=1):
            return [from_server(kind, PC1, "10.0.10.1", STOLEN[4], source_mac=ROGUE, xid=seen[BOOTP].xid) for kind in ("offer", "ack")]
        if family == 6 and (message := dhcp6(seen)) and DHCP6OptIA_NA in message:
            given = ia_na(STOLEN[6], valid=600, iaid=message[DHCP6OptIA_NA].iaid), DHCP6OptPref(prefval=255)
            return [from_server6(kind, PC1, *given, source_mac=ROGUE, xid=message.trid) for kind in ("advertise", "reply")]
        return []

    def test_real_clients(self):
        server = self.lab.processes[0]
        server.signal(signal.SIGSTOP)
        self.addCleanup(server.signal, signal.SIGCONT)
        for program, family, disguise, dress in self.ROWS:
            for snooping, expected in (("off", {STOLEN[family]}), ("on", set())):
                with self.subTest(f"{program}, {disguise}, snooping {snooping}"):
                    self.ctl(f"interface swp5 snooping {snooping}")
                    self.assertEqual(self.attempt(program, family, dress), expected)

    def attempt(self, program, family, dress):
        """The client's address: after the answers to three of its messages, or as soon as it has one."""
        spy, rogue = self.endpoint("server"), self.endpoint("rogue")
        client, answered = self.client("pc1", program=program, family=family), []
        held = functools.partial(client.host.addresses, "eth0", family)

        def tried():
            for answers in filter(None, (self.answers(seen, family) for seen in spy.drain())):
                answered.append(time.monotonic())
                for answer in answers:
                    rogue.send(*dress(answer))
            return held() or (len(answered) > 2 and time.monotonic() > answered[-1] + 0.5)

        self.wait("a lease, or three messages of the client", tried, 30)
        result = held()
        client.kill()
        client.host.ip("addr flush dev eth0 scope global")
        return result


labtest.main()
