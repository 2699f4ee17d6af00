"""A flood of DHCP messages at one port: hosts at other ports, and clients of that port that have a binding, notice nothing."""

import json
import random
import subprocess
import sys
import time

import labtest

from lab import HERE, MACS
from wire import exchange, exchange6, from_client, from_server, from_server6, tagged

PC1, ROGUE = MACS["pc1"], MACS["rogue"]
TRIES = 3  # a busy machine may let the flood rest for longer than the burst lasts, and the tokens of that time are lost


def strange():
    return "02:ff:" + ":".join(f"{random.getrandbits(8):02x}" for _ in range(4))


def replies():
    """A rogue server's, of both families, which nobody answers."""
    return [frame for _ in range(10) for frame in (from_server("offer", strange(), "10.0.10.66", "10.0.10.250", source_mac=strange()),
                                                   from_server6("advertise", strange(), source_mac=strange()))]


class Floods(labtest.LabTest):
    """From swp5, with a priority tag and without."""

    def flood(self, seconds, *frames):
        frames = [*frames, *(tagged(frame, 0) for frame in frames)]
        process = subprocess.Popen(self.lab.rogue.command(sys.executable, f"{HERE}/flood.py", "eth0", str(seconds)), stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, text=True)
        process.stdin.write("".join(f"{bytes(frame).hex()}\n" for frame in frames))
        process.stdin.close()
        process.stdin = None
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)  # which comes first
        return process

    def counted(self):
        """Frames that the daemon was handed, and those that were beyond a limit."""
        families = json.loads(self.ctl("metrics --json"))
        beyond = {row["interface"]: row["value"] for row in families["dhcpsnoop_guard_refused_packets"] if row["reason"] == "rate"}
        self.assertEqual({port for port, count in beyond.items() if count} - {"swp5"}, set())
        return families["dhcpsnoop_frames"][0]["value"], beyond["swp5"]

    def test_a_limit_is_kept(self):
        for rate, burst, seconds in ((2000, 2000, 1.5), (256, 256, 1.5)):  # a second's tokens
            with self.subTest(rate):
                for _ in range(TRIES):
                    self.ctl("interface swp5 dhcp-rate off")  # and on again: the bucket is full
                    self.ctl(f"interface swp5 dhcp-rate {rate} burst {burst}")
                    passed, beyond = self.counted()
                    sent, took = map(float, self.flood(seconds, *replies()).communicate()[0].split())
                    passed, beyond = (after - before for after, before in zip(self.counted(), (passed, beyond)))
                    share = passed / (rate * took + burst)
                    print(f"{sent / took:.0f} frames a second, limit {rate}: {share - 1:+.2%}", file=sys.stderr)
                    self.assertEqual(passed + beyond, sent)
                    self.assertLess(share, 1.02)
                    if share > 0.98:
                        break
                else:
                    self.fail("too few passed")

    def test_others_are_served(self):
        pc1, known = self.endpoint("pc1"), self.endpoint("rogue")
        exchange(known, ROGUE)
        flood, times = self.flood(5, *replies(), *(from_client("discover", mac) for mac in (PC1, *(strange() for _ in range(20))))), []
        time.sleep(1.5)  # within which all bindings are looked at
        for _ in range(20):
            for endpoint, mac in ((pc1, PC1), (known, ROGUE)):
                begin = time.monotonic()
                exchange(endpoint, mac)
                exchange6(endpoint, mac)
                times.append(time.monotonic() - begin)
        self.assertIsNone(flood.poll(), "the flood was over")
        self.assertLess(max(times), 1)
        self.assertGreater(self.counted()[1], 10000)
        self.wait("refusals", lambda: ("dhcp-rate", "swp5") in {(row["reason"], row["interface"]) for row in self.switch.show("refusals")})
        self.assertIn("find the host that floods", self.switch.daemon.log())

    def limit(self, port):
        shown = self.switch.show(f"interface {port}")["dhcp-rate"]
        return "{rate} {burst} {reserved} {default}".format(**shown)

    def test_settings(self):
        """A default follows the trust; a limit that is set stays, over a restart too, until the file says otherwise."""
        self.assertEqual([self.limit(port) for port in ("swp5", "swp4")], ["256 128 128 True", "None 0 0 True"])
        self.ctl("interface swp5 trust on; interface swp4 trust off")
        self.assertEqual([self.limit(port) for port in ("swp5", "swp4")], ["None 0 0 True", "256 128 128 True"])
        self.ctl("interface swp5 dhcp-rate 1000 burst 64 trust off; interface swp4 dhcp-rate off")
        self.assertEqual([self.limit(port) for port in ("swp5", "swp4")], ["1000 64 128 False", "None 0 0 False"])
        for line, said in (("interface swp5 dhcp-rate 10 burst 63", "hands over so many frames at once"), ("interface br0 dhcp-rate 10", "no port of the switch")):
            done = self.switch.ctl(line, check=False)
            self.assertTrue(done.returncode and said in done.stderr, done.stderr)
        self.assertIn("interface swp5 dhcp-rate 1000 burst 64 reserved 128\n", self.ctl("show config"))
        self.assertRegex(self.ctl("show config --effective interface swp5"), "dhcp-rate +1000 burst 64 reserved 128 +command, not saved")
        self.switch.daemon.kill()
        self.start_daemon()
        self.assertEqual(self.limit("swp5"), "256 128 128 True", "the file says nothing of it")
        self.ctl("interface swp5 dhcp-rate 1000 burst 64; save; interface swp5 dhcp-rate default")
        self.assertEqual(self.limit("swp5"), "256 128 128 True")
        self.ctl("rollback")
        self.assertEqual(self.limit("swp5"), "1000 64 128 False")


labtest.main()
