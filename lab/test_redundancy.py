"""Two control units, and a restart, lose no binding. LAB_RESTARTS sets how often a unit is killed (5)."""

import glob
import labtest
import os
import random
import signal
import threading
import time
import unittest

from lab import RUN, Failure, Host, wait_for
from units import PEERS, PORTS, Pair, Traffic

SETTINGS = ("interface swp1 snooping on", "interface swp2 snooping on", "interface swp2 trust on",
            "interface swp1 max-users 1000")
RESTARTS = int(os.environ.get("LAB_RESTARTS", "5"))


class UnitsTest(unittest.TestCase):
    def setUp(self):
        self.pair = Pair(labtest.BUILD)
        self.addCleanup(self.pair.stop)
        self.traffic = Traffic()
        self.left, self.right = self.pair.left, self.pair.right

    def at(self, unit):
        return self.pair.hosts[f"c-{unit.name}"], self.pair.hosts[f"s-{unit.name}"]

    def assert_complete(self, unit, until=None):
        """Every binding that was acknowledged a second before `until`, or now, is there. Of later ones, those that are not
        are forgotten."""
        bindings, until = unit.bindings(), until or time.monotonic()
        missing = {address for address, (mac, _) in self.traffic.acknowledged.items()
                   if bindings.get(address) != (mac, "swp1", 10)}
        self.assertEqual({address for address in missing if self.traffic.acknowledged[address][1] < until - 1}, set())
        for address in missing:
            del self.traffic.acknowledged[address]

    def assert_enforced(self, unit):
        """Every bound host gets through, a forged address does not."""
        numbers = range(len(self.traffic.frames))
        bound = [self.traffic.frames[number][1] for number in numbers
                 if self.traffic.frames[number][1] in self.traffic.acknowledged]
        packets = [self.traffic.packet(number) for number in numbers
                   if self.traffic.frames[number][1] in self.traffic.acknowledged]
        forged = [self.traffic.packet(number, "10.0.10.250") for number in (0, 1)]
        self.assertEqual(self.traffic.arrive(*self.at(unit), [*packets, *forged]), bound)


