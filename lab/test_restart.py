"""The daemon's end, however it comes: what it trapped stays trapped, the next start goes on from there."""

import labtest
import signal

from lab import MACS, RELAY_ADDRESS, RELAY_SERVERS, ROOT, RUN, Process, wait_for
from wire import exchange, from_client, is_dhcp


class Restart(labtest.LabTest):
    def passes(self):
        """Does a DISCOVER of pc1 reach the rogue host, as it does through a bridge that nobody guards?"""
        rogue, pc1 = self.endpoint(self.lab.rogue), self.endpoint(self.lab.pc1)
        pc1.send(from_client("discover", MACS["pc1"], xid=1))
        # Not DHCP, so it always passes; it cannot overtake.
        pc1.send(bytes.fromhex("ffffffffffff" + MACS["pc1"].replace(":", "") + "88b5") + bytes(46))
        seen = []
        rogue.receive("marker", lambda frame: seen.append(is_dhcp(frame, xid=1, op=1)) or frame.type == 0x88B5)
        return any(seen)

    def test_killed(self):
        """It fails closed: without the daemon no DHCP passes; with the next one leases go on."""
        self.assertFalse(self.passes())
        self.daemon.signal(signal.SIGKILL)
        self.daemon.popen.wait()
        self.assertFalse(self.passes())
        self.start_daemon()
        exchange(self.endpoint(self.lab.pc1), MACS["pc1"])

    def test_settings(self):
        """What was saved is made again by a `load` that waits for the daemon and a port."""
        for setting in ("option82 on", "circuit-id template %s.%c"):
            self.ctl(f"interface swp1 {setting}")
        self.ctl("interface swp2 max-users 7")
        config = self.ctl("show config")
        with open(f"{RUN}/settings", "w") as file:
            file.write(config)
        self.lab.stop_daemon()
        self.assertEqual(self.lab.ctl("load", f"{RUN}/settings", check=False).returncode, 3)
        load = Process(self.lab.switch, "load", self.lab.binary("dhcpsnoopctl"), "load", f"{RUN}/settings", "wait", "20")
        self.addCleanup(load.stop)
        self.lab.switch.ip("link set swp2 down")
        self.lab.switch.ip("link set swp2 name later")
        self.daemon = self.lab.start_daemon(*self.daemon_arguments)
        wait_for("the other settings", lambda: "interface swp1" in self.ctl("show config"))
        self.assertNotIn("swp2", self.ctl("show config"))
        self.lab.switch.ip("link set later name swp2")
        self.lab.switch.ip("link set swp2 up")
        self.assertEqual(load.popen.wait(20), 0, load.log())
        self.assertEqual(self.ctl("show config"), config)

    def test_release(self):
        """`platform release` gives the ports back to the kernel."""
        self.lab.stop_daemon()
        self.assertFalse(self.passes())
        self.ctl("platform release")
        self.assertTrue(self.passes())

    def test_snooping_off(self):
        self.ctl("interface swp1 snooping off")
        self.assertTrue(self.passes())
        self.ctl("interface swp1 snooping on")
        self.assertFalse(self.passes())


class Confined(labtest.LabTest):
    def start_daemon(self):
        """With the capabilities that its systemd unit leaves it."""
        with open(f"{ROOT}/packaging/dhcpsnoop.service") as unit:
            (names,) = [line.split("=")[1] for line in unit if line.startswith("CapabilityBoundingSet=")]
        left = ",".join("+" + name.removeprefix("CAP_").lower() for name in names.split())
        super().start_daemon(under=("setpriv", "--no-new-privs", f"--bounding-set=-all,{left}"))

    def test_lease(self):
        """Packet sockets, traps and the relay socket: all that needs a privilege."""
        exchange(self.endpoint(self.lab.pc1), MACS["pc1"])
        self.ctl(f"interface swp7 relay-address {RELAY_ADDRESS}")
        self.ctl(f"interface swp7 relay-server {RELAY_SERVERS['relay1']} add")
        exchange(self.endpoint(self.lab.pc3), MACS["pc3"])
        self.assertEqual({binding["state"] for binding in self.bindings().values()}, {"bound"})


labtest.main()
