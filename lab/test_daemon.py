"""The configuration file brought about, what the monitor tells, and what the lab shows."""

import contextlib
import importlib.util
import fcntl
import json
import os
import re
import resource
import signal
import socket
import stat
import struct
import subprocess
import sys
import time
import unittest

import labtest

from lab import HERE, MACS, MODEL, PORTS, RUN, Process
from scapy.layers.dhcp6 import DHCP6OptIAAddress
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Ether
from wire import BOOTP, exchange, exchange6, from_client, from_server, is_dhcp


class Configuration(labtest.LabTest):
    """A bridge that the file protects. Ports have their settings by name, whenever they come."""
    model = ("bridge br0 uplink swp4", "bridge br0 guard ip mac", "interface vm* max-users 4", "interface absent max-users 6", f"journal {RUN}/journal")
    known = "False 32768 ip,mac"

    def start_daemon(self, under=()):
        self.switch.start_daemon()

    def state(self, port):
        """Trust, limit and guard of a port that snoops."""
        daemon, guard = ({row["interface"]: row for row in rows} for rows in (self.switch.show("interfaces"), self.switch.show("guard")["interfaces"]))
        return "{trust} {max-users} ".format(**daemon[port]) + ",".join(guard[port]["ip"]) if port in daemon else "none"

    def wait_state(self, port, expected):
        self.wait(f"'{expected}' of {port}", lambda: self.state(port) == expected, 30)

    def test_ports(self):
        """At no time does an OFFER of a rogue behind them arrive."""
        self.switch.run("tc", "filter", "del", "dev", "swp1", "egress", "pref", "50000")  # the lab's VLANs: pc1 is to hear everybody
        self.wait_state("swp5", self.known)
        self.switch.run("nft", "flush", "ruleset")  # as an operator does: the daemon's table is spared
        with open(f"{RUN}/anew", "w") as file:
            file.write("link del br0\nlink add br0 type bridge\nlink set br0 up\n" + "".join(f"link set {port} master br0\n" for port, _, host in PORTS if host != "core"))
        offer, pc1 = bytes(from_server("offer", MACS["pc1"], "10.0.10.66", "10.0.10.250", source_mac=MACS["rogue"])), self.endpoint("pc1")

        def offers():
            with self.lab.rogue.inside(), contextlib.suppress(OSError), socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as sender:
                sender.sendto(offer, ("eth0", 0))

        for claim, changes, port, expected in (
                ("the uplink", (), "swp4", "True 32768 exempt"),
                ("renamed into a pattern", ("switch link set swp5 down", "switch link set swp5 name vm5 up"), "vm5", "False 4 ip,mac"),
                ("gone", ("rogue link del eth0",), "vm5", "none"),
                ("there again under the same name", ("rogue link add eth0 type veth peer name vm5 netns switch", "rogue link set eth0 up",
                                                     "switch link set vm5 master br0 up"), "vm5", "False 4 ip,mac"),
                ("renamed out of the pattern", ("switch link set vm5 down", "switch link set vm5 name swp5 up"), "swp5", self.known),
                ("a new device, in a bridge made anew", ("switch link del swp5", "switch link add swp5 type veth peer name eth0 netns rogue", "rogue link set eth0 up",
                                                         "switch link set swp5 up", f"switch -batch {RUN}/anew") * 10, "swp5", self.known)):
            with self.subTest(claim), labtest.meanwhile(offers):
                for host, line in (change.split(" ", 1) for change in changes):
                    self.lab.hosts[host].ip(line)
                self.wait_state(port, expected)
                if changes[1:]:
                    self.wait("refusals", lambda: self.counts(port)["dropped-untrusted"])
        self.assertEqual([bytes(frame) for frame in pc1.drain()].count(offer), 0)
        self.ctl(f"binding add 10.0.10.77 mac {MACS['rogue']} vlan 1 interface swp5")
        self.lab.rogue.ip("link del eth0")
        self.wait("configuration by name", lambda: "77 mac 02:00:00:00:06:66 vlan 1 interface swp5\n" in self.ctl("show config"))

    def test_many_ports_at_once(self):
        """No frame waits for all of them: of the half second each took, a part. Nor when they go down and up."""
        frame, over = bytes(from_client("discover", MACS["pc1"], xid=7)), time.monotonic() + 3
        near, far, waits = self.endpoint("pc1"), self.endpoint("server"), []
        self.switch.sysctl("net/ipv6/conf/default/disable_ipv6", 1)  # or their own multicast fills the kernel's queue
        self.ctl("interface swp1 dhcp-rate off")
        with open(f"{RUN}/many", "w") as file:
            file.writelines(f"link add v{n} master br0 type veth peer name w{n}\nlink set v{n} up\nlink set w{n} up\n" for n in range(200))
            file.writelines(f"link set v{n} {state}\n" for state in ("down", "up") for n in range(200))
        coming = Process(self.switch, "many", "ip", "-batch", f"{RUN}/many")
        while coming.popen.poll() is None or time.monotonic() < over or len(self.switch.show("ports")) < 206:
            begin = time.monotonic()
            near.send(frame)
            far.receive("DISCOVER", lambda got: is_dhcp(got, "discover", xid=7))
            waits.append(time.monotonic() - begin)
        self.assertEqual((coming.popen.wait(), max(waits) < 0.6), (0, True), max(waits))

    @unittest.skipUnless(importlib.util.find_spec("prometheus_client"), "needs python3-prometheus-client")
    def test_glance(self):
        """Ports, status and numbers, the last by another program's reader of their format. 24 lines of 80 columns."""
        parser = importlib.import_module("prometheus_client.openmetrics.parser")
        self.wait_state("swp5", self.known)
        self.ctl("interface swp1 max-users 1; interface swp5 trust on; binding add 10.0.10.9 mac 02:00:00:00:00:09 vlan 10 interface swp1 --force")
        lines, guard = (self.switch.ctl(words).stdout.splitlines() for words in ("", "show guard"))
        status, swp1 = json.loads(self.ctl("status --json")), self.switch.show("ports")[0]
        values = {family.name: sum(sample.value for sample in family.samples) for family in parser.text_string_to_metric_families(self.ctl("metrics"))}
        self.assertEqual(
            "{ports} {not-saved} {attention}".format(**status) + " {interface} {bridge} {snooping} {trust} {guard} {bindings}".format(**swp1)
            + f" {values['dhcpsnoop_port_trusted']:.0f} {values['dhcpsnoop_bindings']:.0f} {len(lines) <= 24} {max(map(len, lines + guard)) <= 80}",
            "{'seen': 6, 'snooped': 6, 'trusted': 2, 'guarded': 5} 3 [] swp1 br0 both False ip,mac 1 2 1 True True")
        self.endpoint("pc1").send(Ether(src=MACS["pc1"], dst=MACS["pc2"]) / IP(src="10.0.10.77", dst="10.0.10.1") / UDP())
        self.wait("the guard's hour", lambda: [row for row in json.loads(self.ctl("status --json"))["refused-last-hour"] if row["reason"] == "guard-ipv4" and row["interface"] == "swp1"])

    def test_file(self):
        path, error = f"{self.switch.directory}/dhcpsnoop.conf", "dhcpsnoop.conf:1: there is no setting 'max-user'"
        self.switch.stop_daemon()
        self.assertEqual([name for name in ("/tmp/dhcpsnoop.socket", "/run/dhcpsnoop/control", "/run/dhcpsnoop/events", "/run/dhcpsnoop/platform") if os.path.exists(name)], [])
        self.switch.configure("interface swp5 max-user 9", *self.model)
        with open(path) as file:
            self.assertEqual((self.switch.ctl("save", check=False).returncode, file.read().splitlines()[1:]), (3, [*self.model]))
        self.switch.start_daemon()
        self.wait_state("swp5", self.known)
        self.assertRegex(self.switch.daemon.log(), f"(?s){error}.*the last good configuration, {RUN}/journal.dhcpsnoop.conf, stays in force")
        checked = self.switch.ctl(f"check {path}", check=False)
        self.assertEqual((checked.returncode, error in checked.stderr), (1, True), checked.stderr)
        self.switch.configure(*self.model, "interface swp5 max-users 9")
        before = self.switch.daemon.log().count("\n")
        self.switch.daemon.signal(signal.SIGHUP)
        self.wait_state("swp5", "False 9 ip,mac")
        self.wait("one line of the log", lambda: self.switch.daemon.log().count("\n") - before == 1)
        self.ctl("interface swp1 max-users 7")
        with open(f"{RUN}/other", "w") as file:
            file.write("bridge br0 uplink swp4\n")
        self.ctl(f"apply {RUN}/other confirm 5")
        self.assertEqual((self.state("swp5"), self.state("swp1")), ("False 32768 ", "False 32768 "))
        self.wait_state("swp5", "False 9 ip,mac")
        self.assertEqual(self.state("swp1"), "False 7 ip,mac")
        for tenths in (*range(4), 20):  # of a second, until the client is killed
            killed = Process(self.switch, "apply", self.switch.binary("dhcpsnoopctl"), "apply", f"{RUN}/other", "confirm", "1")
            time.sleep(tenths / 10)
            killed.kill()
        self.wait("the earlier settings", lambda: self.switch.daemon.log().count("not confirmed in time") > 1)
        self.wait_state("swp1", "False 7 ip,mac")
        self.ctl("save")
        with open(path) as file:
            self.assertEqual(file.read().splitlines(), [*self.model, "interface swp5 max-users 9", "interface swp1 max-users 7"])
        self.ctl(f"apply {RUN}/other confirm 2")
        self.ctl("confirm")
        time.sleep(2.5)
        self.assertEqual(self.state("swp1"), "False 32768 ")
        self.ctl("rollback")
        self.assertEqual(self.state("swp1"), "False 7 ip,mac")
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k", "none", self.switch.directory], check=True)  # room for one file
        self.addCleanup(subprocess.run, ["umount", self.switch.directory])
        self.switch.configure(*self.model)
        full = self.switch.ctl("save", check=False)
        with open(path) as file:
            self.assertEqual((full.returncode, full.stderr, file.read().splitlines(), os.listdir(self.switch.directory)),
                             (1, f"dhcpsnoopctl: {path}: No space left on device; nothing was changed\n", [*self.model], ["dhcpsnoop.conf"]))


