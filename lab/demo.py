"""What scripts/lab shows: a rogue server wins on a plain bridge, and loses behind three lines of configuration; real clients get their
leases through the daemon, and a spoofing host is refused.

    demo.py BUILD demo|shell
"""

import os
import re
import subprocess
import sys
import threading

import isolate

BUILD, MODE = os.path.realpath(sys.argv[1]), sys.argv[2]
OUTSIDE_PID = isolate.enter([BUILD, os.path.dirname(os.path.realpath(__file__))])

from lab import MACS, MODEL, PORTS, RELAY_ADDRESS, RELAY_SERVERS, RUN, Client, Failure, Host, Lab, Switch, wait_for
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import ARP, Ether
from wire import BROADCAST, Capture, Endpoint, from_server, is_dhcp

ROGUE_ADDRESS, ROGUE_LEASE = "10.0.10.66", "10.0.10.250"
ROGUE_REPLIES = 5  # of each kind
GATEWAY, FORGED, FORGERIES = "10.0.10.1", "10.0.10.66", 5
ASKED = 5  # times that pc1 asks for an address while the rogue server listens
GUEST_ASKED = 3
# The real server offers pc1 an address after a second, as one that first looks whether somebody has it: the rogue server is faster.
SLOW_OFFER = (f"--dhcp-mac=set:pc1,{MACS['pc1']}", "--dhcp-reply-delay=tag:pc1,1")
PROTECTION = ("bridge br0 uplink swp4", "bridge br0 guard ip mac port", "interface swp1 option82 on")


class RogueServer:
    """Answers each DISCOVER and REQUEST that it hears before the real server does."""

    def __init__(self, host):
        self.endpoint, self.ended = Endpoint(host), threading.Event()
        self.answers = {}
        for asked, kind in ((1, "offer"), (3, "ack")):
            frame = bytearray(bytes(from_server(kind, MACS["pc1"], ROGUE_ADDRESS, ROGUE_LEASE, source_mac=MACS["rogue"])))
            frame[40:42] = bytes(2)  # no UDP checksum, because each answer gets the client's transaction
            self.answers[bytes((53, 1, asked))] = frame
        self.thread = threading.Thread(target=self.serve)

    def serve(self):
        while not self.ended.is_set():
            data = self.endpoint.next(0.05)
            if data and (answer := self.answers.get(data[282:285])):
                answer[46:50] = data[46:50]
                self.endpoint.send(answer)

    def __enter__(self):
        self.thread.start()

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()
        self.endpoint.socket.close()


def rogue_leases(client, rogue, times=ASKED):
    """A client with pc1's MAC address asks, a rogue server listens: how often does the client believe it?"""
    servers = []
    with RogueServer(rogue):
        for _ in range(times):
            asked = client.run("udhcpc", "-f", "-n", "-q", "-t", "8", "-T", "1", "-i", "eth0", "-s", "/bin/true", check=False)
            servers += re.findall(r"lease of \S+ obtained from ([^, ]+)", asked.stdout + asked.stderr)
    if len(servers) != times:
        raise Failure(f"{client.name} got {len(servers)} leases, not {times}")
    return servers.count(ROGUE_ADDRESS)


def configure(lab):
    commands = ["interface swp6 snooping on", "interface swp6 trust on"]
    commands += ["interface swp1 circuit-id template %N:vlan.%s", "interface swp1 subopt9 on"]
    commands += ["interface swp1 option18 on", "interface swp1 interface-id template %N:vlan.%s",
                 "interface swp1 option37 on", "interface swp1 remote-id6 text rack-12"]
    commands += [f"interface swp7 relay-address {RELAY_ADDRESS}"]
    commands += [f"interface swp7 relay-server {address} add" for address in RELAY_SERVERS.values()]
    print("\nRelay information and a relay, by command:")
    for command in commands:
        lab.switch.ctl(command)
        print(f"  dhcpsnoopctl {command}")


def get_leases(lab):
    clients = (
        ("pc1", "swp1", "VLAN 10", Client(lab.pc1)),
        ("pc1", "swp1", "VLAN 10", Client(lab.pc1, family=6)),
        ("pc2", "swp2", "VLAN 20", Client(lab.pc2, program="dhclient")),
        ("pc2", "swp2", "VLAN 20", Client(lab.pc2, program="dhcpcd", family=6)),
        ("trunk", "swp3", "VLAN 10, tagged", Client(lab.trunk, "vlan10")),
        ("trunk", "swp3", "VLAN 20, tagged", Client(lab.trunk, "vlan20", program="dhclient")),
        ("pc3", "swp7", "VLAN 30, relayed", Client(lab.pc3)),
    )
    for *_, client in clients:
        client.start()
    for host, port, vlan, client in clients:
        place = f"  {host:<6} {port}  {vlan:<16}  {client.program:<8}"
        addresses = client.wait_leases(2 if client.family == 6 and host == "pc2" else 1)
        if client.family == 6:
            for address in sorted(addresses):
                print(f"{place}  {address}")
            continue
        bound = wait_for(f"event of {client.name}", lambda: [e for e in client.history() if e[0].lower() == "bound"])[0]
        print(f"{place}  {bound[1]:<12} from {bound[3]}, {bound[5]} s")


