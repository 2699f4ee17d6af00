"""Two control units, and a restart, lose no binding. LAB_RESTARTS sets how often a unit is killed (5)."""

import glob
import os
import random
import signal
import subprocess
import time
import unittest

import labtest

from lab import RUN, Failure, wait_for
from units import PEERS, Pair, Traffic

SETTINGS = ("interface swp1 snooping on", "interface swp2 snooping on", "interface swp2 trust on", "interface swp1 max-users 1000")
JOURNAL = f"{RUN}/journal"


class Redundancy(unittest.TestCase):
    def setUp(self):
        self.pair, self.traffic = Pair(labtest.BUILD), Traffic()
        self.addCleanup(self.pair.stop)
        self.left, self.right = self.pair.left, self.pair.right

    def assert_complete(self, unit, until=None):
        """Every binding that was acknowledged a second before `until`, or now, is there. Of later ones, those that are not
        are forgotten."""
        until = until or time.monotonic()

        def missing():
            bindings = unit.bindings()
            return {address for address, (mac, _) in self.traffic.acknowledged.items() if bindings.get(address) != (mac, "swp1", 10)}

        # A daemon that was just started has the journal's bindings a moment later.
        wait_for("bindings", lambda: all(self.traffic.acknowledged[address][1] >= until - 1 for address in missing()), 5)
        for address in missing():
            del self.traffic.acknowledged[address]

    def assert_enforced(self, unit):
        """Every bound host gets through, a forged address does not."""
        bound = [number for number, frame in enumerate(self.traffic.frames) if frame[1] in self.traffic.acknowledged]
        packets = [self.traffic.packet(number) for number in bound] + [self.traffic.packet(number, "10.0.10.250") for number in (0, 1)]
        self.assertEqual(self.traffic.arrive(*unit.ends, packets), [self.traffic.frames[number][1] for number in bound])

    def wait_state(self, unit, key, value):
        wait_for(f"{key} {value} of {unit.name}", lambda: unit.state(key) == value, 60)

    def start(self, left="master", journal="off", **options):
        for unit, role in ((self.left, left), (self.right, "slave")):
            unit.prepare(role, journal if unit is self.left else "off", PEERS[unit.name][2], **options)
            unit.start(*SETTINGS)
        for unit in (self.left, self.right):
            self.wait_state(unit, "link", "up")

    def wait_equal(self):
        wait_for("equal bindings", lambda: self.left.bindings() == self.right.bindings(), 60)
        self.assertTrue(self.left.bindings())

    def test_failover(self):
        self.start()
        for unit in (self.left, self.right):
            unit.ctl("guard interface swp1 ip mac port --force")
        self.traffic.run(*self.left.ends, 200)
        self.wait_equal()
        self.assert_enforced(self.left)
        self.traffic.run(*self.left.ends, 40)  # renewals; the last ones are under way
        self.left.daemon.kill()
        killed = time.monotonic()
        self.right.ctl("role master")
        self.assert_enforced(self.right)  # all of them: renewals take no binding away
        self.assert_complete(self.right, killed)
        self.assertEqual(self.right.state("role"), "master")
        # Every host goes on with the address that it has, and new ones are learned.
        self.traffic.run(*self.right.ends, 60)
        self.assert_complete(self.right)
        # The other unit comes back as the standby.
        self.left.prepare("slave", "off", "right")
        self.left.start(*SETTINGS, "guard interface swp1 ip mac port --force")
        self.wait_equal()
        # And takes over again: the one that goes withdraws, the one that comes installs.
        self.right.ctl("role slave")
        self.assertEqual(self.traffic.arrive(*self.right.ends, [self.traffic.packet(1)]), [])
        self.left.ctl("role master")
        self.assert_enforced(self.left)

    def test_apart(self):
        """What changes while the units do not hear each other: the link is down, one is stopped. A stopped peer holds no frame
        up. Management's bindings have no record of their own; one without its port is kept apart, and goes as others do."""
        self.left.ip("link add swp3 type veth peer name other3")
        self.start(ports=("swp1", "swp2", "swp3"))
        self.traffic.run(*self.left.ends, 40)
        for number, port in ((240, "swp1"), (241, "swp3")):
            self.left.ctl(f"binding add 10.0.10.{number} mac 02:00:00:00:00:01 vlan 10 interface {port}")
        wait_for("static binding", lambda: "10.0.10.240" in self.right.bindings())
        self.wait_state(self.right, "without-port", 1)
        self.right.ip("link set peer0 down")
        self.traffic.run(*self.left.ends, 40, first=40)
        for address in ("10.0.10.2", "10.0.10.240", "10.0.10.241"):
            self.left.ctl(f"binding delete {address}")
        self.right.ip("link set peer0 up")
        self.wait_equal()
        self.wait_state(self.right, "without-port", 0)
        self.assertEqual(len(self.right.bindings()), 79)
        self.right.daemon.signal(signal.SIGSTOP)
        self.traffic.run(*self.left.ends, 200, rate=100)
        self.right.daemon.signal(signal.SIGCONT)
        self.wait_equal()
        # Who has no certificate of the authority gets no link and disturbs none.
        self.left.run("openssl", "s_client", "-connect", f"{PEERS['right'][0]}:4747", check=False, input="", timeout=20)
        wait_for("refusal", lambda: "peer did not return a certificate" in self.right.daemon.log())
        self.assertEqual(self.right.state("link"), "up")

    def test_single_becomes_master(self):
        """It has made records all along, for its journal: the standby needs those from before."""
        self.start("none", JOURNAL)
        self.traffic.run(*self.left.ends, 5)
        self.left.ctl("role master")
        self.wait_equal()

    def test_tls(self):
        """The module comes with a peer and not before; when it cannot be had, the daemon says so and does not run without it.
        A certificate of the same authority with another name makes no link; a key that everybody can read is told of."""
        modules, tls = glob.glob(f"{RUN}/usr/lib/**/dhcpsnoop_tls.so", recursive=True), {"dhcpsnoop_tls", "libssl", "libcrypto"}
        os.chmod(f"{RUN}/tls/left.key", 0o644)
        self.right.prepare("slave", "off", "nobody")
        self.right.start()
        for peer in ("", "nobody"):
            self.left.prepare("master", "off", peer)
            self.left.start()
            with open(f"/proc/{self.left.daemon.popen.pid}/maps") as maps:
                loaded = {line.split("/")[-1].split(".so")[0] for line in maps if ".so" in line}
            self.assertEqual(tls & loaded, tls if peer else set())
            if peer:
                wait_for("refusal", lambda: "certificate" in self.left.state("trouble") or "")
                self.assertEqual([unit.state("link") for unit in (self.left, self.right)], ["down", "down"])
                self.assertIn("left.key: others may read or write the key", self.left.daemon.log())
                self.assertNotIn("others may read", self.right.daemon.log())
            self.left.daemon.stop()
        os.unlink(*modules)
        with self.assertRaisesRegex(Failure, "a peer needs TLS: dhcpsnoop_tls.so"):
            self.left.start()

    def test_killed(self):
        """At any time; then with the machine, whose ports are guarded when the bindings are back. Static bindings stay too."""
        chance, done = random.Random(int(os.environ.get("LAB_SEED", "1"))), 0
        self.left.prepare("none", JOURNAL)
        self.left.start(*SETTINGS)
        mac, address = self.traffic.frames[199][:2]
        self.left.ctl("guard interface swp1 ip mac port --force")
        self.left.ctl(f"binding add {address} mac {mac} vlan 10 interface swp1")
        time.sleep(1.5)  # management's changes come by full copies, at most one a second
        self.traffic.acknowledged[address] = (mac, time.monotonic())
        for restart in range(int(os.environ.get("LAB_RESTARTS", "5"))):
            exchanges = chance.randrange(1, 40)
            self.traffic.run(*self.left.ends, exchanges, rate=chance.choice((20, 100)), first=done)
            done += exchanges
            time.sleep(chance.choice((0, 0.01, 0.5)))
            self.left.daemon.kill()
            killed = time.monotonic()
            if restart == 0:
                self.left.ctl("platform release")
            self.left.start(*SETTINGS)
            self.assert_complete(self.left, killed)
            self.left.ctl("guard interface swp1 ip mac port --force")
            self.assert_enforced(self.left)

    def test_clock_set(self):
        """The wall clock is set while the daemon runs, while it does not, and behind the journal when the machine has started.
        Each lease keeps its age; by a clock that is behind the journal they wait."""
        library, = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
        self.left.environment |= {"LD_PRELOAD": library, "FAKETIME_TIMESTAMP_FILE": f"{RUN}/clock", "FAKETIME_NO_CACHE": "1",
                                  "FAKETIME_DONT_FAKE_MONOTONIC": "1",
                                  # clang's allocator would ask for the time with its lock held, and that library allocates for the answer
                                  "ASAN_OPTIONS": "verify_asan_link_order=0:allocator_release_to_os_interval_ms=-1"}

        def set_clock(days):
            with open(f"{RUN}/clock.new", "w") as new:
                new.write(f"{days:+}d")
            os.rename(f"{RUN}/clock.new", f"{RUN}/clock")

        def assert_ages():
            def left():
                return [b["left"] for b in self.left.show("bindings") if b["state"] == "bound"]
            wait_for("20 leases of an hour", lambda: len(left()) == 20 and all(3400 < seconds <= 3600 for seconds in left()))

        set_clock(0)
        self.left.prepare("none", JOURNAL)
        self.left.start(*SETTINGS)
        self.left.ctl("guard interface swp1 ip mac port --force")
        self.traffic.run(*self.left.ends, 20)
        for days in (400, -400, -20000, 0):
            set_clock(days)
            assert_ages()
            self.assert_enforced(self.left)
        for days, boot in ((400, None), (400, "one"), (-20000, "two")):
            time.sleep(1)  # the records are written
            self.left.daemon.kill()
            set_clock(days)
            if boot:
                with open(f"{RUN}/{boot}", "w") as identity:
                    identity.write(boot)
                self.left.run("mount", "--bind", f"{RUN}/{boot}", "/proc/sys/kernel/random/boot_id")
            self.left.start(*SETTINGS)
            if days < 0:
                wait_for("waiting leases", lambda: [b["state"] for b in self.left.show("bindings")] == ["waiting"] * 20)
                set_clock(400)
            assert_ages()
        self.assertIn("20 leases are back, 0 ran out", self.left.daemon.log())

    def test_away(self):
        """A binding whose port goes waits for it, and is in force again on the same port only. Learned ones go with a port that
        snoops."""
        self.left.prepare("none", JOURNAL)
        self.left.start(*SETTINGS)
        self.traffic.run(*self.left.ends, 2)
        mac, address = self.traffic.frames[5][:2]
        self.left.ctl(f"binding add {address} mac {mac} vlan 10 interface swp1")
        wait_for("learned bindings", lambda: len(self.left.bindings()) == 3)

        def seen():
            self.left.ctl("guard interface swp1 ip mac port --force")
            waiting = [b["address"] for b in self.left.show("bindings") if b["state"] == "waiting" and b["interface"] == "swp1"]
            return waiting, sorted(self.left.bindings()), self.traffic.arrive(*self.left.ends, [self.traffic.packet(n) for n in (0, 5)])

        self.pair.pull(self.left, "swp1", self.left.ends[0])
        self.left.ends[0] = self.pair.connect(self.left, "swp1", address="02:00:00:00:06:99")
        wait_for("another port", lambda: seen() == ([address], [], []))
        self.left.ip("link set swp1 address 02:00:00:00:06:01")
        wait_for("the port", lambda: seen() == ([], [address], [address]))
        self.left.daemon.kill()
        self.left.ctl("platform release")
        self.left.ip("link set swp1 address 02:00:00:00:06:99")
        self.left.start(*SETTINGS)
        wait_for("waiting after a restart", lambda: seen() == ([address], [], []))
        self.left.ctl(f"binding delete {address}")
        self.assertEqual(seen(), ([], [], []))

    def test_while_a_port_comes(self):
        """Bindings of the journal wait for their port, which comes back with another index; the daemon is a standby for a moment,
        for the 100 bindings that waited. What it learns then is enforced too.
        What it withdraws for changed check items meanwhile, and cannot install, stays in force until it can."""
        settings = (*SETTINGS, "interface swp3 snooping on", "interface swp3 max-users 1000")
        others, server = self.pair.connect(self.left, "swp3", "02:00:00:00:01:03"), self.left.ends[1]
        self.addCleanup(others.socket.close)
        self.left.prepare("none", JOURNAL, ports=("swp1", "swp2", "swp3"))
        self.left.start(*settings)
        self.left.ctl("guard interface swp3 ip mac port --force")
        self.traffic.run(*self.left.ends, 100, rate=200)
        self.traffic.run(others, server, 5, first=140)
        wait_for("records", lambda: self.left.state("journal-records") >= 105)
        self.left.daemon.kill()
        index = self.left.index("swp1")
        self.pair.pull(self.left, "swp1", self.left.ends[0])
        self.left.start(*settings[1:3], *settings[4:])
        self.assertEqual((self.left.state("without-port"), len(self.left.bindings())), (100, 5))
        known, new = [self.traffic.packet(number) for number in range(140, 145)], [self.traffic.frames[number] for number in range(150, 170)]
        others.send(*(frame[3] for frame in new), self.traffic.frames[170][3])  # no server acknowledges the last
        # Requests are long on their way.
        with labtest.meanwhile(lambda: others.send(*known)), labtest.meanwhile(self.left.stall):
            time.sleep(0.2)
            self.left.ends[0] = self.pair.connect(self.left, "swp1")
            self.assertNotEqual(self.left.index("swp1"), index)
            for number, frame in enumerate(new):
                server.send(frame[4])
                if number % 2:
                    self.left.ctl(f"guard interface swp3 ip mac vlan {'port' if number % 4 == 3 else ''} --force")
        wait_for("bindings", lambda: len(self.left.bindings()) == 125)
        refused = {place["interface"]: place["refused"] for place in self.left.show("guard")["interfaces"]}
        self.assertEqual(refused["swp3"]["ipv4"], 0)
        packets = [self.traffic.packet(number) for number in (*range(150, 171), 190)]
        wait_for("enforcement", lambda: self.traffic.arrive(others, server, packets) == [frame[1] for frame in new])


labtest.main()