class Refusals(labtest.LabTest):
    model = (*MODEL, "bindings 1")

    def test_no_room(self):
        """The second client gets no address, and the operator learns why."""
        exchange(self.endpoint("pc1"), MACS["pc1"])
        self.assertEqual(self.outcome("pc2", from_client("request", MACS["pc2"], ("requested_addr", "10.0.20.99"), xid=7)), "")
        self.wait("a refusal", lambda: self.switch.show("refusals"))
        self.assertEqual(["{reason} {interface} {total} {last-hour}".format(**row) for row in self.switch.show("refusals")], ["bindings-full swp2 1 1"])
        self.assertIn("swp2: the table of bindings is full: raise 'bindings N'", self.switch.daemon.log())


class Bindings(labtest.LabTest):
    def test_at_one_moment(self):
        """A file that nobody can change, with all that a walk from binding to binding finds."""
        exchange(self.endpoint("pc1"), MACS["pc1"])
        self.ctl("binding add 10.0.10.99 unbound")
        self.ctl("binding add 2001:db8::7 mac 02:00:00:00:00:07 vlan 10 interface swp1 attribute 5")
        text, file = self.ask(b"bindings")
        self.assertEqual((text, struct.unpack("4I", file[0]), file[1], file[2] & 15), ("ok", (1, 24, 44, 3), 24 + 3 * 44, 15))
        walk = self.switch.run("env", "DHCPSNOOP_PLATFORM_SOCKET=/absent", self.switch.binary("dhcpsnoopctl"), "show", "bindings", "--json")
        lists = [[row | {"elapsed": row["elapsed"] < 9, "left": row["left"] and 0} for row in rows] for rows in (self.switch.show("bindings"), json.loads(walk.stdout))]
        self.assertEqual(*lists)

        for claim, words, outcome in (
                ("prefix", "10.0.10.0/24", "24+2*44: 2"), ("of the other family", "::/0", "24+1*44: 1"), ("ports and VLANs", "interface swp1,x* vlan 9-10", "24+2*44: 2"),
                ("MAC, in words cut short", "ma 02:00:*:07", "24+1*44: 1"), ("MAC with dots", "mac 0200.*.0007", "24+1*44: 1"), ("two addresses", "::1 address ::2", "a binding has one address, and there are two: ::1 and ::2"), ("type and state", "type static state bound", "24+1*44: 1"),
                ("number", "--count type static", "24+0*44: 2"), ("none", "state waiting", "24+0*44: 0"), ("number of all", "--count", "24+0*44: 3"),
                ("no word", "mac 02:* vla", "'vla' lacks its value"), ("number elsewhere", "vlan 10 --count", "bindings cannot be chosen by '--count' (say an address or prefix; or interface, vlan, mac, type or state, and its value)"),
                ("wrong value", "10.0.10.0/33", "prefix length must be a number from 0 to 32, not '33'"),
                ("long pattern", "mac " + 65 * "*", "a pattern of MAC addresses has at most 64 characters, not 65"),
                ("most bytes", "interface " + 2026 * "x", f"'{2026 * 'x'}' is longer than a device name can be (15)"),
                ("too many bytes", "interface " + 2028 * "x", "the request has 2049 bytes, and may have 2048")):
            with self.subTest(claim):
                text, file = self.ask(b"bindings 1\0" + words.replace(" ", "\0").encode())
                self.assertEqual(f"24+{(file[1] - 24) // 44}*44: {struct.unpack('4I', file[0])[3]}" if file else text, outcome)
        for request in (b"", b"bindings 2\0vlan\x0010", b"bindings vlan 10"):
            self.assertEqual(self.ask(request)[0], "unknown request" if request else "")
        self.assertEqual(self.switch.run(self.switch.binary("dhcpsnoopctl"), "show", "bindings", "vlan", "10", "--count").stdout, "2\n")

    def ask(self, request):
        """Text of the answer; and of a file its header, size and seals."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            client.connect("/run/dhcpsnoop/platform.bindings")
            client.send(request)
            text, files, *_ = socket.recv_fds(client, 4096, 1)
        return text.decode(), [(os.pread(file, 16, 0), os.fstat(file).st_size, fcntl.fcntl(file, fcntl.F_GET_SEALS)) for file in files][0] if files else None


class Commands(labtest.LabTest):
    def test_name_in_tmp(self):
        """Whatever stands there is another's: it stays and stops nothing, one line tells of it, and nobody believes it."""
        name, real = "/tmp/dhcpsnoop.socket", "/run/dhcpsnoop/control"
        self.assertEqual([stat.filemode(os.lstat(path).st_mode) for path in (name, real)], ["srw-------"] * 2)
        self.switch.daemon.kill()  # its own are left, and are replaced

        def listen():
            impostor = self.enterContext(socket.socket(socket.AF_UNIX))
            impostor.bind(name)
            impostor.listen()
            os.chown(name, 65534, 65534)

        for make, lines in ((lambda: None, 0), (lambda: os.mkdir(name), 1), (lambda: os.mknod(name), 1), (lambda: os.mkfifo(name), 1), (lambda: os.symlink(f"{RUN}/victim", name), 1), (listen, 1)):
            make()
            before = os.lstat(name)
            self.start_daemon()
            self.assertEqual((self.switch.daemon.log().count(f"alone: {name}: Address already in use\n"), self.switch.daemon.log().count(name)), (lines, lines))
            self.switch.stop_daemon()
            self.assertEqual((os.path.lexists(name) and os.lstat(name).st_ino == before.st_ino, os.path.exists(real), os.path.exists(f"{RUN}/victim")), (bool(lines), False, False))
            self.assertIn(f"no daemon is listening on {real}", self.switch.ctl("show interfaces", check=False).stderr)
            if lines:
                os.rename(name, f"/tmp/{before.st_ino}")
        self.start_daemon()

    def test_stalled(self):
        """Clients that say nothing or half of it delay no frame and no other client, and are closed after a second. Nor are there
        more of them than the daemon has descriptors for."""
        def ask(request, connections=1):
            for client in (clients := [socket.socket(socket.AF_UNIX) for _ in range(connections)]):
                self.addCleanup(client.close)
                client.connect("/run/dhcpsnoop/control")
                client.send(request)
            return clients

        def answer(client):
            with contextlib.suppress(ConnectionResetError):
                return client.recv(4096, socket.MSG_WAITALL).hex(" ", 4)
            return "reset"

        silent, frame, near, far, waits = ask(b"\7\0", 400), bytes(from_client("discover", MACS["pc1"], xid=7)), self.endpoint("pc1"), self.endpoint("server"), []
        for _ in range(100):
            begin = time.monotonic()
            near.send(frame)
            far.receive("DISCOVER", lambda got: is_dhcp(got, xid=7))
            waits.append(time.monotonic() - begin)
        self.ctl("show interfaces")
        self.assertEqual((max(waits) < 0.3, {answer(client) for client in silent}, time.monotonic() - begin < 3), (True, {""}, True), max(waits))
        for claim, pieces, outcome in (
                ("in pieces", (b"\x19\0\0", b"\0" + bytes(24), b"\0"), "00000000"), ("an empty one", (bytes(4),), "1600" + " 00000000" * 6),
                ("too long", (b"\xf1\5\0\0",), ""), ("the largest length", (b"\xff" * 4,), "")):
            with self.subTest(claim):
                client, = ask(pieces[0])
                for piece in pieces[1:]:
                    time.sleep(0.05)
                    client.send(piece)
                client.shutdown(socket.SHUT_WR)
                self.assertEqual(answer(client), outcome)
        pid = self.switch.daemon.popen.pid
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (max(map(int, os.listdir(f"/proc/{pid}/fd"))) + 1, 4096))
        begin, waiting = self.processor_time(pid), ask(bytes(4), 20)
        time.sleep(1)
        self.assertLess(self.processor_time(pid) - begin, 30, "hundredths of a second")
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (1024, 4096))
        self.assertEqual({len(answer(client)) for client in waiting}, {58})

    def test_too_few_descriptors(self):
        self.switch.stop_daemon()
        daemon = Process(self.switch, "limited", "prlimit", "--nofile=64", self.switch.binary("dhcpsnoop"), "--config", self.switch.directory)
        self.assertEqual((daemon.popen.wait(10), daemon.log()), (1, "dhcpsnoop: 64 open files are allowed and the daemon needs 128: raise the limit (ulimit -n, LimitNOFILE)\n"))
        self.start_daemon()

    def processor_time(self, pid):
        with open(f"/proc/{pid}/stat") as file:
            return sum(map(int, file.read().split()[13:15]))