def dropped(lab, port):
    """Replies that the daemon refused there because the port is not trusted."""
    return lab.switch.show(f"interface {port}")["dropped-untrusted"]


def send_rogue_replies(lab):
    """A DHCP server where none may be. It hears no DISCOVER, so it guesses: replies for pc1, which is asking anew."""
    with Endpoint(lab.rogue) as rogue, Endpoint(lab.pc1) as pc1:
        for _ in range(ROGUE_REPLIES):
            for kind in ("offer", "ack"):
                rogue.send(from_server(kind, MACS["pc1"], ROGUE_ADDRESS, ROGUE_LEASE, source_mac=MACS["rogue"]))
        wait_for("count of the refused replies", lambda: dropped(lab, "swp5") == 2 * ROGUE_REPLIES)
        reached = sum(is_dhcp(frame, yiaddr=ROGUE_LEASE) for frame in pc1.drain())
    print(f"\nThe rogue server on swp5 sent {ROGUE_REPLIES} OFFERs and {ROGUE_REPLIES} ACKs to pc1; {reached} arrived.")
    if reached:
        raise Failure("a rogue server's reply reached a client")


def forge_sources(lab):
    """pc1 turns bad: it sends from an address that is not its own, and answers ARP for its gateway."""
    own = next(binding["address"] for binding in lab.switch.show("bindings")
               if binding["mac"] == MACS["pc1"] and "." in binding["address"])
    to_all = Ether(src=MACS["pc1"], dst=BROADCAST)
    kinds = (("packets from its own address", to_all / IP(src=own, dst=GATEWAY) / UDP(dport=9) / b"own", FORGERIES),
             (f"packets from {FORGED}", to_all / IP(src=FORGED, dst=GATEWAY) / UDP(dport=9) / b"forged", 0),
             (f"ARP replies for {GATEWAY}", to_all / ARP(op=2, hwsrc=MACS["pc1"], psrc=GATEWAY, pdst=ROGUE_ADDRESS), 0))
    print(f"\nIP source guard and ARP inspection: pc1 sent {FORGERIES} of each, so many arrived at its neighbour:")
    with Endpoint(lab.rogue) as neighbour, Endpoint(lab.pc1) as pc1:
        for _, frame, _ in kinds:
            for _ in range(FORGERIES):
                pc1.send(frame)
        pc1.send(bytes(to_all)[:12] + b"\x88\xb6" + bytes(46))  # nobody guards this; behind it nothing follows
        seen = []
        neighbour.receive("the last frame", lambda frame: seen.append(bytes(frame)) or frame.type == 0x88B6)
    for what, frame, expected in kinds:
        arrived = sum(got.startswith(bytes(frame)) for got in seen)
        print(f"  {what:<30} {arrived}")
        if arrived != expected:
            raise Failure(f"{arrived} {what} arrived, not {expected}")


def as_text(value):
    """Bytes in hexadecimal as the text that they are, when they are one."""
    try:
        text = bytes.fromhex(value).decode("ascii")
    except ValueError:
        return ""
    return f"  ({text})" if len(text) > 2 and text.isprintable() else ""


def option(capture, protocol, heading, where):
    """tshark's tree of an option in the first frame that `where` selects, as indented lines, from the line with `heading`."""
    tree = []
    for line in capture.tshark("-Y", where, "-O", protocol):
        indent = len(line) - len(line.lstrip())
        if tree:
            if indent <= tree[0][0]:
                break
            tree.append((indent, line.strip()))
        elif heading in line:
            tree.append((indent, line.strip()))
    return [" " * (indent - tree[0][0]) + text for indent, text in tree]


def show(lab, words):
    print(f"\n$ dhcpsnoopctl show {words}\n{lab.switch.ctl(f'show {words}').stdout.rstrip()}")


