"""Frames on the lab's wires: raw sockets at the hosts, DHCP messages made and read with scapy, captures read by tshark."""

import logging
import random
import select
import socket
import struct
import subprocess
import time

logging.getLogger("scapy.runtime").setLevel(logging.ERROR)  # it remarks that lo has no address
from scapy.config import conf
from scapy.layers.dhcp import BOOTP, DHCP
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Dot1Q, Ether
from scapy.utils import wrpcap

from lab import RUN, Failure

conf.verb = 0
SOL_PACKET, PACKET_AUXDATA, PACKET_IGNORE_OUTGOING, ETH_P_ALL = 263, 8, 23, 3
TP_STATUS_VLAN_VALID, SO_RCVBUFFORCE = 1 << 4, 33
BROADCAST = "ff:ff:ff:ff:ff:ff"
TO_ALL = (BROADCAST, "255.255.255.255")
KINDS = ("", "discover", "offer", "request", "decline", "ack", "nak", "release", "inform")  # RFC 2132 9.6


class Endpoint:
    """A raw socket at a host's device: sends frames byte for byte, sees what arrives with its tags."""

    def __init__(self, host, device="eth0"):
        self.name = f"{host.name} {device}"
        with host.inside():
            self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
            self.socket.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
            self.socket.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
            self.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 4 << 20)
            self.socket.bind((device, ETH_P_ALL))
        self.drain()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, *frames):
        for frame in frames:
            self.socket.send(bytes(frame))

    def next(self, timeout=0.0):
        """The next frame that arrived, as bytes, or None."""
        if not select.select([self.socket], [], [], max(0, timeout))[0]:
            return None
        data, control, _, _ = self.socket.recvmsg(65536, socket.CMSG_SPACE(20))
        for level, kind, payload in control:
            if (level, kind) == (SOL_PACKET, PACKET_AUXDATA):
                status, _, _, _, _, tci, tpid = struct.unpack("=IIIHHHH", payload)
                if status & TP_STATUS_VLAN_VALID:
                    data = data[:12] + struct.pack("!HH", tpid or 0x8100, tci) + data[12:]
        return data

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


def options(frame):
    """The DHCP options as scapy names them."""
    return {option[0]: option[1] for option in frame[DHCP].options if isinstance(option, tuple)}


def is_dhcp(frame, kind=None, **fields):
    """Is it a DHCP message of that kind whose BOOTP fields have these values?"""
    return DHCP in frame and kind in (None, KINDS[options(frame).get("message-type", 0)]) and \
        all(getattr(frame[BOOTP], name) == value for name, value in fields.items())


def outer_vid(frame):
    """The id in the outer tag, 0 for an untagged frame."""
    return frame[Dot1Q].vlan if Dot1Q in frame else 0


def mac_bytes(mac):
    return bytes.fromhex(mac.replace(":", ""))


def tagged(frame, *vids):
    """The frame's bytes with these tags in front."""
    tags = b"".join(struct.pack("!HH", 0x8100, vid) for vid in vids)
    return bytes(frame)[:12] + tags + bytes(frame)[12:]


def message(kind, mac, extra, source, destination, **fields):
    """A message from port 68 to 67 (`op` 1) or back (2)."""
    fields = {"op": 1, "chaddr": mac_bytes(mac), "xid": random.getrandbits(32), **fields}
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
        """The fields of every frame so far that the display filter `where` selects, as a list of dicts of text."""
        names = [word for field in fields for word in ("-e", field)]
        lines = self.tshark("-Y", where, "-T", "fields", "-E", "separator=/t", "-E", "occurrence=a", *names)
        return [dict(zip(fields, line.split("\t"))) for line in lines]
