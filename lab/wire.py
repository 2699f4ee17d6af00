"""Frames on the lab's wires: raw sockets at the hosts, DHCP messages made and read with scapy, captures read by tshark."""

import logging
import random
import select
import socket
import struct
import subprocess
import time

logging.getLogger("scapy.runtime").setLevel(logging.ERROR)  # it remarks that lo has no address
from scapy.arch.linux import L2Socket
from scapy.layers.dhcp import BOOTP, DHCP, DHCPTypes
from scapy.layers.dhcp6 import (DHCP6, DHCP6OptClientId, DHCP6OptElapsedTime, DHCP6OptIA_NA, DHCP6OptIAAddress, DHCP6OptServerId,
                                DUID_LL, dhcp6types)
from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import Dot1Q, Ether
from scapy.utils import mac2str, wrpcap
from scapy.utils6 import in6_mactoifaceid

from lab import RUN, Failure

SOL_PACKET, PACKET_IGNORE_OUTGOING, SO_RCVBUFFORCE = 263, 23, 33
BROADCAST = "ff:ff:ff:ff:ff:ff"
TO_ALL = (BROADCAST, "255.255.255.255")


class Endpoint:
    """A raw socket at a host's device: sends frames byte for byte, sees what arrives with its tags."""

    def __init__(self, host, device="eth0"):
        self.name = f"{host.name} {device}"
        with host.inside():
            self.socket = L2Socket(device, promisc=False)
        self.socket.ins.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
        self.socket.ins.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 4 << 20)
        self.drain()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, *frames):
        for frame in frames:
            self.socket.ins.send(bytes(frame))

    def next(self, timeout=0.0):
        """The next frame that arrived, as bytes, or None."""
        return self.socket.recv_raw(65536)[1] if select.select([self.socket], [], [], max(0, timeout))[0] else None

    def drain(self):
        """Everything that has arrived and was not read yet."""
        return [Ether(data) for data in iter(self.next, None)]

    def receive(self, what, match, timeout=10.0):
        """The first frame for which `match(frame)` holds."""
        end = time.monotonic() + timeout
        while (data := self.next(end - time.monotonic())) is not None:
            if match(frame := Ether(data)):
                return frame
        raise Failure(f"{self.name} saw no {what} within {timeout:g} s")

    def receive_dhcp(self, kind, **fields):
        return self.receive(f"DHCP {kind} with {fields}", lambda frame: is_dhcp(frame, kind, **fields))

    def receive_dhcp6(self, kind, xid):
        return self.receive(f"DHCPv6 {kind}", lambda frame: (found := dhcp6(frame)) and (found.msgtype, found.trid) == (kind6(kind), xid))


class Capture(Endpoint):
    """What arrives at a host's device, for the independent decoder."""

    def __init__(self, host, device="eth0"):
        super().__init__(host, device)
        self.file, self.frames = f"{RUN}/{host.name}-{device}.pcap", []

    def tshark(self, *arguments):
        """What tshark prints of everything so far: the kernel has queued it, nothing is missed and nothing is waited for."""
        self.frames += iter(self.next, None)
        wrpcap(self.file, self.frames, linktype=1)
        return subprocess.run(["tshark", "-r", self.file, "-o", "udp.check_checksum:TRUE", "-o", "ip.check_checksum:TRUE",
                               *arguments], text=True, capture_output=True, check=True).stdout.splitlines()

    def decode(self, fields, where="dhcp"):
        """The fields of every frame so far that the display filter `where` selects, as a list of lists of text."""
        names = [word for field in fields.split() for word in ("-e", field)]
        return [line.split("\t") for line in self.tshark("-Y", where, "-T", "fields", "-E", "separator=/t", "-E", "occurrence=a", *names)]


def options(frame):
    """The DHCP options as scapy names them."""
    return {option[0]: option[1] for option in frame[DHCP].options if isinstance(option, tuple)}


def is_dhcp(frame, kind=None, **fields):
    """Is it a DHCP message of that kind whose BOOTP fields have these values?"""
    return DHCP in frame and kind in (None, DHCPTypes.get(options(frame).get("message-type"))) and \
        all(getattr(frame[BOOTP], name) == value for name, value in fields.items())


def dhcp6(frame):
    """Its DHCPv6 message, or None; one that an ICMPv6 error quotes does not count."""
    return next((layer for layer in frame.iterpayloads() if hasattr(layer, "trid")), None) if UDP in frame and IPv6 in frame and \
        frame[IPv6].nh == socket.IPPROTO_UDP else None


