#!/usr/bin/python3
"""What a peer unit and a journal cost the daemon, and how long a full copy and a restart take.

    redundancy.py BUILD [--rounds N] [--seconds S] [--bindings N]

Two units as the lab has them (lab/units.py); bench_traffic plays the clients and servers of one. "us/frame" is processor
time of the daemon's own thread over DISCOVER, OFFER, REQUEST and ACK, "all" that of the process; "of off" is the first
over that without peer and journal in the same round. Each figure is the median of the rounds.
"""

import argparse
import glob
import json
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, f"{ROOT}/lab")

import isolate  # noqa: E402

SETTINGS = ("interface swp1 snooping on", "interface swp1 max-users 65535", "interface swp1 dhcp-rate off", "interface swp2 snooping on", "interface swp2 trust on")
BOUND = 256  # clients of the cost per exchange


def cpu(pid, pattern):
    """Seconds used so far by some of a process's threads, by the scheduler's clock."""
    return sum(int(open(path).read().split()[0]) for path in glob.glob(f"/proc/{pid}/task/{pattern}/schedstat")) / 1e9


class Bench:
    def __init__(self, build, seconds):
        from lab import RUN, Host
        from units import Pair
        self.run, self.build, self.seconds = RUN, build, seconds
        self.pair = Pair(build)
        self.left, self.right = self.pair.left, self.pair.right
        # The traffic needs both ends in one place.
        self.ends = Host("ends")
        for port, end in (("swp1", "clients"), ("swp2", "servers")):
            self.left.ip(f"link del {port}")
            self.ends.ip(f"link add {end} type veth peer name {port} netns left")
            for host, device in ((self.left, port), (self.ends, end)):
                host.sysctl(f"net/ipv6/conf/{device}/disable_ipv6", 1)
                host.ip(f"link set {device} up")

    def traffic(self, *arguments, wait=True):
        command = self.ends.command(f"{self.build}/bench/bench_traffic", "clients", "servers", *map(str, arguments))
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        return json.load(process.stdout) if wait else process

    def start(self, bindings, role, journal, peer=""):
        self.left.prepare(role, journal, peer)
        self.left.start(*SETTINGS, bindings=bindings + 64)

    def stop(self, *units):
        for unit in units:
            unit.daemon.stop()

    def learn(self, clients):
        self.traffic("--leases-only", "--rounds", 1, "--clients", clients)
        if (count := self.count(self.left)) != clients:
            raise SystemExit(f"bench: {count} bindings of {clients}")

    @staticmethod
    def count(unit):
        return unit.show("global")["bindings"]

    def start_right(self, bindings):
        self.right.prepare("slave", "off", "left")
        self.right.start(*SETTINGS, bindings=bindings + 64)

    def wait_link(self):
        from lab import wait_for
        wait_for("link", lambda: self.left.show("redundancy")["link"] == "up")

    def cost(self, on):
        if on:
            self.start_right(BOUND)
            self.start(BOUND, "master", f"{self.run}/journal", "right")
            self.wait_link()
        else:
            self.start(BOUND, "none", "off")
        self.learn(BOUND)
        pid = self.left.daemon.popen.pid  # nsenter has become the daemon
        before = cpu(pid, pid), cpu(pid, "*")
        result = self.traffic("--clients", BOUND, "--seconds", self.seconds, "--window", 256, "--bursts", pid)
        own, total = ((now - then) / result["forwarded"] * 1e6 for now, then in
                      zip((cpu(pid, pid), cpu(pid, "*")), before))
        with open(f"/proc/{pid}/status") as file:
            anonymous = next(int(line.split()[1]) for line in file if line.startswith("RssAnon"))
        self.stop(self.left, *((self.right,) if on else ()))
        if on:
            os.unlink(f"{self.run}/journal")
        return own, total, anonymous, result["lost"]

    def copy(self, bindings):
        """A master with so many bindings meets an empty standby, then copies under traffic; then it is started anew."""
        from lab import wait_for
        self.start(bindings, "master", f"{self.run}/journal", "right")
        self.learn(bindings)
        self.start_right(bindings)
        begin = time.monotonic()
        wait_for("copy", lambda: self.count(self.right) == bindings, timeout=60)
        self.report("seconds until an empty standby has all, connecting included", time.monotonic() - begin)
        time.sleep(2)
        quiet = self.traffic("--clients", 256, "--seconds", 3, "--rate", 2000)
        busy = self.traffic("--clients", 256, "--seconds", 3, "--rate", 2000, wait=False)
        time.sleep(0.5)
        self.left.ctl("binding add 10.9.9.9 mac 02:00:00:00:00:77 vlan 10 interface swp1")  # brings a full copy
        begin = time.monotonic()
        wait_for("copy", lambda: self.count(self.right) == bindings + 1)
        self.report("seconds until a standby has a change that takes a full copy", time.monotonic() - begin)
        busy = json.load(busy.stdout)
        for name, result in (("without", quiet), ("with", busy)):
            self.report(f"ms that a frame took at most, 3 s {name} a full copy", result["max_us"] / 1000)
            self.report("... frames lost", result["lost"])
        status = self.left.show("redundancy")
        self.report("records dropped", status["dropped"])
        self.report("MiB of journal", status["journal-size"] / 2**20)
        self.left.daemon.kill()
        begin = time.monotonic()
        self.left.start(bindings=bindings + 64)
        wait_for("bindings", lambda: self.count(self.left) == bindings + 1, timeout=60)
        self.report("seconds from the start to all bindings of the journal", time.monotonic() - begin)
        self.stop(self.left, self.right)

    @staticmethod
    def report(what, value):
        print(f"{value:10.3f}  {what}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2.0)
    parser.add_argument("--bindings", type=int, default=32768)
    options = parser.parse_args()
    build = os.path.realpath(options.build)
    isolate.enter(keep=[build, ROOT])
    bench = Bench(build, options.seconds)
    rounds = [(bench.cost(False), bench.cost(True)) for _ in range(options.rounds)]
    for name, place in (("off", 0), ("on", 1)):
        own, total, anonymous, lost = (statistics.median(done[place][i] for done in rounds) for i in range(4))
        print(f"peer and journal {name}: {own:.2f} us/frame, {total:.2f} all, {anonymous:.0f} KiB of its own, {lost:.0f} lost")
    print(f"of off: {statistics.median(off[0] / on[0] for off, on in rounds):.2f}, "
          f"all: {statistics.median(off[1] / on[1] for off, on in rounds):.2f}")
    bench.copy(options.bindings)
    bench.pair.stop()


main()
