"""This machine's own DHCP on its bridge: a server, a relay and a client, behind the port that is the bridge itself."""

import os
import re

import labtest

from lab import MACS, Client, Lab, Process, Switch
from wire import Capture, Endpoint, exchange, from_client, from_server, from_server6, ia_na

HOSTS = {"pc1": "swp1", "server": "swp4", "rogue": "swp5"}
PC1, ROGUE = MACS["pc1"], MACS["rogue"]
RANGES = "--dhcp-range=10.0.10.100,10.0.10.199,255.255.255.0,120", "--dhcp-range=2001:db8:10::100,2001:db8:10::1ff,64,120"
HEARD = "DISCOVER OFFER REQUEST ACK SOLICIT ADVERTISE REQUEST REPLY"  # by the server, and said: each once
TRUE_SUMS = {"2  1", "5  1", " 2 1", " 7 1"}  # an OFFER, an ACK, an ADVERTISE and a REPLY
LEFT = "for d in br0 swp1; do tc filter show dev $d egress; tc filter show dev $d ingress; tc qdisc show dev $d clsact; done; find /run/dhcpsnoop/bpf -mindepth 1 -type d"


class OwnDhcp(labtest.LabTest):
    setUpClass = classmethod(lambda cls: None)

    def setUp(self):
        self.clients, self.lab = [], Lab(labtest.BUILD)
        self.switch = self.lab.hosts["switch"] = Switch("switch", labtest.BUILD)
        self.addCleanup(self.lab.stop)
        self.addCleanup(self.finish)
        self.switch.bridge()
        for host, port in HOSTS.items():
            self.lab.connect(host, self.switch, port)
            self.switch.ip(f"link set {port} master br0")

    def serve(self, host, device, *addresses):
        for address in addresses:
            host.ip(f"addr add {address} dev {device}")
        self.lab.start_dnsmasq(host, "--dhcp-authoritative", f"--interface={device}", *RANGES)

    def said(self):
        """The server's messages, heard and sent."""
        return re.findall(r" DHCP([A-Z]+)\(", self.lab.processes[0].log())

    def protect(self, line):
        """Without the host's words a check says which are missing; with them nothing."""
        noted = lambda: re.findall("bridge br0 host [a-z]+", self.switch.ctl(f"check {self.switch.directory}/dhcpsnoop.conf").stderr)
        self.switch.configure(line.split(" host")[0])
        self.wait("note", noted)
        self.switch.configure(line)
        self.assertEqual(noted(), [])
        self.switch.start_daemon()
        self.wait("trust", lambda: [port["snooping"] for port in self.switch.show("ports")].count("both") == len(HOSTS) + 1)

    def lease(self, client, client6, port):
        """Both leases are bound to the port; the server has heard each message once, another untrusted port no request, and the client has
        got true checksums."""
        at_client, at_rogue = Capture(client.host, client.device), self.capture("rogue")
        self.clients += [client, client6]
        held = client.start().wait_leases() | client6.start().wait_leases()
        self.assertRegex(" ".join(map(self.binding, held)), rf"^(\S+ 1 {port} dynamic bound 120 ?){{2}}$")
        self.assertEqual(" ".join(self.said()), HEARD)
        got = at_client.decode("dhcp.option.dhcp dhcpv6.msgtype udp.checksum.status", "dhcp.type == 2 || dhcpv6")
        self.assertEqual({" ".join(frame) for frame in got}, TRUE_SUMS)
        self.assertEqual(at_rogue.decode("frame.number", "udp.dstport == 67 || udp.dstport == 547"), [])

    def test_server(self):
        """A server on the bridge, a rogue beside it, the daemon's end, its successor, and the release."""
        self.serve(self.switch, "br0", "10.0.10.1/24", "2001:db8:10::1/64")
        self.protect("bridge br0 host server")
        self.lease(*(Client(self.lab.pc1, family=family) for family in (4, 6)), "swp1")
        own = self.switch.run("ip", "-o", "link", "show", "br0").stdout.split("ether ")[1].split()[0]
        rogue, pc1, at_pc1 = self.endpoint("rogue"), self.endpoint("pc1"), self.capture("pc1")
        for mac in (ROGUE, own):
            rogue.send(from_server("offer", PC1, "10.0.10.66", "10.0.10.250", source_mac=mac),
                       from_server6("reply", PC1, ia_na("2001:db8:10::66"), source_mac=mac, xid=66))
        self.wait("refusals", lambda: self.counts("swp5")["dropped-untrusted"] == 2)
        self.switch.daemon.kill()
        pc1.send(from_client("discover", PC1))
        Endpoint(self.switch, "br0").send(from_server("offer", PC1, "10.0.10.1", "10.0.10.250", source_mac=own))
        heard = len(self.said())
        self.switch.start_daemon()
        exchange(pc1, PC1)
        self.assertEqual((self.said()[heard:], at_pc1.decode("dhcp.option.dhcp dhcpv6.msgtype", "dhcp || dhcpv6")),
                         (HEARD.split()[:4], [["2", ""], ["5", ""]]))
        self.switch.stop_daemon()
        self.switch.ctl("platform release")
        self.assertEqual(self.switch.run("sh", "-c", LEFT).stdout, "")

    def test_plugging(self):
        """Guests that come and go leave no port, no entry of the guard and no descriptor."""
        self.serve(self.switch, "br0", "10.0.10.1/24")
        self.protect("bridge br0 host server guard ip mac port")
        left = lambda: (len(self.switch.show("ports")), len(self.switch.show("guard --all")["interfaces"]),
                        len(os.listdir(f"/proc/{self.switch.daemon.popen.pid}/fd")))
        before = left()
        self.switch.run("sh", "-c", "for i in $(seq 100); do ip link add vnet0 type veth peer name c0 && ip link set vnet0 master br0 up && ip link del vnet0; done")
        self.wait(f"{before}", lambda: left() == before)

    def test_client(self):
        """The machine gets its own address from a server behind the uplink."""
        self.serve(self.lab.server, "eth0", "10.0.10.1/24", "2001:db8:10::1/64")
        self.switch.ip("addr add 10.0.10.99/24 dev br0 valid_lft 3600 preferred_lft 3600")
        self.protect("bridge br0 uplink swp4 host client")
        self.switch.ip("addr flush dev br0 scope global")
        self.lease(*(Client(self.switch, "br0", family=family) for family in (4, 6)), "br0")

    def test_relay(self):
        """Relays on the bridge, their server behind a routed device."""
        core, switch = self.lab.connect("core", self.switch, "swp6"), self.switch
        for host, device, end in ((core, "eth0", 9), (switch, "swp6", 1)):
            host.ip(f"addr add 192.0.2.{end}/24 dev {device}")
            host.ip(f"addr add 2001:db8:99::{end}/64 dev {device}")
        core.ip("route add 10.0.10.0/24 via 192.0.2.1")
        switch.ip("addr add 10.0.10.1/24 dev br0")
        switch.ip("addr add 2001:db8:10::1/64 dev br0")
        self.serve(core, "eth0")
        for name, *arguments in (("relay4", "-4", "-id", "br0", "-iu", "swp6", "192.0.2.9"), ("relay6", "-6", "-l", "br0", "-u", "2001:db8:99::9%swp6")):
            self.lab.processes.append(Process(switch, name, "dhcrelay", "-d", *arguments))
        self.protect("bridge br0 host relay")
        self.lease(*(Client(self.lab.pc1, family=family) for family in (4, 6)), "swp1")


labtest.main()
