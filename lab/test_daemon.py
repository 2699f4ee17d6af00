"""What the monitor tells, and what the lab shows."""

import json
import signal
import subprocess
import sys
import unittest

import labtest

from lab import HERE, MACS, Process
from wire import BOOTP, exchange


class Monitor(labtest.LabTest):
    def test_monitor(self):
        """Bindings are told of as they come and go; it ends with the daemon, or when it is asked to."""
        text, objects, to_the_end = monitors = [
            Process(self.switch, f"monitor{number}", self.switch.binary("dhcpsnoopctl"), "monitor", *words)
            for number, words in enumerate(((), ("--json",), ()))]
        self.wait("connection of the monitors", lambda: self.switch.run(
            "grep", "-c", "/run/dhcpsnoop/events", "/proc/net/unix", check=False).stdout == f"{1 + len(monitors)}\n")
        mac = MACS["pc1"]
        address = exchange(self.endpoint("pc1"), mac)[BOOTP].yiaddr
        self.ctl(f"binding delete {address}")
        self.wait("events", lambda: all("delete" in monitor.log() for monitor in monitors))
        objects.signal(signal.SIGINT)
        self.assertEqual((text.stop(), objects.popen.wait()), (0, 0))
        self.switch.stop_daemon()
        self.assertEqual(to_the_end.popen.wait(), 3)
        line = f"interface swp1 vlan 10 mac {mac} address {address} gateway 10.0.10.1\n"
        self.assertEqual(text.log(), f"add {line}delete {line}")
        self.assertRegex(to_the_end.log(), f"^add {line}delete {line}.*the daemon has ended.*\n$")
        self.assertEqual(json.loads(objects.log().splitlines()[0]), {
            "event": "add", "number": 188, "interface": "swp1", "index": self.switch.index("swp1"), "vlan": 10, "mac": mac,
            "address": address, "gateway": "10.0.10.1"})


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
