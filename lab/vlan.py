"""VLANs on any kernel: many lack 802.1Q devices or VLAN-aware bridges, but all can run a small eBPF program on a link.

A VLAN device is a veth pair whose lower end redirects to and from the parent link, adding or removing the tag. A bridge
port is made VLAN-aware by a program at its egress: it knows from the frame's ingress port and tag which VLAN the frame is
in, drops it unless the port is a member, and adds or removes the tag. A frame that the switch itself sends is left alone.
"""

import ctypes
import os
import socket
import struct
import sys

from isolate import check

libbpf = ctypes.CDLL("libbpf.so.1", use_errno=True)
BPF_PROG_TYPE_SCHED_CLS = 3
# An instruction's opcode; its second operand is a register, a place in the frame's record, a number or a label.
LOAD, MOVE, SET, AND, GOTO, IF_EQUAL, IF_OTHER, CALL, EXIT = 0x61, 0xBF, 0xB7, 0x57, 0x05, 0x15, 0x55, 0x85, 0x95
VLAN_PUSH, VLAN_POP, REDIRECT = 18, 19, 23  # the kernel's functions
VLAN_PRESENT, VLAN_TCI, INGRESS_IFINDEX = 20, 24, 36  # offsets in struct __sk_buff
NEXT_FILTER, DROP = -1, 2  # verdicts

KEEP_FRAME = [(MOVE, 6, 1)]  # a call overwrites register 1
PUSH_R7 = [(MOVE, 1, 6), (SET, 2, socket.htons(0x8100)), (MOVE, 3, 7), (CALL, 0, VLAN_PUSH)]
POP = [(MOVE, 1, 6), (CALL, 0, VLAN_POP)]


def verdict(number):
    return [(SET, 0, number), (EXIT, 0, 0)]


def redirect(index):
    return [(SET, 1, index), (SET, 2, 0), (CALL, 0, REDIRECT), (EXIT, 0, 0)]


def tagger(vid, parent):
    """Ingress of a VLAN device's lower end: out of the parent link with the tag."""
    return [*KEEP_FRAME, (SET, 7, vid), *PUSH_R7, *redirect(parent)]


def untagger(vid, lower):
    """Ingress of the parent link: frames of this VLAN up to the VLAN device, without the tag."""
    return [*KEEP_FRAME, (LOAD, 2, VLAN_PRESENT), (IF_EQUAL, 2, 0, "other"), (LOAD, 2, VLAN_TCI), (AND, 2, 0xFFF),
            (IF_OTHER, 2, vid, "other"), *POP, *redirect(lower), "other", *verdict(NEXT_FILTER)]


def bridge_port(untagged_vid, tagged_vids, native):
    """Egress of a bridge port. `native` gives the VLAN of untagged frames by ingress interface index."""
    program = [*KEEP_FRAME, (LOAD, 2, INGRESS_IFINDEX), (IF_EQUAL, 2, 0, "pass"), (LOAD, 8, VLAN_PRESENT),
               (LOAD, 7, VLAN_TCI), (AND, 7, 0xFFF), (IF_OTHER, 8, 0, "member")]
    for index, vid in native.items():
        program += [(IF_OTHER, 2, index, f"not {index}"), (SET, 7, vid), (GOTO, 0, 0, "member"), f"not {index}"]
    program += [*verdict(DROP), "member"]
    program += [(IF_EQUAL, 7, untagged_vid, "untagged")] if untagged_vid else []
    program += [(IF_EQUAL, 7, vid, "tagged") for vid in tagged_vids]
    program += verdict(DROP)
    if untagged_vid:
        program += ["untagged", (IF_EQUAL, 8, 0, "pass"), *POP, (GOTO, 0, 0, "pass")]
    if tagged_vids:
        program += ["tagged", (IF_OTHER, 8, 0, "pass"), *PUSH_R7]
    return [*program, "pass", *verdict(NEXT_FILTER)]


def assemble(program):
    """Machine code; a text is the label of the instruction behind it."""
    labels, lines = {}, []
    for line in program:
        if isinstance(line, str):
            labels[line] = len(lines)
        else:
            lines.append(line)
    code = b""
    for place, (op, target, operand, *label) in enumerate(lines):
        source, offset, value = 0, 0, 0
        if op == LOAD:
            source, offset = 1, operand
        elif op == MOVE:
            source = operand
        else:
            value = operand
        if label:
            offset = labels[label[0]] - place - 1
        registers = target | source << 4 if sys.byteorder == "little" else target << 4 | source
        code += struct.pack("=BBhi", op, registers, offset, value)
    return code


def pin(program, name):
    """Loads the program and gives the path under which tc finds it."""
    code, path = assemble(program), f"/sys/fs/bpf/{name}"
    loaded = libbpf.bpf_prog_load(BPF_PROG_TYPE_SCHED_CLS, None, b"GPL", code, ctypes.c_size_t(len(code) // 8), None)
    check(loaded, f"loading {name}")
    check(libbpf.bpf_obj_pin(loaded, path.encode()), f"pinning {name}")
    os.close(loaded)
    return path
