"""VLANs on any kernel: many lack 802.1Q devices or VLAN-aware bridges, but all can run a small eBPF program on a link.

A VLAN device is a veth pair whose lower end redirects to and from the parent link, adding or removing the tag. A bridge
port is made VLAN-aware by a program at its egress: it knows from the frame's ingress port and tag which VLAN the frame is
in, drops it unless the port is a member, and adds or removes the tag. What the switch itself sends is left alone.
"""

import ctypes
import os
import platform
import socket
import struct
import sys

from isolate import check, libc

SYS_BPF = {"x86_64": 321, "aarch64": 280, "ppc64le": 361, "s390x": 351}.get(platform.machine(), 280)
BPF_PROG_LOAD, BPF_OBJ_PIN, BPF_PROG_TYPE_SCHED_CLS = 5, 6, 3
HELPER_VLAN_PUSH, HELPER_VLAN_POP, HELPER_REDIRECT = 18, 19, 23
# Offsets in struct __sk_buff.
VLAN_PRESENT, VLAN_TCI, INGRESS_IFINDEX = 20, 24, 36
TC_ACT_UNSPEC, TC_ACT_SHOT = -1, 2  # go on with the next filter, drop
PIN_DIRECTORY = "/sys/fs/bpf"


class Program:
    """Assembles eBPF: registers are numbers, jump targets are names."""

    def __init__(self):
        self.code, self.labels = [], {}

    def emit(self, op, dst=0, src=0, offset=0, value=0):
        self.code.append((op, dst, src, offset, value))

    def label(self, name):
        self.labels[name] = len(self.code)

    def load32(self, dst, src, offset):
        self.emit(0x61, dst, src, offset)

    def move(self, dst, src):
        self.emit(0xBF, dst, src)

    def set(self, dst, value):
        self.emit(0xB7, dst, value=value)

    def mask(self, dst, value):
        self.emit(0x57, dst, value=value)

    def jump(self, target):
        self.emit(0x05, offset=target)

    def jump_equal(self, dst, value, target):
        self.emit(0x15, dst, offset=target, value=value)

    def jump_not_equal(self, dst, value, target):
        self.emit(0x55, dst, offset=target, value=value)

    def call(self, helper):
        self.emit(0x85, value=helper)

    def give(self, verdict):
        self.set(0, verdict)
        self.exit()

    def exit(self):
        self.emit(0x95)

    def assemble(self):
        image = b""
        for place, (op, dst, src, offset, value) in enumerate(self.code):
            if isinstance(offset, str):
                offset = self.labels[offset] - place - 1
            registers = dst | src << 4 if sys.byteorder == "little" else dst << 4 | src
            image += struct.pack("=BBhi", op, registers, offset, value)
        return image

    def pin(self, name):
        """Loads the program and gives the path under which tc finds it."""
        image = ctypes.create_string_buffer(self.assemble())
        licence, log = ctypes.create_string_buffer(b"GPL"), ctypes.create_string_buffer(65536)
        load = struct.pack("=IIQQIIQ", BPF_PROG_TYPE_SCHED_CLS, len(self.code), ctypes.addressof(image),
                           ctypes.addressof(licence), 1, len(log), ctypes.addressof(log))
        program = libc.syscall(SYS_BPF, BPF_PROG_LOAD, load, len(load))
        check(program, f"loading {name}: {log.value.decode()}")
        path = f"{PIN_DIRECTORY}/{name}"
        path_buffer = ctypes.create_string_buffer(path.encode())
        pin = struct.pack("=QI", ctypes.addressof(path_buffer), program)
        check(libc.syscall(SYS_BPF, BPF_OBJ_PIN, pin, len(pin)), f"pinning {name}")
        os.close(program)
        return path


def push_tag(program, vid_register):
    program.move(1, 6)
    program.set(2, socket.htons(0x8100))
    program.move(3, vid_register)
    program.call(HELPER_VLAN_PUSH)


def tagger(vid, parent):
    """Ingress of a VLAN device's lower end: out of the parent link with the tag."""
    p = Program()
    p.move(6, 1)
    p.set(7, vid)
    push_tag(p, 7)
    p.set(1, parent)
    p.set(2, 0)
    p.call(HELPER_REDIRECT)
    p.exit()
    return p


def untagger(vid, lower):
    """Ingress of the parent link: frames of this VLAN up to the VLAN device, without the tag."""
    p = Program()
    p.move(6, 1)
    p.load32(2, 1, VLAN_PRESENT)
    p.jump_equal(2, 0, "other")
    p.load32(2, 1, VLAN_TCI)
    p.mask(2, 0xFFF)
    p.jump_not_equal(2, vid, "other")
    p.call(HELPER_VLAN_POP)
    p.set(1, lower)
    p.set(2, 0)
    p.call(HELPER_REDIRECT)
    p.exit()
    p.label("other")
    p.give(TC_ACT_UNSPEC)
    return p


def bridge_port(untagged_vid, tagged_vids, native):
    """Egress of a bridge port. `native` gives the VLAN of untagged frames by ingress interface index."""
    p = Program()
    p.move(6, 1)
    p.load32(2, 1, INGRESS_IFINDEX)
    p.jump_equal(2, 0, "pass")  # sent by the switch itself
    p.load32(8, 1, VLAN_PRESENT)
    p.load32(7, 1, VLAN_TCI)
    p.mask(7, 0xFFF)
    p.jump_not_equal(8, 0, "member")
    for index, vid in native.items():
        p.jump_not_equal(2, index, f"not {index}")
        p.set(7, vid)
        p.jump("member")
        p.label(f"not {index}")
    p.give(TC_ACT_SHOT)
    p.label("member")
    if untagged_vid:
        p.jump_equal(7, untagged_vid, "untagged")
    for vid in tagged_vids:
        p.jump_equal(7, vid, "tagged")
    p.give(TC_ACT_SHOT)
    if untagged_vid:
        p.label("untagged")
        p.jump_equal(8, 0, "pass")
        p.move(1, 6)
        p.call(HELPER_VLAN_POP)
        p.jump("pass")
    if tagged_vids:
        p.label("tagged")
        p.jump_not_equal(8, 0, "pass")
        push_tag(p, 7)
    p.label("pass")
    p.give(TC_ACT_UNSPEC)
    return p