def tagged(frame, *vids):
    """The frame's bytes with these tags in front."""
    tags = b"".join(struct.pack("!HH", 0x8100, vid) for vid in vids)
    return bytes(frame)[:12] + tags + bytes(frame)[12:]


def message(kind, mac, extra, source, destination, **fields):
    """A message from port 68 to 67 (`op` 1) or back (2)."""
    fields = {"op": 1, "chaddr": mac2str(mac), "xid": random.getrandbits(32), **fields}
    return (Ether(src=source[0], dst=destination[0]) / IP(src=source[1], dst=destination[1]) /
            UDP(sport=69 - fields["op"], dport=66 + fields["op"]) / BOOTP(**fields) /
            DHCP(options=[("message-type", kind), *extra, "end"]))


def from_client(kind, mac, *extra, source_mac=None, source="0.0.0.0", to=TO_ALL, **fields):
    """A client's message. `extra` are more options, `fields` are of the BOOTP header (ciaddr, xid, …)."""
    return message(kind, mac, extra, (source_mac or mac, source), to, **fields)


def from_server(kind, mac, server, address, *extra, lease=600, source_mac, to=TO_ALL, **fields):
    """A server's message that gives `address` to the client with that MAC."""
    lease_options = [("server_id", server), ("lease_time", lease), ("subnet_mask", "255.255.255.0")]
    return message(kind, mac, [*lease_options, *extra], (source_mac, server), to, yiaddr=address,
                   **{"op": 2, "flags": 0x8000, **fields})


def exchange(endpoint, mac, *extra, **fields):
    """A client's DISCOVER and REQUEST and a real server's answers; gives the ACK. `extra` are options of both."""
    fields = {"xid": random.getrandbits(32), "flags": 0x8000, **fields}
    endpoint.send(from_client("discover", mac, *extra, **fields))
    offer = endpoint.receive_dhcp("offer", xid=fields["xid"])
    endpoint.send(from_client("request", mac, ("server_id", options(offer)["server_id"]),
                              ("requested_addr", offer[BOOTP].yiaddr), *extra, **fields))
    return endpoint.receive_dhcp("ack", xid=fields["xid"])


def kind6(name):
    return next(number for number, known in dhcp6types.items() if known == name.upper())


def link_local(mac):
    """The address that the kernel makes of a MAC address."""
    return f"fe80::{in6_mactoifaceid(mac).lower()}"


def ia_na(*addresses, valid=120, iaid=1):
    return DHCP6OptIA_NA(iaid=iaid, T1=0, T2=0, ianaopts=[DHCP6OptIAAddress(addr=address, preflft=valid, validlft=valid)
                                                          for address in addresses])


def message6(kind, front, *options, xid):
    frame = front / DHCP6(msgtype=kind6(kind), trid=random.getrandbits(24) if xid is None else xid)
    for option in options:
        frame = frame / option
    return frame


def from_client6(kind, mac, *options, xid=None):
    """A client's message to all servers, its identifier made of the MAC address."""
    front = Ether(src=mac, dst="33:33:00:01:00:02") / IPv6(src=link_local(mac), dst="ff02::1:2", hlim=1) / UDP(sport=546, dport=547)
    return message6(kind, front, DHCP6OptClientId(duid=DUID_LL(lladdr=mac)), DHCP6OptElapsedTime(elapsedtime=0), *options, xid=xid)


def from_server6(kind, mac, *options, source_mac, xid=None):
    """A server's message to the client with that MAC address."""
    front = Ether(src=source_mac, dst=mac) / IPv6(src=link_local(source_mac), dst=link_local(mac)) / UDP(sport=547, dport=546)
    identifiers = DHCP6OptClientId(duid=DUID_LL(lladdr=mac)), DHCP6OptServerId(duid=DUID_LL(lladdr=source_mac))
    return message6(kind, front, *identifiers, *options, xid=xid)


def exchange6(endpoint, mac, *options):
    """A client's SOLICIT and REQUEST and a real server's answers; gives the REPLY. `options` are in both."""
    xid = random.getrandbits(24)
    endpoint.send(from_client6("solicit", mac, ia_na(), *options, xid=xid))
    advertise = endpoint.receive_dhcp6("advertise", xid)
    offered = [option.addr for option in advertise[DHCP6OptIA_NA].ianaopts if isinstance(option, DHCP6OptIAAddress)]
    endpoint.send(from_client6("request", mac, DHCP6OptServerId(duid=advertise[DHCP6OptServerId].duid), ia_na(*offered), *options, xid=xid))
    return endpoint.receive_dhcp6("reply", xid)
