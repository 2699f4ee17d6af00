"""A virtual switch with its clients and servers, each host a network namespace.

    swp1  access 10          pc1     a client
    swp2  access 20          pc2     a client
    swp3  trunk 10,20        trunk   clients on tagged VLAN devices (and, for the tests, double-tagged ones)
    swp4  trunk 10,20        server  the real DHCP server of VLANs 10 and 20
    swp5  access 10          rogue   a host that plays DHCP server
    swp6  routed             relay1, relay2  DHCP servers of VLAN 30, behind the router port
    swp7  access 30          pc3     a client whose requests are relayed

Needs root, and isolate.enter() before it: nothing here cleans up after itself more than it must.
"""

import contextlib
import json
import os
import shutil
import signal
import socket
import subprocess
import time

import vlan
from isolate import check, libc, CLONE_NEWNET

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(HERE)
RUN = "/run/lab"
SYSTEM_NAME = "lab-switch"

# port, its line in the switch model, the host at its other end
PORTS = (
    ("swp1", "access 10", "pc1"),
    ("swp2", "access 20", "pc2"),
    ("swp3", "trunk 10,20 native 1", "trunk"),
    ("swp4", "trunk 10,20 native 1", "server"),
    ("swp5", "access 10", "rogue"),
    ("swp6", "routed", "core"),
    ("swp7", "access 30", "pc3"),
)
MODEL = ("system 1", *(f"port {port} {model}" for port, model, _ in PORTS))  # lines of the configuration
TRUSTED = ("swp4", "swp6")
RELAY_ADDRESS = "10.0.30.1"
RELAY_SERVERS = {"relay1": "192.0.2.11", "relay2": "192.0.2.12"}
MACS = {"pc1": "02:00:00:00:01:01", "pc2": "02:00:00:00:02:01", "pc3": "02:00:00:00:03:01",
        "trunk": "02:00:00:00:04:01", "server": "02:00:00:00:05:01", "rogue": "02:00:00:00:06:66",
        "core": "02:00:00:00:07:01", "relay1": "02:00:00:00:07:11", "relay2": "02:00:00:00:07:12"}
SUBNETS6 = {10: ("2001:db8:10",), 20: ("2001:db8:20", "2001:db8:120")}  # a client gets an address of each
TRUNK_CLIENTS = {"vlan10": "02:00:00:00:04:10", "vlan20": "02:00:00:00:04:20"}


class Failure(Exception):
    """Something of the lab that must work did not."""


def wait_for(what, condition, timeout=20.0):
    """Polls until `condition()` is true and gives its value."""
    end = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > end:
            raise Failure(f"after {timeout:g} s still no {what}")
        time.sleep(0.02)
    return value


