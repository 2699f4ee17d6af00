"""dhcpsnoopctl monitor: bindings are told of as they come and go, and it ends as it should."""

import json
import os
import select
import signal
import subprocess

import labtest


class Monitor(labtest.LabTest):
    def monitor(self, *arguments):
        program = self.lab.switch.command(self.lab.binary("dhcpsnoopctl"), "monitor", *arguments)
        process = subprocess.Popen(program, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.wait("connection of the monitor", lambda: os.path.exists("/run/dhcpsnoop/events") and any(
            "socket:" in os.readlink(f"/proc/{process.pid}/fd/{fd}") for fd in os.listdir(f"/proc/{process.pid}/fd")))
        return process

    def line(self, process):
        self.assertTrue(select.select([process.stdout], [], [], 20)[0], "no line from the monitor")
        return process.stdout.readline()

    def test_bindings_that_come_and_go(self):
        text, objects = self.monitor(), self.monitor("--json")
        address = self.client(self.lab.pc1).wait_lease()
        mac = "02:00:00:00:01:01"
        event = json.loads(self.line(objects))
        gateway = event["gateway"]
        self.assertEqual(event, {"event": "add", "number": 188, "interface": "swp1", "index": self.lab.switch.index("swp1"),
                                 "vlan": 10, "mac": mac, "address": address, "gateway": gateway})
        line = f"interface swp1 vlan 10 mac {mac} address {address} gateway {gateway}\n"
        self.assertEqual(self.line(text), f"add {line}")
        self.ctl(f"binding delete {address}")
        self.assertEqual(self.line(text), f"delete {line}")
        text.send_signal(signal.SIGTERM)
        objects.send_signal(signal.SIGINT)
        self.assertEqual((text.wait(), text.stderr.read(), objects.wait(), objects.stderr.read()), (0, "", 0, ""))

    def test_the_daemons_end(self):
        monitor = self.monitor()
        self.lab.stop_daemon()
        self.assertEqual(monitor.wait(), 3)
        self.assertIn("the daemon has ended", monitor.stderr.read())
        self.assertEqual(self.lab.ctl("monitor", check=False).returncode, 3)
        self.start_daemon()


labtest.main()
