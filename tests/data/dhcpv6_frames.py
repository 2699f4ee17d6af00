#!/usr/bin/python3
"""Writes tests/dhcpv6_frames.h: DHCPv6 frames as scapy builds them (RFC 8415, RFC 4649).
Run it again when a frame is added: tests/data/dhcpv6_frames.py >tests/dhcpv6_frames.h"""
from functools import reduce
from operator import truediv
from scapy.all import *

CLIENT, SERVER = '02:c1:00:00:00:01', '02:5e:00:00:00:01'
# Port 1's text in VLAN 10's options: the layout of option6.cpp, by hand.
PORT1 = bytes.fromhex('01060006000a1122773302080006020000000101')

def client(*message):
    return bytes(reduce(truediv, [Ether(src=CLIENT, dst='33:33:00:01:00:02'), IPv6(src='fe80::c1ff:fe00:1', dst='ff02::1:2', hlim=1), UDP(sport=546, dport=547), *message]))

def server(*message):
    return bytes(reduce(truediv, [Ether(src=SERVER, dst=CLIENT), IPv6(src='fe80::5eff:fe00:1', dst='fe80::c1ff:fe00:1', hlim=64), UDP(sport=547, dport=546), *message]))

def address(text, preferred, valid):
    return DHCP6OptIAAddress(addr=text, preflft=preferred, validlft=valid)

solicit = [DHCP6_Solicit(trid=0x10A2B3), DHCP6OptClientId(duid=DUID_LL(lladdr=CLIENT)), DHCP6OptElapsedTime(elapsedtime=0), DHCP6OptIA_NA(iaid=7, T1=0, T2=0)]
ids = [solicit[1], DHCP6OptServerId(duid=DUID_LL(lladdr=SERVER))]
o18, o37 = DHCP6OptIfaceId(ifaceid=PORT1), DHCP6OptRemoteID(enterprisenum=32473, remoteid=PORT1)
two = DHCP6OptIA_NA(iaid=7, T1=1800, T2=2880, ianaopts=[address('2001:db8::100', 1800, 3600), address('2001:db8::101', 1800, 3600)])
temporary = DHCP6OptIA_TA(iaid=9, iataopts=[address('2001:db8::ff:1', 300, 600)])
advertise, request, reply = DHCP6_Advertise(trid=0x10A2B3), DHCP6_Request(trid=0x10A2B4), DHCP6_Reply(trid=0x10A2B4)
FRAMES = {
    'SOLICIT': client(*solicit),
    'SOLICIT_18_37': client(*solicit, o18, o37),
    'SOLICIT_37': client(*solicit, o37),
    'SOLICIT_37_18': client(*solicit, o37, o18),
    'ADVERTISE': server(advertise, *ids, two),
    'ADVERTISE_18_37': server(advertise, *ids, two, o18, o37),
    'REQUEST6': client(request, *ids, two, temporary),
    'REQUEST_18_37': client(request, *ids, two, temporary, o18, o37),
    'REPLY': server(reply, *ids, two, temporary),
    'REPLY_18_37': server(reply, *ids, o18, o37, two, temporary),
    'REPLY_18_TWICE': server(reply, o18, *ids, two, o18, temporary),
}
print('// Made by tests/data/dhcpv6_frames.py with scapy.\n// clang-format off\n#pragma once\n')
for name, data in FRAMES.items():
    print(f'constexpr const char *{name} = "{data.hex()}";')
