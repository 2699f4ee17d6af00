#!/usr/bin/python3
"""Records the kernel's link messages as hexadecimal text, as links-6.1.txt holds them: each line of standard input is a
shell command, or "dump" for a dump of the links and one of the bridge ports. Attributes that nobody reads are left out.
Changes what the commands change: for a network namespace or a virtual machine."""
import select, socket, struct, subprocess, sys

AF_BRIDGE, AF_SPEC, BRVLAN_COMPRESSED = 7, 26, 4
# IFNAME, ADDRESS, LINK, MASTER, PROTINFO, LINKINFO; and 38, PROP_LIST, ALT_IFNAME, which read like the switch's own.
WANTED = {3, 1, 5, 10, 12, 18, 38, 52, 53}

def attributes(data):
    while len(data) >= 4:
        length, kind = struct.unpack_from("=HH", data)
        yield kind & 0x3FFF, data[:(length + 3) & ~3]
        data = data[(length + 3) & ~3:]

def record(sock, seconds):
    while select.select([sock], [], [], seconds)[0]:
        datagram = sock.recv(65536)
        while datagram:
            length, kind = struct.unpack_from("=IH", datagram)
            message, datagram = datagram[:length], datagram[(length + 3) & ~3:]
            if kind == 3:  # NLMSG_DONE
                return
            if kind in (16, 17):  # RTM_NEWLINK, RTM_DELLINK
                wanted = WANTED | ({AF_SPEC} if message[16] == AF_BRIDGE else set())
                body = message[4:32] + b"".join(data for attribute, data in attributes(message[32:]) if attribute in wanted)
                print((struct.pack("=I", len(body) + 4) + body).hex(), flush=True)

events, control = (socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE) for _ in range(2))
events.setsockopt(socket.SOL_SOCKET, 33, 4 << 20)  # SO_RCVBUFFORCE
events.bind((0, 1))  # RTMGRP_LINK
for line in map(str.strip, sys.stdin):
    print("$", line, flush=True)
    if line != "dump" and subprocess.call(line, shell=True) != 0:
        print("# failed")
    for family in (0, AF_BRIDGE) if line == "dump" else ():  # RTM_GETLINK with IFLA_EXT_MASK
        control.send(struct.pack("=IHHII BxHiII HHI", 40, 18, 0x301, 0, 0, family, 0, 0, 0, 0, 8, 29, BRVLAN_COMPRESSED if family else 0))
        record(control, 2)
    record(events, 0.15)