class Host:
    """A network namespace: the switch, or a machine at one of its ports."""

    def __init__(self, name):
        self.name = name
        subprocess.run(["ip", "netns", "add", name], check=True)
        # IPv6 addresses are usable at once: dhclient -6 gives up while its own is tentative.
        for where in ("all", "default"):
            self.sysctl(f"net/ipv6/conf/{where}/accept_dad", 0)
            self.sysctl(f"net/ipv6/conf/{where}/dad_transmits", 0)
            self.sysctl(f"net/ipv4/conf/{where}/rp_filter", 0)
        self.ip("link set lo up")

    @contextlib.contextmanager
    def inside(self):
        """The body runs in the host's network namespace; sockets that it opens stay there."""
        with open("/proc/thread-self/ns/net") as home, open(f"/run/netns/{self.name}") as there:
            check(libc.setns(there.fileno(), CLONE_NEWNET), f"setns {self.name}")
            try:
                yield
            finally:
                check(libc.setns(home.fileno(), CLONE_NEWNET), "setns back")

    def sysctl(self, name, value):
        with self.inside():
            path = f"/proc/sys/{name}"
            if os.path.exists(path):
                with open(path, "w") as file:
                    file.write(str(value))

    def command(self, *arguments):
        """`ip netns exec` would mount a new /sys and so hide the pinned maps in /sys/fs/bpf."""
        return ["nsenter", f"--net=/run/netns/{self.name}", "--", *arguments]

    def run(self, *arguments, check=True, **options):
        done = subprocess.run(self.command(*arguments), text=True, capture_output=True, **options)
        if check and done.returncode:
            raise Failure(f"{self.name}: {' '.join(arguments)}: exit {done.returncode}\n{done.stdout}{done.stderr}")
        return done

    def ip(self, line):
        self.run("ip", *line.split())

    def tc_program(self, device, direction, program, name):
        path = vlan.pin(program, f"{self.name}-{name}")
        self.run("tc", "qdisc", "replace", "dev", device, "clsact")
        # Behind whatever the switch attaches, which takes the first preferences.
        self.run("tc", "filter", "add", "dev", device, direction, "pref", "50000", "bpf", "da", "object-pinned", path)
        os.unlink(path)  # the filter holds the program

    def index(self, device):
        with self.inside():
            return socket.if_nametoindex(device)

    def connect(self, device, mac, switch, port):
        """A link from this host's device to a port of the switch, which is not up yet."""
        link = f"ip link add {device} netns {self.name} address {mac} type veth peer name {port} netns {switch.name}"
        subprocess.run(link.split(), check=True)
        self.ip(f"link set {device} up")

    def bridge(self):
        self.ip("link add br0 type bridge mcast_snooping 0")
        for table in ("iptables", "ip6tables", "arptables"):
            self.sysctl(f"net/bridge/bridge-nf-call-{table}", 0)
        self.ip("link set br0 up")

    def vlan_device(self, parent, vid, mac, name=None):
        """Makes a device for one VLAN of a link, of a VLAN device for double tags."""
        name = name or f"vlan{vid}"
        lower = f"{name}-low"
        self.ip(f"link add {name} address {mac} type veth peer name {lower}")
        for device in (name, lower):
            self.ip(f"link set {device} up")
        self.ip(f"link set {parent} promisc on")
        self.tc_program(lower, "ingress", vlan.tagger(vid, self.index(parent)), f"{name}-push")
        self.tc_program(parent, "ingress", vlan.untagger(vid, self.index(lower)), f"{name}-pop")

    def addresses(self, device, family=4):
        """The device's global addresses that are usable."""
        lines = self.run("ip", f"-{family}", "-o", "addr", "show", "dev", device, "scope", "global").stdout.splitlines()
        return {line.split()[3].split("/")[0] for line in lines if "tentative" not in line and "dadfailed" not in line}


class Process:
    """A process of the lab, its output in a file."""

    def __init__(self, host, name, *arguments, env=None):
        self.name, self.output = name, f"{RUN}/{name}.log"
        with open(self.output, "wb") as log:
            self.popen = subprocess.Popen(host.command(*arguments), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                          env={**os.environ, **(env or {})})

    def log(self):
        with open(self.output, errors="replace") as file:
            return file.read()

    def running(self):
        return self.popen.poll() is None

    def signal(self, number):
        self.popen.send_signal(number)

    def kill(self):
        self.popen.kill()
        return self.popen.wait()

    def stop(self, timeout=10):
        """Ends the process and gives its exit status."""
        if self.running():
            self.popen.terminate()
        try:
            return self.popen.wait(timeout)
        except subprocess.TimeoutExpired:
            return self.kill()


class Switch(Host):
    """The host on which the daemon runs."""

    def __init__(self, name, build):
        self.build, self.daemon, self.directory, self.environment = build, None, f"{RUN}/{name}", {}
        os.makedirs(self.directory, exist_ok=True)
        super().__init__(name)

    def configure(self, *lines):
        """The lines of the daemon's configuration file."""
        with open(f"{self.directory}/dhcpsnoop.conf", "w") as file:
            file.writelines(f"{line}\n" for line in lines)

    def binary(self, name):
        for path in (f"{self.build}/{name}", f"{self.build}/ctl/{name}"):
            if os.path.exists(path):
                return path
        raise Failure(f"{self.build} holds no {name}: build first")

    def start_daemon(self, *arguments, under=()):
        """Starts the daemon, under another command if need be, and waits until it answers."""
        daemon = self.daemon = Process(self, f"dhcpsnoop-{self.name}", *under, self.binary("dhcpsnoop"), "--config", self.directory, *arguments,
                                       env=self.environment)

        def answers():
            if not daemon.running():
                raise Failure(f"{self.name}: the daemon ended with {daemon.popen.returncode}\n{daemon.log()}")
            return self.ctl("show interfaces", check=False).returncode == 0

        wait_for(f"answer of the daemon on {self.name}", answers)

    def stop_daemon(self):
        if self.daemon:
            self.daemon.stop()

    def ctl(self, line, check=True):
        """A command of the client, by its words."""
        return self.run(self.binary("dhcpsnoopctl"), *line.split(), check=check)

    def show(self, words):
        return json.loads(self.ctl(f"show {words} --json").stdout)


