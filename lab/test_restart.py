"""The daemon's end, however it comes: what it trapped stays trapped, the next start goes on from there."""

import labtest
import signal

from lab import MACS, RELAY_ADDRESS, RELAY_SERVERS, ROOT
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
