"""The lab itself: scripts/lab's demonstration says what it shall, and an ended lab leaves nothing behind."""

import contextlib
import labtest
import os
import signal
import subprocess
import sys
import unittest

from lab import HERE, wait_for


class Demonstration(unittest.TestCase):
    def start(self, mode):
        """In namespaces inside the test's own, so that whatever it left would be seen here."""
        demo = subprocess.Popen([sys.executable, f"{HERE}/demo.py", labtest.BUILD, mode], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(demo.communicate)
        return demo

    def assert_nothing_left(self):
        wait_for("end of all processes", self.is_alone)
        self.assertEqual(os.listdir("/run"), [])
        self.assertFalse(os.path.exists("/tmp/dhcpsnoop.socket"))
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
                     r"10\.0\.20\.\d+ +02:00:00:00:02:01 +20 +swp2 +dynamic +bound",
                     r"  pc1 +swp1 +VLAN 10 +dhclient +2001:db8:10::",
                     r"2001:db8:120::\w+ +02:00:00:00:02:01 +20 +swp2 +dynamic +bound",
                     r" +Interface-ID: 737770313a766c616e2e3130  \(swp1:vlan\.10\)",
                     r" +Remote-ID: 7261636b2d3132  \(rack-12\)",
                     r" +Agent Circuit ID: 737770313a766c616e2e3130  \(swp1:vlan\.10\)",
                     r"The rogue server on swp5 sent 5 OFFERs and 5 ACKs to pc1; 0 arrived\.",
                     r"dropped-untrusted +10"):
            self.assertRegex(printed, f"(?m)^{line}")
        self.assert_nothing_left()

    def test_interrupted(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number.name):
                demo = self.start("shell")
                for line in demo.stdout:
                    if line.startswith("From another terminal"):
                        break
                if number == signal.SIGINT:  # a terminal sends it to all of its processes
                    for name in os.listdir("/proc"):
                        if name.isdecimal() and name != "1":
                            os.kill(int(name), number)
                else:
                    demo.send_signal(number)
                demo.wait(20)
                self.assert_nothing_left()


labtest.main()