class Client:
    """A DHCP client program on one device: of DHCPv4 udhcpc or dhclient, of DHCPv6 dhclient or dhcpcd."""

    def __init__(self, host, device="eth0", program=None, family=4):
        self.host, self.device, self.family = host, device, family
        self.program = program or {4: "udhcpc", 6: "dhclient"}[family]
        self.name = f"{self.program}{family}-{host.name}-{device}"
        self.events, self.script, self.process = f"{RUN}/{self.name}.events", f"{HERE}/client-script", None
        open(self.events, "w").close()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{RUN}/{self.name}.leases")

    def start(self):
        """The programs are told to try again soon."""
        conf = f"{RUN}/{self.name}.conf"
        with open(conf, "w") as file:
            file.write(f"duid ll\nnoipv6rs\nipv6only\ninterface {self.device}\nia_na 1\n" if self.program == "dhcpcd" else
                       "timeout 20;\n" if self.family == 6 else
                       "timeout 20; retry 1; initial-interval 1; backoff-cutoff 1; initial-delay 0;\n")
        if self.program == "udhcpc":
            arguments = ["udhcpc", "-f", "-R", "-t", "5", "-T", "1", "-A", "1", "-s", self.script, "-i", self.device]
        elif self.program == "dhclient":
            arguments = [*self.dhclient(), "-d", "-cf", conf, self.device]
        else:
            # Its control socket and leases are named by the device alone: each gets directories of its own.
            os.makedirs("/run/dhcpcd", exist_ok=True)
            hidden = "for d in /run/dhcpcd /var/lib/dhcpcd; do mount -t tmpfs tmpfs $d; done; exec \"$@\""
            arguments = ["unshare", "--mount", "sh", "-c", hidden, "sh", "dhcpcd", "-B", "-f", conf, "-c", self.script,
                         "--env", f"LAB_EVENTS={self.events}", self.device]
        self.process = Process(self.host, self.name, *arguments, env={"LAB_EVENTS": self.events})
        return self

    def dhclient(self):
        return ["dhclient", f"-{self.family}", "-sf", self.script, "-e", f"LAB_EVENTS={self.events}", "-lf", f"{RUN}/{self.name}.leases",
                "-pf", f"{RUN}/{self.name}.pid", *(("-D", "LL") if self.family == 6 else ())]

    def history(self):
        """The client's events so far, as [event, address, …] lists."""
        with open(self.events) as file:
            return [line.split() for line in file]

    def wait_leases(self, count=1):
        """Waits until the client has that many addresses and gives them."""
        wait_for(f"{count} leases of {self.name}", lambda: len(self.host.addresses(self.device, self.family)) == count, 30)
        return self.host.addresses(self.device, self.family)

    def release(self):
        """Ends the client so that it releases its lease."""
        if self.program == "dhclient":
            self.host.run(*self.dhclient(), "-r", self.device)
            self.process.popen.wait(10)
        elif self.program == "dhcpcd":
            self.process.signal(signal.SIGALRM)
        else:
            self.process.stop()

    def kill(self):
        """Ends the client at once: it says nothing to anybody. dhcpcd is several processes; it ends them all and keeps its lease."""
        if self.program == "dhcpcd":
            self.process.stop()
        else:
            self.process.kill()


