"""DHCPv6 in the lab: two client programs, and messages made and read with scapy."""

import os
import random
import socket

from lab import HERE, RUN, Client, Process, wait_for
from wire import UDP, Ether, mac_bytes  # before scapy's others, whose remarks it silences
from scapy.layers.dhcp6 import (DHCP6_Advertise, DHCP6_Confirm, DHCP6_Decline, DHCP6_InfoRequest, DHCP6_Rebind, DHCP6_Reconf,
                                DHCP6_Release, DHCP6_Renew, DHCP6_Reply, DHCP6_Request, DHCP6_Solicit, DHCP6OptClientId,
                                DHCP6OptElapsedTime, DHCP6OptIA_NA, DHCP6OptIAAddress, DHCP6OptServerId, DUID_LL)
from scapy.layers.inet6 import IPv6

SERVERS = ("33:33:00:01:00:02", "ff02::1:2")
MESSAGES = {"solicit": DHCP6_Solicit, "advertise": DHCP6_Advertise, "request": DHCP6_Request, "confirm": DHCP6_Confirm,
            "renew": DHCP6_Renew, "rebind": DHCP6_Rebind, "reply": DHCP6_Reply, "release": DHCP6_Release,
            "decline": DHCP6_Decline, "reconfigure": DHCP6_Reconf, "inform": DHCP6_InfoRequest}
TYPES = {kind: number for number, kind in enumerate(MESSAGES, 1)}  # RFC 8415 7.3


class Client6(Client):
    """dhclient -6 or dhcpcd on one device. `temporary`: asks for an IA_TA instead of an IA_NA."""

    def __init__(self, host, device="eth0", program="dhclient", temporary=False):
        super().__init__(host, device, program, f"{program}6-{host.name}-{device}")
        self.temporary = temporary
        if os.path.exists(f"{RUN}/{self.name}.leases"):
            os.unlink(f"{RUN}/{self.name}.leases")

    def start(self):
        conf = f"{RUN}/{self.name}.conf"
        if self.program == "dhclient":
            with open(conf, "w") as file:
                file.write("timeout 20;\n")
            arguments = [*self.dhclient(), "-d", "-cf", conf, *(["-T"] if self.temporary else []), self.device]
        else:
            with open(conf, "w") as file:
                file.write(f"duid ll\nnoipv6rs\nipv6only\ninterface {self.device}\nia_na 1\n")
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

    def wait_leases(self, count=1, timeout=30.0):
        """Waits until the client has that many addresses and gives them."""
        wait_for(f"{count} leases of {self.name}", lambda: len(self.addresses()) == count, timeout)
        return self.addresses()


def link_local(mac):
    """The address that the kernel makes of a MAC address."""
    first, *rest = mac_bytes(mac)
    b = [first ^ 2, *rest[:2], 0xFF, 0xFE, *rest[2:]]
    return "fe80::" + ":".join(f"{b[i] << 8 | b[i + 1]:x}" for i in range(0, 8, 2))


def ia_na(*addresses, valid=120, iaid=1):
    return DHCP6OptIA_NA(iaid=iaid, T1=0, T2=0, ianaopts=[DHCP6OptIAAddress(addr=address, preflft=valid, validlft=valid)
                                                          for address in addresses])


def message(kind, xid):
    made = MESSAGES[kind]()
    made.trid = random.getrandbits(24) if xid is None else xid
    return made


def stack(frame, options):
    for option in options:
        frame = frame / option
    return frame


def from_client(kind, mac, *options, xid=None):
    """A client's message to all servers, its identifier made of the MAC address."""
    frame = (Ether(src=mac, dst=SERVERS[0]) / IPv6(src=link_local(mac), dst=SERVERS[1], hlim=1) / UDP(sport=546, dport=547) /
             message(kind, xid) / DHCP6OptClientId(duid=DUID_LL(lladdr=mac)))
    return stack(frame, (DHCP6OptElapsedTime(elapsedtime=0), *options))


def from_server(kind, mac, *options, source_mac, xid=None):
    """A server's message to the client with that MAC address."""
    frame = (Ether(src=source_mac, dst=mac) / IPv6(src=link_local(source_mac), dst=link_local(mac)) /
             UDP(sport=547, dport=546) / message(kind, xid) / DHCP6OptClientId(duid=DUID_LL(lladdr=mac)) /
             DHCP6OptServerId(duid=DUID_LL(lladdr=source_mac)))
    return stack(frame, options)


def is_dhcp6(frame, kind=None, xid=None):
    """Is it a DHCPv6 message of that kind, and not an ICMPv6 error about one?"""
    if IPv6 not in frame or frame[IPv6].nh != socket.IPPROTO_UDP:
        return False
    for name, layer in MESSAGES.items():
        if layer in frame and (kind is None or name == kind):
            return xid is None or frame[layer].trid == xid
    return False


def receive(endpoint, kind, xid=None, timeout=10.0):
    return endpoint.receive(f"DHCPv6 {kind}", lambda frame: is_dhcp6(frame, kind, xid), timeout)


def exchange(endpoint, mac, *options, iaid=1):
    """A client's SOLICIT and REQUEST and a real server's answers; gives the REPLY. `options` are in both."""
    xid = random.getrandbits(24)
    endpoint.send(from_client("solicit", mac, DHCP6OptIA_NA(iaid=iaid, T1=0, T2=0), *options, xid=xid))
    advertise = receive(endpoint, "advertise", xid)
    endpoint.send(from_client("request", mac, DHCP6OptServerId(duid=advertise[DHCP6OptServerId].duid),
                              ia_na(*addresses(advertise), iaid=iaid), *options, xid=xid))
    return receive(endpoint, "reply", xid)


def addresses(frame):
    """The addresses in the first IA_NA of a message."""
    return [option.addr for option in frame[DHCP6OptIA_NA].ianaopts if isinstance(option, DHCP6OptIAAddress)]
