"""The programs from outside: how they end, however that comes; what they refuse; what the monitor tells; what the lab shows."""

import contextlib
import json
import os
import re
import select
import signal
import subprocess
import sys
import unittest

import labtest

from lab import HERE, MACS, RELAY_ADDRESS, RELAY_SERVERS, ROOT, RUN, SOCKET, SWITCH_CONF, Process
from wire import exchange, from_client

NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--inh-caps=-all")


class Ends(labtest.LabTest):
    def passes(self):
        """Does a DISCOVER reach pc1's neighbour, as it does through a bridge that nobody guards?"""
        with self.endpoint("rogue") as rogue, self.endpoint("pc1") as pc1:
            discover = bytes(from_client("discover", MACS["pc1"], xid=1))
            pc1.send(discover, discover[:12] + b"\x88\xb6" + bytes(46))  # the second always passes, and cannot overtake
            seen = []
            rogue.receive("marker", lambda frame: seen.append(bytes(frame)) or frame.type == 0x88B6)
        return discover in seen

    def test_closed(self):
        """Without the daemon no DHCP passes; with the next one leases go on; ports that are given back are open."""
        passes = [self.passes()]
        self.kill_daemon()
        passes.append(self.passes())
        self.start_daemon()
        exchange(self.endpoint("pc1"), MACS["pc1"])
        for command in ("interface swp1 snooping off", "interface swp1 snooping on"):
            self.ctl(command)
            passes.append(self.passes())
        self.lab.stop_daemon()
        passes.append(self.passes())
        self.ctl("platform release")
        self.assertEqual([*passes, self.passes()], [False, False, True, False, False, True])

    def test_settings(self):
        """A `load` that waits for the daemon and a port makes the saved settings again."""
        self.ctl("interface swp1 option82 on; interface swp1 circuit-id template %s.%c; interface swp2 max-users 7")
        config = self.ctl("show config")
        with open(f"{RUN}/settings", "w") as file:
            file.write(config)
        self.lab.stop_daemon()
        self.assertEqual(self.lab.ctl("load", f"{RUN}/settings", check=False).returncode, 3)
        load = Process(self.lab.switch, "load", self.lab.binary("dhcpsnoopctl"), "load", f"{RUN}/settings", "wait", "20")
        self.addCleanup(load.stop)
        for change in ("swp2 down", "swp2 name later"):
            self.lab.switch.ip(f"link set {change}")
        self.daemon = self.lab.start_daemon()
        self.wait("the other settings", lambda: "interface swp1" in self.ctl("show config"))
        self.assertNotIn("swp2", self.ctl("show config"))
        for change in ("later name swp2", "swp2 up"):
            self.lab.switch.ip(f"link set {change}")
        self.assertEqual(load.popen.wait(20), 0, load.log())
        self.assertEqual(self.ctl("show config"), config)

    def test_confined(self):
        """With the capabilities that its systemd unit leaves it: packet sockets, traps and the relay socket."""
        self.lab.stop_daemon()
        with open(f"{ROOT}/packaging/dhcpsnoop.service") as unit:
            names = re.search(r"CapabilityBoundingSet=(.*)", unit.read())[1].split()
        left = ",".join("+" + name.removeprefix("CAP_").lower() for name in names)
        self.start_daemon(under=("setpriv", "--no-new-privs", f"--bounding-set=-all,{left}"))
        self.ctl(f"interface swp7 relay-address {RELAY_ADDRESS}; interface swp7 relay-server {RELAY_SERVERS['relay1']} add")
        for host in ("pc1", "pc3"):
            exchange(self.endpoint(host), MACS[host])
        self.assertEqual({binding["state"] for binding in self.bindings().values()}, {"bound"})

    def monitor(self, *arguments):
        program = self.lab.switch.command(self.lab.binary("dhcpsnoopctl"), "monitor", *arguments)
        process = subprocess.Popen(program, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        self.wait("connection of the monitor", lambda: os.path.exists("/run/dhcpsnoop/events") and any(
            "socket:" in os.readlink(f"/proc/{process.pid}/fd/{fd}") for fd in os.listdir(f"/proc/{process.pid}/fd")))
        return process

    def line(self, process):
        self.assertTrue(select.select([process.stdout], [], [], 20)[0], "no line from the monitor")
        return process.stdout.readline()

    def test_monitor(self):
        """Bindings are told of as they come and go; it ends with the daemon, or when it is asked to."""
        text, objects, to_the_end = self.monitor(), self.monitor("--json"), self.monitor()
        address, mac = self.client("pc1").wait_lease(), MACS["pc1"]
        event = json.loads(self.line(objects))
        self.assertEqual(event, {"event": "add", "number": 188, "interface": "swp1", "index": self.lab.switch.index("swp1"),
                                 "vlan": 10, "mac": mac, "address": address, "gateway": event["gateway"]})
        line = f"interface swp1 vlan 10 mac {mac} address {address} gateway {event['gateway']}\n"
        self.assertEqual(self.line(text), f"add {line}")
        self.ctl(f"binding delete {address}")
        self.assertEqual(self.line(text), f"delete {line}")
        text.send_signal(signal.SIGTERM)
        objects.send_signal(signal.SIGINT)
        self.assertEqual((text.wait(), text.stderr.read(), objects.wait(), objects.stderr.read()), (0, "", 0, ""))
        self.lab.stop_daemon()
        self.assertEqual((to_the_end.wait(), "the daemon has ended" in to_the_end.stderr.read()), (3, True))


class Refused(labtest.LabTest):
    def test_client(self):
        """Exit status and message, on standard error; nothing changes."""
        before = self.ctl("show interfaces")
        for claim, words, status, text in (
                ("a setting that needs another", "interface swp1 circuit-id text door", 1, "option82 on"),
                ("an interface without snooping", "interface br0 trust on", 1, "snooping on"),
                ("an unknown port", "interface swp99 snooping on", 2, "swp99"),
                ("not root", f"{' '.join(NOBODY)} {self.lab.binary('dhcpsnoopctl')} show bindings", 3, "root"),
                ("no daemon", "show bindings", 3, SOCKET),
                ("nor a socket", "show bindings", 3, SOCKET)):
            with self.subTest(claim):
                if claim == "no daemon":
                    self.assertEqual(self.ctl("show interfaces"), before)
                    self.lab.stop_daemon()
                if claim == "nor a socket":
                    os.unlink(SOCKET)
                program = () if claim == "not root" else (self.lab.binary("dhcpsnoopctl"),)
                done = self.lab.switch.run(*program, *words.split(), check=False)
                self.assertEqual((done.returncode, done.stdout, text in done.stderr), (status, "", True), done.stderr)

    def test_start(self):
        """The daemon's exit status and what it printed; where no other may serve its socket, a service manager sees it."""
        self.lab.stop_daemon()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(SOCKET)
        with open(f"{RUN}/bad.conf", "w") as conf:
            conf.write("port swp0 access 1\nport swp1 access 4095\n")
        for claim, under, conf, status, text in (
                ("a wrong line", (), f"{RUN}/bad.conf", os.EX_CONFIG, f"{RUN}/bad.conf:2: .*4095"),
                ("a directory", (), RUN, os.EX_CONFIG, RUN),
                ("not root", NOBODY, "/nonexistent", 1, "CAP_NET_RAW"),
                ("a socket that is taken", (), SWITCH_CONF, 1,
                 "Bind cmd_socket failed!\\s*: Address already in use\n.*start-up failed, the daemon ends")):
            with self.subTest(claim):
                if claim == "a socket that is taken":
                    os.mkdir(SOCKET)
                    self.addCleanup(os.rmdir, SOCKET)
                done = self.lab.switch.run(*under, self.lab.binary("dhcpsnoop"), check=False, timeout=20,
                                           env={**os.environ, "DHCPSNOOP_SWITCH_CONF": conf})
                self.assertRegex(done.stdout + done.stderr, text)
                self.assertEqual(done.returncode, status)


class Demonstration(unittest.TestCase):
    """scripts/lab, in namespaces inside the test's own, so that whatever it left would be seen here."""

    def start(self, mode):
        demo = subprocess.Popen([sys.executable, f"{HERE}/demo.py", labtest.BUILD, mode], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(demo.communicate)
        return demo

    def assert_nothing_left(self):
        labtest.wait_for("end of all processes", self.is_alone)
        self.assertEqual((os.listdir("/run"), os.path.exists("/tmp/dhcpsnoop.socket")), ([], False))
        links = subprocess.run(["ip", "-o", "link"], capture_output=True, text=True, check=True).stdout
        self.assertEqual(len(links.splitlines()), 1, links)  # lo

    def is_alone(self):
        """Process 1 is this test: what the demonstration orphaned became its child."""
        with contextlib.suppress(ChildProcessError):
            os.waitpid(-1, os.WNOHANG)
        return [name for name in os.listdir("/proc") if name.isdecimal()] == ["1"]

    def test_demo(self):
        demo = self.start("demo")
        printed, _ = demo.communicate(timeout=300)
        self.assertEqual(demo.returncode, 0, printed)
        for line in (r"  pc1 +swp1 +VLAN 10 +udhcpc +10\.0\.10\.\d+ +from 10\.0\.10\.1, 120 s",
                     r"  pc3 +swp7 +VLAN 30, relayed +udhcpc +10\.0\.30\.\d+ +from 192\.0\.2\.1[12], 120 s",
                     r"2001:db8:120::\w+ +02:00:00:00:02:01 +20 +swp2 +dynamic +bound",
                     r" +Interface-ID: 737770313a766c616e2e3130  \(swp1:vlan\.10\)",
                     r" +Agent Circuit ID: 737770313a766c616e2e3130  \(swp1:vlan\.10\)",
                     r"The rogue server on swp5 sent 5 OFFERs and 5 ACKs to pc1; 0 arrived\."):
            self.assertRegex(printed, f"(?m)^{line}")
        self.assert_nothing_left()

    def test_interrupted(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number.name):
                demo = self.start("shell")
                next(line for line in demo.stdout if line.startswith("From another terminal"))
                # A terminal sends the first to all of its processes.
                for pid in [name for name in os.listdir("/proc") if name.isdecimal() and name != "1"] if number == signal.SIGINT else [demo.pid]:
                    os.kill(int(pid), number)
                demo.wait(20)
                self.assert_nothing_left()


labtest.main()
