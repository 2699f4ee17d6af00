#!/usr/bin/python3
"""Writes tests/dhcpv6_frames.h: DHCPv6 frames as scapy builds them (RFC 8415, RFC 4649), each of which tshark must find
whole, with a true checksum. Run it again when a frame is added: tests/data/dhcpv6_frames.py >tests/dhcpv6_frames.h
"""
import subprocess
import sys
import tempfile

from scapy.all import (DHCP6OptClientId, DHCP6OptElapsedTime, DHCP6OptIA_NA, DHCP6OptIA_TA, DHCP6OptIAAddress,
                       DHCP6OptIfaceId, DHCP6OptRemoteID, DHCP6OptServerId, DHCP6OptStatusCode, DHCP6_Advertise,
                       DHCP6_Reply, DHCP6_Request, DHCP6_Solicit, DUID_LL, Dot1Q, Ether, IPv6, UDP, wrpcap)

CLIENT, SERVER = '02:c1:00:00:00:01', '02:5e:00:00:00:01'
# What port 1 of the test puts into VLAN 10's options: the layout of option6.cpp, by hand.
PORT1 = bytes.fromhex('01060006000a1122773302080006020000000101')


def client(message, *options, tags=()):
    ether = Ether(src=CLIENT, dst='33:33:00:01:00:02')
    for tag in tags:
        ether = ether / tag
    return together(ether / IPv6(src='fe80::c1ff:fe00:1', dst='ff02::1:2', hlim=1) / UDP(sport=546, dport=547) / message, options)


def server(message, *options):
    return together(Ether(src=SERVER, dst=CLIENT) / IPv6(src='fe80::5eff:fe00:1', dst='fe80::c1ff:fe00:1', hlim=64) /
                    UDP(sport=547, dport=546) / message, options)


def together(packet, options):
    for option in options:
        packet = packet / option
    return packet


def address(text, preferred, valid, options=()):
    return DHCP6OptIAAddress(addr=text, preflft=preferred, validlft=valid, iaaddropts=list(options))


client_id = DHCP6OptClientId(duid=DUID_LL(lladdr=CLIENT))
server_id = DHCP6OptServerId(duid=DUID_LL(lladdr=SERVER))
iface_id = DHCP6OptIfaceId(ifaceid=PORT1)
remote_id = DHCP6OptRemoteID(enterprisenum=32473, remoteid=PORT1)
elapsed = DHCP6OptElapsedTime(elapsedtime=0)
two = DHCP6OptIA_NA(iaid=7, T1=1800, T2=2880, ianaopts=[address('2001:db8::100', 1800, 3600), address('2001:db8::101', 1800, 3600)])
temporary = DHCP6OptIA_TA(iaid=9, iataopts=[address('2001:db8::ff:1', 300, 600)])
refused = DHCP6OptIA_NA(iaid=7, T1=0, T2=0, ianaopts=[DHCP6OptStatusCode(statuscode=2, statusmsg='none left')])
solicit = DHCP6_Solicit(trid=0x10A2B3)
request = DHCP6_Request(trid=0x10A2B4)
reply = DHCP6_Reply(trid=0x10A2B4)

FRAMES = {
    'SOLICIT': client(solicit, client_id, elapsed, DHCP6OptIA_NA(iaid=7, T1=0, T2=0)),
    'SOLICIT_TAGGED': client(solicit, client_id, elapsed, DHCP6OptIA_NA(iaid=7, T1=0, T2=0), tags=[Dot1Q(vlan=10)]),
    'SOLICIT_18_37': client(solicit, client_id, elapsed, DHCP6OptIA_NA(iaid=7, T1=0, T2=0), iface_id, remote_id),
    'SOLICIT_37': client(solicit, client_id, elapsed, DHCP6OptIA_NA(iaid=7, T1=0, T2=0), remote_id),
    'SOLICIT_37_18': client(solicit, client_id, elapsed, DHCP6OptIA_NA(iaid=7, T1=0, T2=0), remote_id, iface_id),
    'ADVERTISE': server(DHCP6_Advertise(trid=0x10A2B3), client_id, server_id, two),
    'ADVERTISE_18_37': server(DHCP6_Advertise(trid=0x10A2B3), client_id, server_id, two, iface_id, remote_id),
    'REQUEST6': client(request, client_id, server_id, two, temporary),
    'REQUEST_18_37': client(request, client_id, server_id, two, temporary, iface_id, remote_id),
    'REPLY': server(reply, client_id, server_id, two, temporary),
    'REPLY_18_37': server(reply, client_id, server_id, iface_id, remote_id, two, temporary),
    'REPLY_18_TWICE': server(reply, iface_id, client_id, server_id, two, iface_id, temporary),
    'REPLY_REFUSED': server(reply, client_id, server_id, refused),
}


def main():
    with tempfile.NamedTemporaryFile(suffix='.pcap') as capture:
        wrpcap(capture.name, [Ether(bytes(frame)) for frame in FRAMES.values()])
        wrong = subprocess.run(
            ['tshark', '-r', capture.name, '-o', 'udp.check_checksum:TRUE', '-Y',
             '_ws.malformed || udp.checksum.status != "Good" || !dhcpv6 || ipv6.plen_exceeds_framing'],
            capture_output=True, text=True, check=True).stdout
    if wrong:
        sys.exit('tshark finds fault with:\n' + wrong)
    print('// Made by tests/data/dhcpv6_frames.py with scapy; tshark finds nothing wrong with any of them.\n'
          '#pragma once\n')
    for name, frame in FRAMES.items():
        text = bytes(frame).hex()
        lines = [text[at:at + 96] for at in range(0, len(text), 96)]
        print(f'constexpr const char *{name} =' + ''.join(f'\n    "{line}"' for line in lines) + ';')


if __name__ == '__main__':
    main()