class Monitor(labtest.LabTest):
    def test_monitor(self):
        """Bindings are told of as they come and go; it ends with the daemon, or when it is asked to."""
        text, objects, to_the_end = monitors = [
            Process(self.switch, f"monitor{number}", self.switch.binary("dhcpsnoopctl"), "monitor", *words)
            for number, words in enumerate(((), ("--json", "interface", "swp1"), ()))]
        self.wait("connection of the monitors", lambda: self.switch.run(
            "grep", "-c", "/run/dhcpsnoop/events", "/proc/net/unix", check=False).stdout == f"{1 + len(monitors)}\n")
        mac = MACS["pc1"]
        address = [exchange(self.endpoint("pc1"), mac)[BOOTP].yiaddr for _ in range(2)][1]
        self.ctl(f"binding delete {address}")
        self.wait("events", lambda: all("delete" in monitor.log() for monitor in monitors))
        objects.signal(signal.SIGINT)
        self.assertEqual((text.stop(), objects.popen.wait()), (0, 0))
        self.switch.stop_daemon()
        self.assertEqual(to_the_end.popen.wait(), 3)
        line = f"interface swp1 vlan 10 mac {mac} address {address} gateway 10.0.10.1 family ipv4 type dynamic\n"
        self.assertEqual(re.sub(r"(?m)^[\d:]{8} ", "", text.log()), f"add {line}renew {line}delete {line}")
        self.assertRegex(to_the_end.log(), f"(?s)add {line}.*renew {line}.*delete {line}.*the daemon has ended.*\n$")
        event = json.loads(objects.log().splitlines()[0])
        self.assertRegex(event.pop("time"), r"^[\d-]+T[\d:]+\+\d{4}$")
        self.assertEqual(event, {
            "event": "add", "number": 188, "interface": "swp1", "index": self.switch.index("swp1"), "vlan": 10, "mac": mac,
            "address": address, "gateway": "10.0.10.1", "family": "ipv4", "type": "dynamic"})

    def test_not_announced(self):
        """An IPv6 lease and one without a gateway are found by comparison; each change is told once."""
        monitor = Process(self.switch, "monitor", self.switch.binary("dhcpsnoopctl"), "monitor")
        self.addCleanup(monitor.stop)
        for port, family, lease in (("pc1", "ipv6", lambda: exchange6(self.endpoint("pc1"), MACS["pc1"])[DHCP6OptIAAddress].addr),
                                    ("pc2", "ipv4", lambda: exchange(self.endpoint("pc2"), MACS["pc2"], ("param_req_list", [1]))[BOOTP].yiaddr)):
            address = lease()
            self.wait("an addition", lambda: re.search(f"add .*{address} ", monitor.log()))
            self.wait("a renewal", lambda: lease() and re.search(f"renew .*{address} ", monitor.log()))
            self.ctl(f"binding delete {address}")
            self.wait("a deletion", lambda: re.search(f"delete .*{address} ", monitor.log()))
            line = rf"interface swp{port[2]} vlan \d+ mac {MACS[port]} address {address} family {family} type dynamic\n"
            text = "".join(line[9:] for line in monitor.log().splitlines(True) if address in line)
            self.assertRegex(text, f"^add {line}(renew {line})+delete {line}$")


class Demonstration(unittest.TestCase):
    def test_demo(self):
        demo = subprocess.run([sys.executable, f"{HERE}/demo.py", labtest.BUILD, "demo"], text=True, timeout=300,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(demo.returncode, 0, demo.stdout)
        for line in (r"  pc1 +swp1 +VLAN 10 +udhcpc +10\.0\.10\.\d+ +from 10\.0\.10\.1, 120 s",
                     r"  pc3 +swp7 +VLAN 30, relayed +udhcpc +10\.0\.30\.\d+ +from 192\.0\.2\.1[12], 120 s",
                     r"2001:db8:120::\w+ +02:00:00:00:02:01 +20 +swp2 +dynamic +bound",
                     r" +Interface-ID: 737770313a766c616e2e3130  \(swp1:vlan\.10\)",
                     r" +Agent Circuit ID: 737770313a766c616e2e3130  \(swp1:vlan\.10\)",
                     r"The rogue server on swp5 sent 5 OFFERs and 5 ACKs to pc1; 0 arrived\."):
            self.assertRegex(demo.stdout, f"(?m)^{line}")


labtest.main()
