#!/usr/bin/python3
"""Records the kernel's link messages as hexadecimal text, as links-6.1.txt holds them: each line of standard input is a
shell command, or "dump" for a dump of the links and one of the bridge ports. With an argument it leaves out the
attributes that nobody here reads. Changes what the commands change: for a network namespace or a virtual machine."""
import select, socket, struct, subprocess, sys

RTM_NEWLINK, RTM_DELLINK, RTM_GETLINK, NLMSG_DONE, DUMP = 16, 17, 18, 3, 0x301
AF_BRIDGE, AF_SPEC, EXT_MASK, BRVLAN_COMPRESSED = 7, 26, 29, 4
# IFNAME, ADDRESS, LINK, MASTER, PROTINFO, LINKINFO: what the switch model reads; PHYS_PORT_NAME, PROP_LIST, ALT_IFNAME:
# what reads like the switch's own.
WANTED = {3, 1, 5, 10, 12, 18, 38, 52, 53}
slim = len(sys.argv) > 1

def attributes(data):
    while len(data) >= 4:
        length, kind = struct.unpack_from("=HH", data)
        yield kind & 0x3FFF, data[:(length + 3) & ~3]
        data = data[(length + 3) & ~3:]

def print_messages(datagram):
    """Whether a dump ends here."""
    while datagram:
        length, kind = struct.unpack_from("=IH", datagram)
        message, datagram = datagram[:length], datagram[(length + 3) & ~3:]
        if kind == NLMSG_DONE:
            return True
        if kind in (RTM_NEWLINK, RTM_DELLINK):
            body = message[4:32] + b"".join(bytes for attribute, bytes in attributes(message[32:])
                                            if not slim or attribute in WANTED or (attribute == AF_SPEC and message[16] == AF_BRIDGE))
            print((struct.pack("=I", len(body) + 4) + body).hex(), flush=True)
    return False

def drain(sock, seconds):
    while select.select([sock], [], [], seconds)[0]:
        if print_messages(sock.recv(65536)):
            return

events, control = (socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE) for _ in range(2))
events.setsockopt(socket.SOL_SOCKET, 33, 4 << 20)  # SO_RCVBUFFORCE
events.bind((0, 1))  # RTMGRP_LINK
for line in map(str.strip, sys.stdin):
    print("$", line, flush=True)
    if line != "dump":
        if subprocess.call(line, shell=True) != 0:
            print("# failed")
    else:
        for family in (0, AF_BRIDGE):
            mask = BRVLAN_COMPRESSED if family else 0
            control.send(struct.pack("=IHHII BxHiII HHI", 40, RTM_GETLINK, DUMP, 0, 0, family, 0, 0, 0, 0, 8, EXT_MASK, mask))
            drain(control, 2)
    drain(events, 0.15)