class Redundancy(UnitsTest):
    def start(self, left="master", right="slave"):
        for unit, role in ((self.left, left), (self.right, right)):
            unit.configure(role, "journal off", *self.pair.peer_lines(unit.name))
            unit.start(*SETTINGS)
        for unit in (self.left, self.right):
            wait_for("link", lambda: unit.show("redundancy")["link"] == "up")

    def wait_equal(self):
        wait_for("equal bindings", lambda: self.left.bindings() == self.right.bindings())
        self.assertTrue(self.left.bindings())

    def test_failover(self):
        self.start()
        for unit in (self.left, self.right):
            unit.ctl("guard interface swp1 ip mac port")
        self.traffic.run(*self.at(self.left), 200)
        self.wait_equal()
        self.assert_enforced(self.left)
        self.traffic.run(*self.at(self.left), 40)  # renewals; the last ones are under way
        self.left.kill()
        killed = time.monotonic()
        self.right.ctl("role master")
        self.assert_enforced(self.right)  # all of them: renewals take no binding away
        self.assert_complete(self.right, killed)
        self.assertEqual(self.right.show("redundancy")["role"], "master")
        # Every host goes on with the address that it has, and new ones are learned.
        self.traffic.run(*self.at(self.right), 60)
        self.assert_complete(self.right)
        # The other unit comes back as the standby.
        self.left.configure("slave", "journal off", *self.pair.peer_lines("left"))
        self.left.start(*SETTINGS)
        self.wait_equal()
        # And takes over again: the one that goes withdraws, the one that comes installs.
        self.right.ctl("role slave")
        self.assertEqual(self.traffic.arrive(*self.at(self.right), [self.traffic.packet(1)]), [])
        self.left.ctl("role master")
        self.assert_enforced(self.left)

    def test_partition(self):
        self.start()
        self.traffic.run(*self.at(self.left), 40)
        self.wait_equal()
        self.right.ip("link set peer0 down")
        self.traffic.run(*self.at(self.left), 40, first=40)
        # One binding goes meanwhile: it must go on the other side too.
        self.left.ctl("binding delete 10.0.10.2")
        self.right.ip("link set peer0 up")
        wait_for("equal bindings", lambda: self.left.bindings() == self.right.bindings(), timeout=60)
        self.assertEqual(len(self.right.bindings()), 79)
        self.assertNotIn("10.0.10.2", self.right.bindings())

    def test_deleted_without_port(self):
        """What waits on the standby for its port goes with the master's binding, too."""
        PORTS["swp3"] = "access 10"
        self.addCleanup(PORTS.pop, "swp3")
        self.left.ip("link add swp3 type veth peer name other3")
        self.start()
        self.left.ctl("binding add 10.0.10.99 mac 02:00:00:00:00:99 vlan 10 interface swp3")
        wait_for("a binding without its port", lambda: self.right.show("redundancy")["withoutPort"] == 1)
        self.right.ip("link set peer0 down")
        self.left.ctl("binding delete 10.0.10.99")
        self.right.ip("link set peer0 up")
        wait_for("none", lambda: self.right.show("redundancy")["withoutPort"] == 0, timeout=60)

    def test_single_becomes_master(self):
        """It has made records all along, for its journal: the standby needs those from before."""
        for unit, role, journal in ((self.left, "none", f"{RUN}/journal"), (self.right, "slave", "off")):
            unit.configure(role, f"journal {journal}", *self.pair.peer_lines(unit.name))
            unit.start(*SETTINGS)
        wait_for("link", lambda: self.left.show("redundancy")["link"] == "up")
        self.traffic.run(*self.at(self.left), 5)
        self.left.ctl("role master")
        self.wait_equal()

    def test_stopped_peer(self):
        """A peer that takes nothing holds no frame up, and has everything once it goes on."""
        self.start()
        self.traffic.run(*self.at(self.left), 5)
        self.wait_equal()
        self.right.daemon.signal(signal.SIGSTOP)
        self.traffic.run(*self.at(self.left), 200, rate=100)
        self.right.daemon.signal(signal.SIGCONT)
        self.wait_equal()

    def test_static(self):
        """Management's bindings, of which the daemon sends no record of their own."""
        self.start()
        self.left.ctl("binding add 10.0.10.77 mac 02:00:00:00:00:77 vlan 10 interface swp1")
        wait_for("static binding", lambda: "10.0.10.77" in self.right.bindings())
        self.left.ctl("binding delete 10.0.10.77")
        wait_for("no static binding", lambda: "10.0.10.77" not in self.right.bindings())

    def test_other_name(self):
        """A certificate of the same authority, but not the one that is expected; a key that everybody can read."""
        os.chmod(f"{RUN}/tls/left.key", 0o644)
        for unit, role in ((self.left, "master"), (self.right, "slave")):
            lines = self.pair.peer_lines(unit.name)
            unit.configure(role, "journal off", *(line.replace("peer right", "peer nobody") for line in lines))
            unit.start(*SETTINGS)
        self.assertNotIn("others may read", self.right.daemon.log())
        self.assertIn("left.key: others may read or write the key", self.left.daemon.log())
        wait_for("refusal", lambda: "certificate" in self.left.show("redundancy")["trouble"] or "")
        self.assertEqual([unit.show("redundancy")["link"] for unit in (self.left, self.right)], ["down", "down"])

    def test_module(self):
        """TLS comes with a peer and not before; when it cannot be had, the daemon says so and does not run without it."""
        modules = glob.glob(f"{RUN}/usr/lib/**/dhcpsnoop_tls.so", recursive=True)
        self.assertEqual(len(modules), 1)

        def libraries():
            with open(f"/proc/{self.left.daemon.popen.pid}/maps") as maps:
                return {line.split("/")[-1].split(".so")[0] for line in maps if ".so" in line}

        for peer in (False, True):
            self.left.configure("master", "journal off", *(self.pair.peer_lines("left") if peer else ()))
            self.left.start()
            self.assertEqual({"dhcpsnoop_tls", "libssl", "libcrypto"} & libraries(),
                             {"dhcpsnoop_tls", "libssl", "libcrypto"} if peer else set())
            self.left.daemon.stop()
        os.unlink(modules[0])
        with self.assertRaisesRegex(Failure, "a peer needs TLS: dhcpsnoop_tls.so"):
            self.left.start()

    def test_stranger(self):
        """Who has no certificate of the authority gets no link and disturbs none."""
        self.start()
        self.left.run("openssl", "s_client", "-connect", f"{PEERS['right'][0]}:4747", check=False, input="", timeout=20)
        wait_for("refusal", lambda: "peer did not return a certificate" in self.right.daemon.log())
        self.assertEqual(self.right.show("redundancy")["link"], "up")
        self.traffic.run(*self.at(self.left), 5)
        self.wait_equal()