def serve_guests(lab):
    """Another machine, whose own dnsmasq serves its guests on their bridge; guest2 plays server too. One daemon at a time."""
    lab.switch.stop_daemon()
    machine = lab.hosts["hypervisor"] = Switch("hypervisor", lab.build)
    machine.bridge()
    machine.ip(f"addr add {GATEWAY}/24 dev br0")
    for guest, mac in (("guest1", MACS["pc1"]), ("guest2", MACS["rogue"])):
        lab.hosts[guest] = Host(guest)
        lab.hosts[guest].connect("eth0", mac, machine, f"vnet-{guest}")
        machine.ip(f"link set vnet-{guest} up master br0")
    lab.start_dnsmasq(machine, "--dhcp-authoritative", "--interface=br0", "--dhcp-range=10.0.10.100,10.0.10.199,120", *SLOW_OFFER)
    won = rogue_leases(lab.guest1, lab.guest2, GUEST_ASKED)
    machine.configure("bridge br0 host server")
    machine.start_daemon()
    lost = rogue_leases(lab.guest1, lab.guest2, GUEST_ASKED)
    print(f"\nA hypervisor whose dnsmasq serves on its own bridge, beside a guest that plays server: guest1 takes {won} of {GUEST_ASKED} leases from "
          f"that guest.\nWith the line 'bridge br0 host server' it takes {lost} of {GUEST_ASKED}.")
    machine.stop_daemon()
    if lost or not won:
        raise Failure("the guest should win without the daemon, and lose with it")


def demo(lab):
    print("The switch and who is on it:")
    for port, model, host in PORTS:
        print(f"  {port}  {model:<20}  {'relay1, relay2' if host == 'core' else host}")
    won = rogue_leases(lab.pc1, lab.rogue)
    print(f"\nA plain bridge, and a rogue server on swp5: pc1 asks {ASKED} times and takes {won} leases from the rogue.")
    print("\nThree lines in dhcpsnoop.conf:")
    for line in PROTECTION:
        print(f"  {line}")
    lab.switch.configure(*MODEL, *PROTECTION)
    lab.switch.start_daemon()
    lost = rogue_leases(lab.pc1, lab.rogue)
    print(f"pc1 asks {ASKED} times again and takes {lost} leases from the rogue.")
    if lost or not won:
        raise Failure("the rogue server should win on a plain bridge, and lose behind the daemon")
    configure(lab)
    print("\nThe leases that the clients got:")
    with Capture(lab.server) as capture:
        get_leases(lab)
        option82 = option(capture, "dhcp", "Option: (82)", f"dhcp.option.dhcp == 3 && dhcp.hw.mac_addr == {MACS['pc1']}")
        request6 = f"dhcpv6.msgtype == 3 && eth.src == {MACS['pc1']}"
        options6 = [line for heading in ("Interface-Id", "Remote Identifier")
                    for line in option(capture, "dhcpv6", heading, request6)]
    show(lab, "bindings")
    for what, lines in (("Option 82", option82), ("Options 18 and 37", options6)):
        print(f"\n{what} in pc1's REQUEST as tshark reads {'it' if lines is option82 else 'them'} at the server:")
        for line in lines:
            print(f"  {line}{as_text(line.split()[-1])}")
    send_rogue_replies(lab)
    show(lab, "interface swp5")
    forge_sources(lab)
    show(lab, "guard")
    if MODE != "shell":
        serve_guests(lab)
    print(f"\nVerdict: leases from the rogue server: {won} of {ASKED} on the plain bridge, {lost} of {ASKED} with the daemon. "
          f"Forged packets and ARP replies that passed: 0 of {2 * FORGERIES}.")


def shell(lab):
    with open(f"{RUN}/bashrc", "w") as rc:
        rc.write(f"PATH={lab.build}:{lab.build}/ctl:$PATH\nPS1='switch# '\n"
                 "on() { local host=$1; shift; nsenter --net=/run/netns/$host -- \"$@\"; }\n")
    print(f"""
This is a shell on the switch, with dhcpsnoopctl in its path. "on pc1 tcpdump -ni eth0" runs a command on a host:
{", ".join(name for name in lab.hosts if name != "core")}. What clients, servers and daemon print is in {RUN}.
From another terminal: nsenter --target {OUTSIDE_PID} --all. Everything goes when this shell ends.""", flush=True)
    subprocess.run(lab.switch.command("bash", "--rcfile", f"{RUN}/bashrc", *(["-i"] if sys.stdin.isatty() else [])),
                   env={**os.environ, "BASH_ENV": f"{RUN}/bashrc"})


def main():
    try:
        with Lab(BUILD, server_options=SLOW_OFFER) as lab:
            try:
                demo(lab)
            except Failure:
                if lab.switch.daemon:
                    print(f"\nThe daemon printed:\n{lab.switch.daemon.log()[-4000:]}", file=sys.stderr)
                raise
            if MODE == "shell":
                shell(lab)
    except Failure as failure:
        sys.exit(f"\nscripts/lab: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)


main()