class Lab:
    """The topology with its servers. The daemon is started and stopped apart from it."""

    def __init__(self, build, offload=True, server_options=()):
        self.build, self.offload, self.server_options = os.path.realpath(build), offload, server_options
        self.hosts, self.processes = {}, []
        os.makedirs(RUN, exist_ok=True)
        socket.sethostname(SYSTEM_NAME)

    def __getattr__(self, name):
        try:
            return self.__dict__["hosts"][name]
        except KeyError:
            raise AttributeError(name) from None

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def start(self):
        switch = self.hosts["switch"] = Switch("switch", self.build)
        self.make_ports(switch)
        self.make_relay_side(switch)
        trunk, server = self.trunk, self.server
        for device, mac in TRUNK_CLIENTS.items():
            trunk.vlan_device("eth0", int(device[4:]), mac)
        for vid in (10, 20):
            server.vlan_device("eth0", vid, MACS["server"])
            server.ip(f"addr add 10.0.{vid}.1/24 dev vlan{vid}")
            for subnet in SUBNETS6[vid]:
                server.ip(f"addr add {subnet}::1/64 dev vlan{vid}")
            server.run("ethtool", "-K", f"vlan{vid}", "tx", "on" if self.offload else "off")
        self.start_dnsmasq(server, "--dhcp-authoritative", "--interface=vlan10", "--interface=vlan20",
                           "--dhcp-range=10.0.10.100,10.0.10.199,255.255.255.0,120",
                           "--dhcp-range=10.0.20.100,10.0.20.199,255.255.255.0,120",
                           *(f"--dhcp-range={subnet}::100,{subnet}::1ff,64,120"
                             for subnets in SUBNETS6.values() for subnet in subnets), *self.server_options)
        for number, name in enumerate(RELAY_SERVERS, 1):
            self.start_dnsmasq(self.hosts[name], "--interface=eth0",
                               f"--dhcp-range=10.0.30.{number}00,10.0.30.{number}49,255.255.255.0,120")

    def connect(self, name, switch, port):
        host = self.hosts[name] = Host(name)
        host.connect("eth0", MACS[name], switch, port)
        switch.ip(f"link set {port} up")
        if not self.offload:
            host.run("ethtool", "-K", "eth0", "tx", "off")
            switch.run("ethtool", "-K", port, "tx", "off")
        return host

    def make_ports(self, switch):
        switch.bridge()
        bridged = []
        for port, model, name in PORTS:
            self.connect(name, switch, port)
            if model != "routed":
                switch.ip(f"link set {port} master br0")
                bridged.append((port, *port_vlans(model)))
        native = {switch.index(port): untagged for port, untagged, _ in bridged}
        for port, untagged, tagged in bridged:
            switch.tc_program(port, "egress", vlan.bridge_port(untagged, tagged, native), f"{port}-vlan")
        switch.configure(*MODEL)

    def make_relay_side(self, switch):
        """VLAN 30's address on the switch, and two servers on one segment behind the router port."""
        switch.sysctl("net/ipv4/ip_forward", 1)
        switch.ip(f"addr add {RELAY_ADDRESS}/24 dev br0")
        switch.ip("addr add 192.0.2.1/24 dev swp6")
        core = self.core
        core.bridge()
        core.ip("link set eth0 master br0")
        for name, address in RELAY_SERVERS.items():
            host = self.connect(name, core, name)
            core.ip(f"link set {name} master br0")
            host.ip(f"addr add {address}/24 dev eth0")
            host.ip("route add default via 192.0.2.1")

    def start_dnsmasq(self, host, *arguments):
        self.processes.append(Process(
            host, f"dnsmasq-{host.name}", "dnsmasq", "-k", "--conf-file=/dev/null", "--port=0", "--bind-interfaces",
            "--no-ping", "--log-dhcp", "--log-facility=-", "--user=root", "--pid-file=",
            f"--dhcp-leasefile={RUN}/dnsmasq-{host.name}.leases", *arguments))

    def stop(self):
        self.switch.stop_daemon()
        for process in self.processes:
            process.stop()
        for host in self.hosts:
            subprocess.run(["ip", "netns", "del", host], check=True)
        self.hosts, self.processes = {}, []
        shutil.rmtree(RUN)


def port_vlans(model):
    """The untagged VLAN and the tagged VLANs of a port by its model line."""
    words = model.split()
    if words[0] == "access":
        return int(words[1]), ()
    tagged = tuple(int(vid) for vid in words[1].split(","))
    return (int(words[3]) if "native" in words else 0), tagged