class Journal(UnitsTest):
    def start(self, *settings):
        self.left.configure("none", f"journal {RUN}/journal")
        self.left.start(*(settings or SETTINGS))

    def test_killed(self):
        seed = int(os.environ.get("LAB_SEED", "1"))
        chance = random.Random(seed)
        self.start()
        self.left.ctl("guard interface swp1 ip mac port")
        done = 0
        for _ in range(RESTARTS):
            exchanges = chance.randrange(1, 40)
            self.traffic.run(*self.at(self.left), exchanges, rate=chance.choice((20, 100)), first=done)
            done += exchanges
            time.sleep(chance.choice((0, 0.01, 0.5)))
            self.left.kill()
            killed = time.monotonic()
            self.left.start(*SETTINGS)
            self.assert_complete(self.left, killed)
            self.assert_enforced(self.left)

    def test_renumbered(self):
        """A binding waits for its port, which comes back with another index."""
        self.start()
        self.traffic.run(*self.at(self.left), 3)
        wait_for("records on the disk", lambda: self.left.show("redundancy")["journalRecords"] >= 3)
        self.left.kill()
        clients = self.pair.hosts["c-left"]
        index = self.left.index("swp1")
        self.traffic.forget(clients)
        clients.ip("link del eth0")
        self.start(*SETTINGS[1:3])
        self.assertEqual(self.left.bindings(), {})
        self.assertEqual(self.left.show("redundancy")["withoutPort"], 3)
        self.pair.connect(clients, self.left, "swp1", "02:00:00:00:01:01")
        self.assertNotEqual(self.left.index("swp1"), index)
        wait_for("bindings of the port", lambda: len(self.left.bindings()) == 3)
        self.assert_complete(self.left, time.monotonic() + 1)
        self.assertEqual(self.left.show("redundancy")["withoutPort"], 0)

    def test_static_before_the_guard(self):
        """A machine that came up again: the static binding is back, then its port is guarded."""
        self.start()
        mac, address = self.traffic.frames[0][:2]
        self.left.ctl(f"binding add {address} mac {mac} vlan 10 interface swp1")
        time.sleep(1.5)  # management's changes come by full copies, at most one a second
        self.left.kill()
        self.left.ctl("platform release")
        self.left.start(*SETTINGS)
        self.left.ctl("guard interface swp1 ip mac port")
        packets = [self.traffic.packet(number) for number in (0, 1)]
        self.assertEqual(self.traffic.arrive(*self.at(self.left), packets), [address])

    def start_without_port(self, learn):
        """100 bindings wait for swp1; a host at swp3, which is guarded, may have more by then."""
        PORTS["swp3"] = "access 10"
        self.addCleanup(PORTS.pop, "swp3")
        others = self.pair.hosts["c3"] = Host("c3")
        self.pair.connect(others, self.left, "swp3", "02:00:00:00:01:03")
        settings = (*SETTINGS, "interface swp3 snooping on", "interface swp3 max-users 1000")
        self.start(*settings)
        self.left.ctl("guard interface swp3 ip mac port")
        clients, server = self.at(self.left)
        self.traffic.run(clients, server, 100, rate=200)
        learn(others, server)
        wait_for("records", lambda: self.left.show("redundancy")["journalRecords"] >= len(self.traffic.acknowledged))
        self.left.kill()
        self.traffic.forget(clients)
        clients.ip("link del eth0")
        self.left.start(*settings[1:3], *settings[4:])
        self.assertEqual(self.left.show("redundancy")["withoutPort"], 100)
        return others, clients, server

    def test_learned_while_a_port_comes(self):
        """The daemon is a standby for a moment, for the bindings that waited; what it learns then is enforced too."""
        others, clients, server = self.start_without_port(lambda *_: None)
        new = [self.traffic.frames[number] for number in range(150, 170)]
        for frame in (*new, self.traffic.frames[170]):  # which no server acknowledges
            self.traffic.socket(others).send(frame[3])
        with self.left.stalled():  # requests are long on their way
            time.sleep(0.2)
            self.pair.connect(clients, self.left, "swp1", "02:00:00:00:01:01")
            for frame in new:
                self.traffic.socket(server).send(frame[4])
                time.sleep(0.06)
        wait_for("bindings", lambda: len(self.left.bindings()) == 120)
        packets = [self.traffic.packet(number) for number in (*range(150, 171), 190)]
        wait_for("enforcement", lambda: self.traffic.arrive(others, server, packets) == [frame[1] for frame in new])

    def test_check_items_change_while_a_port_comes(self):
        """What the daemon withdraws for them meanwhile, and cannot install, stays in force until it can."""
        others, clients, _ = self.start_without_port(lambda *ends: self.traffic.run(*ends, 5, first=150))
        wait_for("bindings", lambda: len(self.left.bindings()) == 5)
        packets, done = [self.traffic.packet(number) for number in range(150, 155)], threading.Event()

        def send():
            while not done.wait(0.001):
                for packet in packets:
                    self.traffic.socket(others).send(packet)

        sender = threading.Thread(target=send)
        sender.start()
        with self.left.stalled():
            time.sleep(0.2)
            self.pair.connect(clients, self.left, "swp1", "02:00:00:00:01:01")
            for items in ("ip mac vlan", "ip mac vlan port") * 5:
                self.left.ctl(f"guard interface swp3 {items}")
        done.set()
        sender.join()
        self.assertEqual(len(self.left.bindings()), 105)
        refused = {place["interface"]: place["refused"] for place in self.left.show("guard")["interfaces"]}
        self.assertEqual(refused["swp3"]["ipv4"], 0)

    def test_damaged(self):
        """A torn end and a flipped bit cost a record each."""
        self.start()
        self.traffic.run(*self.at(self.left), 10)
        wait_for("records on the disk", lambda: self.left.show("redundancy")["journalRecords"] >= 10)
        self.left.kill()
        with open(f"{RUN}/journal", "r+b") as journal:
            content = bytearray(journal.read())
            content[3 * 72 + 20] ^= 1
            journal.seek(0)
            journal.write(content)
            journal.truncate(len(content) - 10)
        self.start()
        self.assertEqual(self.left.show("redundancy")["journalDamaged"], 2)
        self.assertIn("2 damaged records left out", self.left.daemon.log())
        self.assertGreaterEqual(len(self.left.bindings()), 8)


labtest.main()
