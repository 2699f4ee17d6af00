"""DHCPv6 in the lab: two client programs, and messages made and read with scapy."""

import os
import random
import socket

from lab import HERE, RUN, Client, Process, wait_for
from wire import UDP, Ether, mac_bytes  # before scapy's others, whose remarks it silences
from scapy.layers.dhcp6 import (DHCP6, DHCP6OptClientId, DHCP6OptElapsedTime, DHCP6OptIA_NA, DHCP6OptIAAddress, DHCP6OptServerId,
                                DUID_LL)
from scapy.layers.inet6 import IPv6

SERVERS = ("33:33:00:01:00:02", "ff02::1:2")
KINDS6 = ("", "solicit", "advertise", "request", "confirm", "renew", "rebind", "reply", "release", "decline", "reconfigure",
          "information-request")  # RFC 8415 7.3


class Client6(Client):
    """dhclient -6 or dhcpcd on one device."""

    def __init__(self, host, device="eth0", program="dhclient"):
        super().__init__(host, device, program, f"{program}6-{host.name}-{device}")
        if os.path.exists(f"{RUN}/{self.name}.leases"):
            os.unlink(f"{RUN}/{self.name}.leases")

    def start(self):
        conf = f"{RUN}/{self.name}.conf"
        with open(conf, "w") as file:
            file.write("timeout 20;\n" if self.program == "dhclient" else
                       f"duid ll\nnoipv6rs\nipv6only\ninterface {self.device}\nia_na 1\n")
        if self.program == "dhclient":
            arguments = [*self.dhclient(), "-d", "-cf", conf, self.device]
        else:
            # Its control socket and leases are named by the device alone: each gets directories of its own.
            os.makedirs("/run/dhcpcd", exist_ok=True)
            hidden = "for d in /run/dhcpcd /var/lib/dhcpcd; do mount -t tmpfs tmpfs $d; done; exec \"$@\""
            arguments = ["unshare", "--mount", "sh", "-c", hidden, "sh", "dhcpcd", "-B", "-f", conf, "-c",
                         f"{HERE}/client-script", "--env", f"LAB_EVENTS={self.events}", self.device]
        self.process = Process(self.host, self.name, *arguments, env={"LAB_EVENTS": self.events})
        return self

    def dhclient(self):
        return [*("-6" if word == "-4" else word for word in super().dhclient()), "-D", "LL"]

    def kill(self):
        """dhcpcd is several processes; asked to end, it ends them all and keeps its lease."""
        if self.program == "dhcpcd":
            self.stop()
        else:
            super().kill()

    def addresses(self):
        """The device's global IPv6 addresses that are usable."""
        lines = self.host.run("ip", "-6", "-o", "addr", "show", "dev", self.device, "scope", "global").stdout.splitlines()
        return {line.split()[3].split("/")[0] for line in lines if "tentative" not in line and "dadfailed" not in line}

    def wait_leases(self, count=1):
        """Waits until the client has that many addresses and gives them."""
        wait_for(f"{count} leases of {self.name}", lambda: len(self.addresses()) == count, 30)
        return self.addresses()


def link_local(mac):
    """The address that the kernel makes of a MAC address."""
    first, *rest = mac_bytes(mac)
    b = [first ^ 2, *rest[:2], 0xFF, 0xFE, *rest[2:]]
    return "fe80::" + ":".join(f"{b[i] << 8 | b[i + 1]:x}" for i in range(0, 8, 2))


def duid(mac):
    return DUID_LL(lladdr=mac)


def ia_na(*addresses, valid=120, iaid=1):
    return DHCP6OptIA_NA(iaid=iaid, T1=0, T2=0, ianaopts=[DHCP6OptIAAddress(addr=address, preflft=valid, validlft=valid)
                                                          for address in addresses])


def message6(kind, front, *options, xid):
    frame = front / DHCP6(msgtype=KINDS6.index(kind), trid=random.getrandbits(24) if xid is None else xid)
    for option in options:
        frame = frame / option
    return frame


def from_client6(kind, mac, *options, xid=None):
    """A client's message to all servers, its identifier made of the MAC address."""
    front = Ether(src=mac, dst=SERVERS[0]) / IPv6(src=link_local(mac), dst=SERVERS[1], hlim=1) / UDP(sport=546, dport=547)
    return message6(kind, front, DHCP6OptClientId(duid=duid(mac)), DHCP6OptElapsedTime(elapsedtime=0), *options, xid=xid)


def from_server6(kind, mac, *options, source_mac, xid=None):
    """A server's message to the client with that MAC address."""
    front = Ether(src=source_mac, dst=mac) / IPv6(src=link_local(source_mac), dst=link_local(mac)) / UDP(sport=547, dport=546)
    identifiers = DHCP6OptClientId(duid=duid(mac)), DHCP6OptServerId(duid=duid(source_mac))
    return message6(kind, front, *identifiers, *options, xid=xid)


def dhcp6(frame):
    """Its DHCPv6 message, or None; one that an ICMPv6 error quotes does not count."""
    if IPv6 not in frame or frame[IPv6].nh != socket.IPPROTO_UDP:
        return None
    return next((layer for layer in map(frame.getlayer, range(3, 6)) if hasattr(layer, "trid")), None)


def receive6(endpoint, kind, xid=None):
    def match(frame):
        found = dhcp6(frame)
        return found and KINDS6[found.msgtype] == kind and xid in (None, found.trid)

    return endpoint.receive(f"DHCPv6 {kind}", match)


def exchange6(endpoint, mac, *options, iaid=1):
    """A client's SOLICIT and REQUEST and a real server's answers; gives the REPLY. `options` are in both."""
    xid = random.getrandbits(24)
    endpoint.send(from_client6("solicit", mac, DHCP6OptIA_NA(iaid=iaid, T1=0, T2=0), *options, xid=xid))
    advertise = receive6(endpoint, "advertise", xid)
    endpoint.send(from_client6("request", mac, DHCP6OptServerId(duid=advertise[DHCP6OptServerId].duid),
                               ia_na(*addresses(advertise), iaid=iaid), *options, xid=xid))
    return receive6(endpoint, "reply", xid)


def addresses(frame):
    """The addresses in the first IA_NA of a message."""
    return [option.addr for option in frame[DHCP6OptIA_NA].ianaopts if isinstance(option, DHCP6OptIAAddress)]
