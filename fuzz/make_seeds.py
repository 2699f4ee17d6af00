#!/usr/bin/python3
"""Writes fuzz/seeds/: inputs of the fuzz targets, from frames that scapy builds and requests, events and records laid out by
hand.

How an input is read stands in session.cpp and in frames, requests, events, peer and changes.cpp; when that changes, change
this and run it again. With --check, tshark must find nothing wrong with any of the frames.
"""
import pathlib
import socket
import struct
import subprocess
import sys
import tempfile
import zlib

from scapy.all import BOOTP, IP, UDP, Dot1AD, Dot1Q, Ether, IPv6, Raw, wrpcap

HERE = pathlib.Path(__file__).parent
CLIENT, CLIENT2, SERVER = '02:c1:00:00:00:01', '02:c1:00:00:00:02', '02:5e:00:00:00:01'
PORT1_MAC = bytes.fromhex('020000000101')
BOUND, REQUESTED, FRESH, SERVER_IP, RELAY_IP = '10.0.0.100', '10.0.0.101', '10.0.0.105', '10.0.0.1', '192.0.2.1'

DISCOVER, OFFER, REQUEST, DECLINE, ACK, NAK, RELEASE, INFORM = range(1, 9)

# prepare.h: the bits of the first byte
OFF, TYPED, RAW, TYPED_TEXT, RAW_TEXT, TEMPLATE, GLOBAL, ODD = range(8)
KEEP, DROP, KEEP_ALSO, APPEND = (n << 3 for n in range(4))
SUBOPT9, RELAYING, GUARDS = 0x20, 0x40, 0x80

# frames.cpp: where a frame comes in
PORT1, PORT2, PORT2_VLAN10, PORT3, PORT4, PORT4_VLAN20, PORT5, PORT6, VLAN20, VLAN30 = range(10)

frames = []  # every one that scapy built


def total_length(frame, length):
    """The frame with that IPv4 total length, true or not."""
    return frame[:16] + struct.pack('>H', length) + frame[18:]


def filled(message, last, reply=False, size=2048, **bootp):
    """A frame of that size whose options end with `last`, filler in front of it."""
    room = size - 14 - 28 - 240 - 3 - len(last) - 1
    filler = b''.join(option(43, bytes(n)) for n in [250] * (room // 252)) + bytes(room % 252)
    return dhcp(message, filler + last, reply=reply, **bootp)


def option(code, data=b''):
    return bytes([code, len(data)]) + data


def ip_option(code, address):
    return option(code, bytes(map(int, address.split('.'))))


def mac_bytes(mac):
    return bytes.fromhex(mac.replace(':', ''))


def dhcp(message, options=b'', tags=(), reply=False, mac=CLIENT, src=None, ip=('0.0.0.0', '255.255.255.255'), **bootp):
    ether = Ether(src=src or (SERVER if reply else mac), dst='ff:ff:ff:ff:ff:ff')
    for kind, vid in tags:
        ether = ether / kind(vlan=vid)
    ports = (67, 68) if reply else (68, 67)
    body = option(53, bytes([message])) + options + b'\xff'
    frame = (ether / IP(src=SERVER_IP if reply else ip[0], dst=ip[1]) / UDP(sport=ports[0], dport=ports[1]) /
             BOOTP(op=2 if reply else 1, chaddr=mac_bytes(mac), xid=0x3903F326, options=b'\x63\x82\x53\x63', **bootp) /
             Raw(body))
    built = bytes(frame)
    frames.append(built)
    return built


def frame(data, arrival):
    """A record with the frame as it is, played twice."""
    return bytes([0, 1, arrival << 4 | 3]) + struct.pack('>H', len(data)) + data


def odd_frame(data, arrival, if_index, outer, inner, l2, ether_type=0, length=0):
    """The same, with packet information of its own."""
    return (bytes([0, 1, arrival << 4 | 7]) + struct.pack('>H', len(data)) + data +
            struct.pack('>IHHHBH', if_index, outer, inner, l2, ether_type, length))


def made(op, message, arrival, options, shape=0, tags=b'\0', picks=b'\0\0\0\0\0\0\0', pads=None):
    """A record of a frame that the target makes: op, type, addresses by number, and an option area."""
    record = bytes([0, 1, arrival << 4, op - 1, message]) + tags + picks + bytes([shape | (pads is not None)])
    if pads is not None:
        record += struct.pack('>H', pads)
    return record + struct.pack('>H', len(options)) + options


def dhcp6(message, options=b'', server=False, tags=(), mac=CLIENT, sound=True):
    ether = Ether(src=SERVER if server else mac, dst=mac if server else '33:33:00:01:00:02')
    for kind, vid in tags:
        ether = ether / kind(vlan=vid)
    ports = (547, 546) if server else (546, 547)
    addresses = ('fe80::5eff:fe00:1', 'fe80::c1ff:fe00:1') if server else ('fe80::c1ff:fe00:1', 'ff02::1:2')
    built = bytes(ether / IPv6(src=addresses[0], dst=addresses[1]) / UDP(sport=ports[0], dport=ports[1]) /
                  Raw(bytes([message, 0x10, 0xA2, 0xB3]) + options))
    if sound:
        frames.append(built)
    return built


def option6(code, data=b'', length=None):
    return struct.pack('>HH', code, len(data) if length is None else length) + data


def iaaddr(address, valid, options=b''):
    return option6(5, socket.inet_pton(socket.AF_INET6, address) + struct.pack('>II', valid // 2, valid) + options)


def recv6_seeds():
    """DHCPv6 on the ports of prepare.cpp."""
    solicit, advertise, request, confirm, renew, rebind, reply, release, decline, reconfigure, inform = range(1, 12)
    one, two = iaaddr('2001:db8::100', 3600), iaaddr('2001:db8::101', 600)
    ia = option6(3, bytes(12) + one + two)
    temporary = option6(4, bytes(4) + iaaddr('2001:db8::1', 60))
    status = option6(13, b'\0\2none')
    client_id = option6(1, b'\0\3\0\1' + mac_bytes(CLIENT))
    port1 = b'\1\6\0\6\0\x0a\1\0\0\1\2\x08\0\6' + PORT1_MAC
    inserted = option6(18, port1) + option6(37, struct.pack('>I', 32473) + port1)
    cut = dhcp6(reply, ia + inserted, True)
    extension = cut[:20] + b'\0' + cut[21:54] + b'\x11\0\1\4\0\0\0\0' + cut[54:]
    ask = frame(dhcp6(request, client_id + ia + temporary), PORT1)
    return {
        'six-solicit': bytes([TYPED]) + frame(dhcp6(solicit, client_id + option6(3, bytes(12))), PORT1),
        'six-solicit-tagged': bytes([TYPED_TEXT]) + frame(dhcp6(solicit, ia, tags=[(Dot1Q, 20)]), PORT2),
        'six-solicit-template': bytes([TEMPLATE]) + frame(dhcp6(solicit, ia), PORT1),
        'six-solicit-long-option': bytes([GLOBAL]) + frame(dhcp6(solicit, ia), PORT1),
        'six-solicit-carries-both': bytes([TYPED]) + frame(dhcp6(solicit, ia + inserted), PORT1),
        'six-on-vlan': bytes([RAW | GUARDS]) + frame(dhcp6(request, ia, tags=[(Dot1Q, 20)]), VLAN20),
        'six-exchange': bytes([TYPED | GUARDS]) + ask + frame(dhcp6(reply, ia + inserted, True), PORT3) +
                        frame(dhcp6(release, ia), PORT1),
        'six-advertise': bytes([TYPED]) + frame(dhcp6(advertise, inserted + ia, True), PORT3),
        'six-advertise-flooded': bytes([OFF]) + frame(dhcp6(advertise, ia, True), PORT3),
        'six-reply-refused': bytes([TYPED]) + ask + frame(dhcp6(reply, option6(3, bytes(12) + status + one), True), PORT3),
        'six-reply-failed-address': bytes([TYPED]) + ask +
                                    frame(dhcp6(reply, option6(3, bytes(12) + iaaddr('2001:db8::100', 60, status) + two), True), PORT3),
        'six-reply-untrusted': bytes([TYPED]) + frame(dhcp6(reply, ia, True), PORT2),
        'six-renew': bytes([TYPED]) + frame(dhcp6(renew, ia), PORT1) + frame(dhcp6(rebind, ia), PORT1) +
                     frame(dhcp6(confirm, ia), PORT1),
        'six-decline': bytes([TYPED]) + ask + frame(dhcp6(decline, ia), PORT1),
        'six-reconfigure': bytes([TYPED]) + frame(dhcp6(reconfigure, option6(19, b'\5'), True), PORT4_VLAN20) +
                           frame(dhcp6(inform), PORT2),
        'six-relayed': bytes([TYPED]) + frame(dhcp6(12, bytes(34)), PORT1),
        'six-extension': bytes([TYPED]) + frame(extension, PORT3),
        'six-option-overruns': bytes([TYPED]) + frame(dhcp6(reply, ia + option6(18, port1, 65532), True), PORT3),
        'six-strip-overruns': bytes([TYPED]) + frame(dhcp6(reply, inserted + option6(1, bytes(2), 65535), True, sound=False), PORT3),
        'six-ia-overruns': bytes([TYPED]) + frame(dhcp6(request, option6(3, bytes(12) + one, 65535)), PORT1),
        'six-address-overruns': bytes([TYPED]) + frame(dhcp6(request, option6(3, bytes(12) + option6(5, bytes(30), 65535))), PORT1),
        'six-ia-short': bytes([TYPED]) + frame(dhcp6(request, option6(3, bytes(11)) + option6(4, bytes(3)), sound=False), PORT1),
        'six-payload-short': bytes([TYPED]) + frame(cut[:18] + b'\0\x0b' + cut[20:58] + b'\0\x0b' + cut[60:], PORT3),
        'six-udp-short': bytes([TYPED]) + frame(cut[:58] + b'\0\0' + cut[60:], PORT3),
        'six-full': bytes([TYPED]) + frame(dhcp6(reply, option6(1, bytes(1900)) + inserted, True), PORT3),
        'six-in-four': bytes([TYPED]) + odd_frame(cut, PORT1, 1, 10, 0, 14, 0),
        'six-made': bytes([TYPED]) + bytes([0, 0, PORT1 << 4 | 1, 3, 0, 0, 0, 0, 1, 0, 2, 2, 0, 1, 0, 0, 0]),
    }


PORT_STATE, MEMBERS, ROLE, REFUSAL, SWITCH_TEXT, TRACE = 7, 8, 9, 10, 12, 13  # changes.cpp
SYSTEM, PLACE, CARDS, AGGREGATE = 16, 17, 18, 19


def change(what, arguments):
    """A record of something that the switch does."""
    return bytes([7, what]) + arguments


def recv_seeds():
    prl = option(55, bytes([1, 3, 6, 15]))
    circuit, remote = option(1, b'\0\6\0\x0a\1\0\0\1'), option(2, b'\0\6' + PORT1_MAC)
    relay_info = option(82, circuit + remote)
    vendor9 = option(9, struct.pack('>I', 32473) + b'\6\1\4edge')
    foreign = option(82, option(1, b'elsewhere') + option(2, b'\0\6\1\2\3\4\5\6') + vendor9)
    ack = option(51, struct.pack('>I', 3600)) + ip_option(54, SERVER_IP) + ip_option(3, SERVER_IP)
    vendor_class = option(60, b'\1\4\0\0\0\7')
    to_server = ip_option(54, SERVER_IP)

    discover = dhcp(DISCOVER, prl)
    request = dhcp(REQUEST, ip_option(50, FRESH) + to_server + vendor_class)
    renew = dhcp(REQUEST, prl, ciaddr=BOUND, ip=(BOUND, SERVER_IP))
    acked = dhcp(ACK, ack, reply=True, yiaddr=FRESH)
    bound = dhcp(ACK, ack + relay_info, reply=True, yiaddr=BOUND)
    release = dhcp(RELEASE, to_server, ciaddr=BOUND, ip=(BOUND, SERVER_IP))
    large = dhcp(DISCOVER, prl + option(43, bytes(250)) * 6 + option(43, bytes(190)))
    # An IPv4 header of 60 bytes that begins 28 bytes before the end of the buffer, its total length wrapping.
    at_the_end = bytes(2020) + b'\x4f\0' + struct.pack('>H', 65536 - 2020 + 40) + bytes(5) + b'\x11' + bytes(18)
    seeds = {
        'discover': bytes([TYPED]) + frame(discover, PORT1),
        'discover-template': bytes([TEMPLATE | SUBOPT9]) + frame(discover, PORT1),
        'discover-global-template': bytes([GLOBAL]) + frame(discover, PORT2),
        'discover-raw-text': bytes([RAW_TEXT]) + frame(discover, PORT1),
        'discover-relayed': bytes([TYPED | RELAYING]) + frame(dhcp(DISCOVER, prl, mac=CLIENT2), PORT5),
        'discover-on-vlan': bytes([RAW | GUARDS]) + frame(dhcp(DISCOVER, prl, [(Dot1Q, 20)]), VLAN20),
        'discover-qinq': bytes([TYPED_TEXT]) + frame(dhcp(DISCOVER, prl, [(Dot1AD, 20), (Dot1Q, 7)]), PORT2),
        'discover-keep': bytes([TYPED | KEEP]) + frame(dhcp(DISCOVER, foreign), PORT1),
        'discover-drop': bytes([TYPED | DROP]) + frame(dhcp(DISCOVER, foreign), PORT1),
        'discover-append': bytes([TYPED | APPEND | SUBOPT9]) + frame(dhcp(DISCOVER, foreign), PORT1),
        'discover-foreign-giaddr': bytes([TYPED | RELAYING]) + frame(dhcp(DISCOVER, giaddr='10.9.9.9'), PORT2),
        'offer-to-waiting': bytes([OFF | RELAYING]) +
                            frame(dhcp(OFFER, ack, reply=True, yiaddr=FRESH, giaddr=RELAY_IP, mac='02:00:00:00:01:01'), PORT3),
        'offer-flooded': bytes([TYPED]) + frame(dhcp(OFFER, ack, reply=True, yiaddr=FRESH), PORT3),
        'offer-untrusted': bytes([TYPED | GUARDS]) + frame(dhcp(OFFER, ack, reply=True, yiaddr=FRESH), PORT1),
        'exchange': bytes([TYPED | GUARDS]) + frame(request, PORT1) + frame(acked, PORT3) + frame(release, PORT1),
        'exchange-vlan': bytes([TYPED | RELAYING]) + frame(dhcp(REQUEST, ip_option(50, FRESH), [(Dot1Q, 20)]), VLAN20) +
                         frame(dhcp(ACK, ack, [(Dot1Q, 20)], reply=True, yiaddr=FRESH), PORT4_VLAN20),
        'renew': bytes([TYPED | GUARDS]) + frame(renew, PORT1) + frame(bound, PORT3),
        'renew-wrong-port': bytes([TYPED | GUARDS]) + frame(renew, PORT2_VLAN10),
        'source-mac': bytes([TYPED | GUARDS]) + frame(dhcp(DISCOVER, src=CLIENT2), PORT1),
        'ack-strip-typed': bytes([TYPED]) + frame(bound, PORT3),
        'ack-boot-options': bytes([TYPED | GUARDS]) + frame(bound, PORT3),
        'ack-strip-raw': bytes([RAW]) + frame(dhcp(ACK, ack + option(82, circuit + option(2, PORT1_MAC)), reply=True,
                                                   yiaddr=BOUND), PORT3),
        'ack-strip-text': bytes([TYPED_TEXT]) + frame(dhcp(ACK, ack + option(82, option(2, b'\1\6remote')), reply=True,
                                                           yiaddr=BOUND), PORT3),
        'ack-relayed': bytes([TYPED | RELAYING]) +
                       frame(dhcp(ACK, ack, reply=True, mac=CLIENT2, yiaddr=REQUESTED, giaddr=RELAY_IP), PORT4_VLAN20),
        'ack-relayed-broadcast': bytes([TYPED | RELAYING]) +
                                 frame(dhcp(ACK, ack, reply=True, mac=CLIENT2, yiaddr=REQUESTED, giaddr=RELAY_IP,
                                            flags=0x8000), PORT4_VLAN20),
        'nak': bytes([TYPED | GUARDS]) + frame(dhcp(NAK, to_server, reply=True), PORT3),
        'decline': bytes([OFF]) + frame(dhcp(DECLINE, ip_option(50, BOUND) + to_server), PORT1),
        'inform': bytes([ODD]) + frame(dhcp(INFORM, prl, ciaddr=BOUND, ip=(BOUND, SERVER_IP)), PORT1),
        'odd-information': bytes([TYPED]) + odd_frame(discover, PORT1, 1, 10, 20, 14),
        'wrapped-length': bytes([TYPED]) + frame(total_length(discover, 65535), PORT1),
        'wrapped-large': bytes([TYPED | SUBOPT9]) + frame(total_length(large, 65535), PORT1),
        'wrapped-ack': bytes([TYPED | GUARDS]) + frame(total_length(bound, 65524), PORT3),
        'full-router-empty': bytes([TYPED]) + frame(filled(REQUEST, option(3)), PORT1),
        'full-vendor-class': bytes([TYPED]) + frame(filled(REQUEST, option(60, b'\5\0\1\4')), PORT1),
        'full-suboption': bytes([TYPED | APPEND | SUBOPT9]) +
                          frame(total_length(filled(DISCOVER, option(82, b'\1\0\x09\xff')), 65535), PORT1),
        'full-remote-id': bytes([TYPED]) + frame(filled(ACK, option(82, b'\2\x08\0'), True, yiaddr=BOUND), PORT3),
        'wrapped-ack-large': bytes([TYPED | GUARDS]) +
                             frame(total_length(filled(ACK, relay_info, True, 2040, yiaddr=BOUND), 65524), PORT3),
        'text-too-long': bytes([TEMPLATE]) + change(SWITCH_TEXT, b'\0\xff' + b'x' * 255) + frame(discover, PORT1),
        'full-ack-boot': bytes([TYPED | GUARDS]) + frame(filled(ACK, relay_info, True, yiaddr=BOUND), PORT3),
        'refused-frame': bytes([TYPED | GUARDS]) + change(REFUSAL, b'\x0a\xff') + frame(request, PORT1) + frame(acked, PORT3),
        'refused-rule': bytes([TYPED | GUARDS]) + change(REFUSAL, b'\1\xff') + frame(request, PORT1) + frame(acked, PORT3),
        'refused-members': bytes([OFF]) + change(REFUSAL, b'\7\xff') +
                           frame(dhcp(OFFER, ack, [(Dot1Q, 20)], reply=True, yiaddr=FRESH), PORT4_VLAN20),
        'port-down': bytes([OFF]) + change(PORT_STATE, b'\3\1') + frame(dhcp(DISCOVER, prl, [(Dot1Q, 20)]), VLAN20),
        'pool-empty': bytes([OFF | RELAYING]) +
                      b''.join(made(1, REQUEST, PORT1, ip_option(50, f'10.0.0.{n}'), picks=bytes([n % 2, 0, 0, 0, 0, 0, 0]))
                               for n in range(110, 114)) + frame(dhcp(DISCOVER, mac='02:00:00:00:00:0f'), PORT2),
        'members-too-many': bytes([OFF]) + change(MEMBERS, b'\1' + struct.pack('>H', 299) + (bytes([0, 0, 0, 2]) * 75)[:299]) +
                            frame(dhcp(OFFER, ack, [(Dot1Q, 20)], reply=True, yiaddr=FRESH), PORT4_VLAN20),
        'odd-end-of-buffer': bytes([TYPED]) + odd_frame(at_the_end, PORT1, 1, 10, 0, 2020),
        'odd-port': bytes([TYPED]) + odd_frame(discover, PORT1, 77, 10, 0, 14),
        'odd-length': bytes([TYPED]) + odd_frame(discover, PORT1, 9, 10, 0, 14, 0, 2048),
        'made-discover': bytes([TYPED | SUBOPT9]) + made(1, DISCOVER, PORT1, prl),
        'made-large': bytes([TYPED]) + made(1, DISCOVER, PORT1, prl, pads=1700),
        'made-append-large': bytes([TYPED | APPEND | SUBOPT9]) + made(1, DISCOVER, PORT1, foreign, pads=1640),
        'made-ack': bytes([TYPED | GUARDS]) + made(2, ACK, PORT3, ack + relay_info, picks=b'\0\2\0\1\0\x08\0'),
    }
    return seeds | recv6_seeds()


def word(value):
    return b'\0\2\0\4' + struct.pack('>I', value)


def request(func, cmd, index, data_type, data):
    items = b''.join(bytes([0 if isinstance(item, bytes) else 2]) +
                     struct.pack('>H', len(item) if isinstance(item, bytes) else 4) +
                     (item if isinstance(item, bytes) else struct.pack('>I', item)) for item in index)
    count = 0 if func < 3 else len(index)
    body = (word(func) + word(0) + word(cmd) + bytes([1, count]) + items + bytes([3, data_type]) +
            struct.pack('>H', len(data)) + data)
    return bytes([0, 0, 1]) + struct.pack('>H', len(body)) + body  # a record with the request as it is


def short(func, cmd, index, data):
    """A record of a request that the target makes: index and data by number."""
    return bytes([0, 1, 0, func, cmd, index]) + data + b'\0'


def cmd_seeds():
    def number(value):
        return 2, struct.pack('>I', value)

    def room(size):
        return 0, bytes(size)

    key = [b'\1', b'\0\0\0', bytes([10, 0, 0, 100]) + bytes(12)]
    static = [b'\1', b'\0\0\0', bytes([10, 0, 0, 102]) + bytes(12)]
    fresh = [b'\1', b'\0\0\0', bytes([10, 0, 0, 110]) + bytes(12)]
    server = [2, 0x0A000001]
    groups = {
        'global-get': [request(2, cmd, [0], *number(0)) for cmd in (1, 2, 3, 4, 16, 20)],
        'global-set': [request(0, 1, [0], *number(1)), request(0, 2, [0], *number(32473)),
                       request(0, 4, [0], *number(1)), request(0, 16, [0], *number(1)), request(1, 17, [0], *number(1)),
                       request(0, 19, [0], 0, bytes(64)), request(0, 20, [0], *number(3)), request(0, 1, [0], *number(0))],
        'if-walk': [request(3, 0, [0], *number(0)), request(4, 0, [1], *number(0)), request(4, 0, [30], *number(0))],
        'if-get': [request(7, cmd, [1], *number(0)) for cmd in (1, 2, 3, 4, 8, 9, 10, 11, 13)] +
                  [request(7, cmd, [1], *room(130)) for cmd in (5, 6, 7, 12, 14)],
        'if-set': [request(5, cmd, [7], *number(1)) for cmd in (1, 3, 4, 9, 10, 11, 13, 16, 17, 18, 20, 21, 28)] +
                  [request(5, 5, [7], 0, b'\1\4port'), request(5, 6, [7], 0, b'\1\6remote'), request(5, 7, [7], 0, b'edge'),
                   request(5, 12, [7], 0, b'\1\4six1'), request(5, 14, [7], 0, b'\1\4six2'), request(6, 4, [7], *number(0))],
        'if-formats': [request(5, cmd, [1], *number(5)) for cmd in (30, 31, 32, 33)] +
                      [request(5, 5, [1], 0, b'%s.%c.%d:%N'), request(5, 30, [1], *number(7)), request(5, 2, [1], *number(3)),
                       request(5, 34, [1], *number(0xC0000201)), request(5, 1, [1], *number(0))],
        'user-walk': [request(8, 0, key, *room(28)), request(9, 0, key, *room(28)), request(9, 0, fresh, *room(28))],
        'user-get': [request(12, cmd, key, *number(0)) for cmd in (1, 2, 4, 6, 7, 8, 9)] + [request(12, 5, key, *room(6))],
        'user-set': [request(10, 9, fresh, *number(4)), request(10, 1, fresh, *number(10)), request(10, 2, fresh, *number(1)),
                     request(10, 4, fresh, *number(7)), request(10, 5, fresh, 0, mac_bytes(CLIENT)),
                     request(10, 9, fresh, *number(1)), request(11, 9, fresh, *number(2)), request(10, 9, fresh, *number(6))],
        'user-short-mac': [request(10, 9, fresh, *number(4)), request(10, 5, fresh, 0, b'\2'), request(12, 5, fresh, *room(5))],
        'if-long-texts': [request(5, cmd, [1], 0, b'\1\xc8' + b'x' * 200) for cmd in (5, 6, 7)] +
                         [request(5, cmd, [1], *number(5)) for cmd in (4, 30, 31)] +
                         [request(5, cmd, [1], 0, b'y' * 200) for cmd in (5, 6)] +
                         [request(7, cmd, [1], *room(128)) for cmd in (5, 6)],
        'user-unbind': [request(10, 9, key, *number(2)), request(10, 9, static, *number(3)), request(10, 9, static, *number(6))],
        'vlan': [request(13, 0, [0], *number(0)), request(14, 0, [20], *number(0)), request(15, 1, [20], *number(9)),
                 request(16, 1, [20], *number(0)), request(15, 3, [20], *number(0)), request(15, 3, [20], *number(1))],
        'server-ip': [request(19, 1, server, *number(1)), request(17, 0, server, *room(12)), request(18, 0, server, *room(12)),
                      request(21, 1, server, *number(0)), request(20, 1, server, *number(6))],
        'odd': [request(22, 0, [0], *number(0)), request(2, 1, [0], 4, bytes(8)), request(7, 5, [1], 1, b''),
                bytes([0, 0, 1, 0, 0]), bytes([0, 0, 1, 0, 25]) + bytes(25)],
        'made': [short(5, 5, 0, b'\1\4abcd'), short(10, 9, 0x46, b'\0\4'), short(7, 6, 0, b'\1\x20' + bytes(32))],
    }
    presets = (OFF, TYPED | SUBOPT9, TEMPLATE | GUARDS, TYPED_TEXT | RELAYING)
    return {name: bytes([presets[i % len(presets)]]) + b''.join(records) for i, (name, records) in enumerate(groups.items())}


# prepare.cpp: interfaces; pools.h: bindings. Events and records from the peer are in this machine's order.
PORT, OTHER_PORT, VLAN_IF, UNKNOWN_IF = 1, 2, 20, 77
NEWLINK, DELLINK, CARD_UP, CARD_DOWN, SLOT_UP, SLOT_DOWN, SUBSYSTEM_UP = 16, 17, 87, 88, 90, 91, 93
DAI_START, DAI_STOP, USERS_UPDATE, IPSG_CHANGE, DAI_CHANGE = 123, 124, 190, 198, 199
JOINED, CONFIGURED, PORT_ADDED, PORT_REMOVED = 38, 49, 52, 53


def raw(data, record=0):
    """A record with a datagram or packet as it is, played twice."""
    return bytes([record, 3]) + struct.pack('>H', len(data)) + data


def message(kind, payload=b'', length=None, card=0):
    return struct.pack('=IHHII', 16 + len(payload) if length is None else length, kind, 0, card, 0) + payload


def attribute(kind, value=b'', length=None):
    return struct.pack('=HH', 4 + len(value) if length is None else length, kind) + value


def link(kind, if_index, attributes=b''):
    return message(kind, struct.pack('=HHIII', 0, 1, if_index, 0, 0) + attributes)


def items(kind, if_index, check_items):
    return message(kind, struct.pack('=IB', if_index, check_items))


def notify_seeds():
    member = struct.pack('=I', OTHER_PORT)
    pad = bytes(3)
    # This system is 16, port 1 lies on the slot that a type names, what cards and slots answer.
    system = change(SYSTEM, b'\0')

    def place(kind, answer):
        types = (NEWLINK, DELLINK, CARD_UP, CARD_DOWN, SLOT_UP, SLOT_DOWN)
        return system + change(PLACE, bytes([0, types.index(kind), 0])) + change(CARDS, bytes([1, answer])) + raw(message(kind))

    seeds = {
        'links': [raw(link(NEWLINK, PORT, attribute(CONFIGURED)) + link(DELLINK, PORT) + link(NEWLINK, PORT)),
                  raw(link(DELLINK, VLAN_IF) + link(DELLINK, UNKNOWN_IF))],
        'joined': [raw(link(NEWLINK, PORT, attribute(JOINED) + attribute(PORT_ADDED, member) + attribute(JOINED) +
                            attribute(PORT_REMOVED, member)))],
        'members': [raw(link(NEWLINK, PORT, attribute(PORT_ADDED, member) + attribute(PORT_REMOVED, member))),
                    change(AGGREGATE, b'\0\2'), raw(link(NEWLINK, PORT, attribute(PORT_ADDED, member)))],
        'odd-attributes': [raw(link(NEWLINK, PORT, attribute(3, b'n') + pad + attribute(PORT_ADDED, b'\2') + pad +
                                    attribute(JOINED, length=0xFFFF))),
                           raw(link(NEWLINK, PORT, attribute(PORT_ADDED))), raw(link(NEWLINK, PORT, attribute(JOINED, length=3))),
                           raw(link(NEWLINK, PORT, attribute(JOINED, length=8)) + message(5))],
        'odd-lengths': [raw(message(5, length=0xFFFFFFFD)), raw(message(5, length=15)),
                        raw(message(5, b'x') + pad + message(6, length=17)), raw(link(DELLINK, PORT)[:31]), raw(b'')],
        'items': [raw(b''.join(items(IPSG_CHANGE, if_index, check) + pad for if_index in (PORT, VLAN_IF, UNKNOWN_IF)
                               for check in (0x90, 0, 0x0F, 0xF0))),
                  raw(b''.join(items(DAI_CHANGE, if_index, check) + pad for if_index in (PORT, VLAN_IF)
                               for check in (0x40, 0)))],
        'dai': [raw(items(DAI_START, PORT, 0xF0) + pad + message(DAI_STOP) + message(DAI_STOP))],
        'refused': [change(REFUSAL, b'\2\1'), raw(items(IPSG_CHANGE, PORT, 0) + pad + message(DAI_STOP))],
        'users': [raw(message(USERS_UPDATE, struct.pack('=I', 10)) + message(USERS_UPDATE, b'\x0a\0\0'))],
        'card-up': [place(CARD_UP, 0), place(CARD_UP, 1)],
        'card-down': [place(CARD_DOWN, 0)],
        'slot-up': [place(SLOT_UP, 0), place(SLOT_UP, 1)],
        'slot-down': [place(SLOT_DOWN, 1)],
        'subsystem': [raw(message(SUBSYSTEM_UP))],
        'made': [bytes([0, 1, 2, NEWLINK % 12, 0, 0, 1, 2, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0])],
    }
    presets = (TYPED | GUARDS, OFF | GUARDS | RELAYING, TYPED)
    return {name: bytes([presets[i % len(presets)]]) + b''.join(records) for i, (name, records) in enumerate(seeds.items())}


def user_record(add, address, length=56, ip_type=1, user_type=1, if_index=PORT, vid=10):
    return (struct.pack('=BBH', 1, add, length) + bytes([ip_type, 0, 0, 0]) + bytes(map(int, address.split('.'))) + bytes(12) +
            struct.pack('=HHIIIBBBBH', vid, vid, if_index, 3600, 1000000000, 0xC0, user_type, 1, 0x30, 7) +
            mac_bytes(CLIENT) + struct.pack('=II', 1, 2))


def server_record(add, address, length=12, if_index=PORT, vid=10):
    return struct.pack('=BBHIIHH', 2, add, length, *struct.unpack('>I', bytes(map(int, address.split('.')))), if_index, vid, 0)


def sync_seeds():
    fresh = [f'10.0.1.{n}' for n in range(23)]
    seeds = {
        'full-copy': [raw(b''.join(user_record(1, address) for address in fresh) + server_record(1, SERVER_IP)),
                      raw(user_record(1, '10.0.2.1') + server_record(1, '10.0.0.2') + server_record(1, '10.0.0.3'))],
        'changes': [raw(user_record(1, FRESH)), raw(user_record(1, FRESH, if_index=OTHER_PORT, vid=20)), raw(user_record(0, FRESH)),
                    raw(server_record(1, SERVER_IP)), raw(server_record(0, SERVER_IP)), raw(user_record(0, '10.9.9.9'))],
        'known': [raw(user_record(1, BOUND, user_type=2) + user_record(0, BOUND) + user_record(0, REQUESTED))],
        'types': [raw(user_record(1, FRESH, ip_type=2) + user_record(1, FRESH, ip_type=9, user_type=4) + user_record(2, FRESH))],
        'odd-lengths': [raw(user_record(1, FRESH, 0xFFFF) + user_record(1, BOUND)), raw(user_record(1, FRESH, 0xFFFC)),
                        raw(user_record(1, FRESH, 0)), raw(struct.pack('=BBH', 3, 1, 5) + bytes(5) + user_record(1, FRESH))],
        'short': [raw(user_record(1, FRESH)[:59]), raw(user_record(0, BOUND)[:23]), raw(user_record(0, BOUND)[:24]),
                  raw(server_record(1, SERVER_IP)[:15]), raw(b'\1\1\0'), raw(b'')],
        'dumped': [change(TRACE, b'\3'), raw(user_record(1, FRESH, 0xFFFF)), raw(server_record(1, SERVER_IP, 0xFFFF))],
        'master': [change(ROLE, b'\1'), raw(user_record(1, FRESH)), change(ROLE, b'\2'), raw(user_record(1, FRESH)), change(ROLE, b'\1'),
                   raw(link(DELLINK, PORT), 5)],
        'events': [raw(user_record(1, FRESH)), raw(items(IPSG_CHANGE, PORT, 0x90) + bytes(3) + message(DAI_STOP), 5)],
        'made': [bytes([0, 1, 3] + [0, 1, 5, 0, 0, 0] + [0] * 7 + [3, 1, 5, 0, 0, 0])],
    }
    presets = (TYPED | GUARDS, OFF | GUARDS | RELAYING, TYPED)
    return {name: bytes([presets[i % len(presets)]]) + b''.join(records) for i, (name, records) in enumerate(seeds.items())}


def translate_seeds():
    """The recorded link messages of a real kernel: from each command on, as many as one input holds."""
    groups = []
    for line in (HERE.parent / 'tests' / 'data' / 'links-6.1.txt').read_text().splitlines():
        if line.startswith('$'):
            groups.append((line[2:], []))
        elif not line.startswith('#'):
            groups[-1][1].append(bytes.fromhex(line))
    seeds = {}
    for start in range(0, len(groups), 4):
        data = bytes([start % 3])
        for command, messages in groups[start:]:
            piece = b''.join(b'\0' + struct.pack('>H', len(one)) + one for one in messages)
            if command == 'dump':
                piece = b'\5' + piece + b'\6\1'
            if len(data) + len(piece) > 8000:
                break
            data += piece + b'\7\x80\xc8\x88'  # and the first three interfaces guarded
        seeds[f'recorded-{start:02}'] = data
    announcement = struct.pack('=IHHIIIB3x', 24, 198, 0, 0, 1, 3, 0x80)
    seeds['announced'] = b'\0\0' + struct.pack('>H', len(announcement)) + announcement
    return seeds


def unit_record(kind=1, add=1, ip=1, user=1, address='0a000a02', port=b'swp1', vid=10, lease=3600):
    """A record as it travels and lies in the journal (unit_record.cpp)."""
    return struct.pack('>4B16s16sHHIIIBBH6s2x', kind, add, ip, user, bytes.fromhex(address), port, vid, vid, lease, 1699999000,
                       1700000000, 1, 0x30, 0, bytes.fromhex('02c100000001'))


def journal_seeds():
    """fuzz_journal.cpp: what the input is and how it is cut, then the bytes."""
    records = [unit_record(), unit_record(add=0, user=0, port=b'', lease=0), unit_record(kind=2, user=0, address='0a000001'),
               unit_record(ip=2, address='20010db8' + '00' * 11 + '01'), unit_record(user=2, port=b'', lease=0xFFFFFFFF)]
    slots = [slot + struct.pack('>I', zlib.crc32(slot)) for slot in (b'DSJ1' + record for record in records)]
    message = lambda kind, payload=b'': b'DSNP' + struct.pack('>BBH', 1, kind, len(payload)) + payload
    stream = [message(1, b'\1\0\0\0'), message(3), *(message(2, record) for record in records),
              message(4, struct.pack('>I', len(records))), message(5), message(6)]
    return {
        'journal': b'\x3f' + b''.join(slots),
        'torn': b'\x07' + slots[0] + slots[1][:40],
        'flipped': b'\x3f' + slots[0][:30] + b'?' + slots[0][31:] + slots[1],
        'sums': b'\x47' + b''.join(slots),
        'stream': b'\xbf' + b''.join(stream),
        'stream-bytewise': b'\x80' + b''.join(stream),
        'stream-length': b'\x88' + message(2, records[0])[:6] + b'\xff\xff' + records[0],
    }


def check():
    with tempfile.TemporaryDirectory() as directory:
        capture = pathlib.Path(directory) / 'seeds.pcap'
        wrpcap(str(capture), [Ether(built) for built in frames])
        faults = subprocess.run(
            ['tshark', '-r', capture, '-o', 'ip.check_checksum:TRUE', '-o', 'udp.check_checksum:TRUE', '-Y',
             '!(dhcp || dhcpv6) || _ws.malformed || ip.checksum.status == "Bad" || udp.checksum.status == "Bad"'],
            check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    if faults:
        sys.exit('tshark finds fault with:\n' + faults)
    print(f'{len(frames)} frames are as tshark wants them')


def main():
    for target, seeds in (('fuzz_recv', recv_seeds()), ('fuzz_cmd', cmd_seeds()), ('fuzz_notify', notify_seeds()),
                          ('fuzz_sync', sync_seeds()), ('fuzz_translate', translate_seeds()),
                          ('fuzz_journal', journal_seeds())):
        directory = HERE / 'seeds' / target
        directory.mkdir(parents=True, exist_ok=True)
        for old in directory.iterdir():
            old.unlink()
        for name, data in seeds.items():
            (directory / name).write_bytes(data)
    if sys.argv[1:] == ['--check']:
        check()


main()
