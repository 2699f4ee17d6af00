#!/usr/bin/python3
"""How fast the daemon moves DHCP frames between two ports, beside what can be had at all and beside a relay agent.

    run.py BUILD [--rounds N] [--seconds S] [--smoke]

Everything runs in namespaces of its own (lab/isolate.py): a switch with two ports, and the machine at their other
ends, where bench_traffic plays clients and servers. In every round each subject gets the same traffic: 300-byte
DISCOVER, OFFER, REQUEST and ACK messages of all clients in turn (for "DHCPv6" SOLICIT, ADVERTISE, REQUEST and REPLY in
frames of the same length), in bursts, so that the subject never waits for one, once without counting and once with; then the same at 5,000 frames a second, for how long a frame takes ("median us", "p99 us").

What is compared is the processor time of a frame, because the rates of a machine move from minute to minute. "of loop" is
the loop's time in the same round over the subject's own. Every figure is the median of the rounds. "own KiB" is what is
resident of the process and of no file.

A second table is of large tables: the milliseconds from a command to its last line, the client's processor time in them, and
the longest time of a frame at 5,000 a second, alone and while the daemon is asked for all its bindings ten times. The asker
takes the file and reads none of it, because a client's work on the processor of the traffic would count too. On a busy machine
compare the two.
"""

import argparse
import concurrent.futures
import json
import os
import socket
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, f"{ROOT}/lab")

import isolate  # noqa: E402
import lab  # noqa: E402

CLIENT_SIDE, SERVER_SIDE = "swp1", "swp2"  # the switch's ports
CLIENTS, SERVERS = "clients", "servers"  # their other ends
PACE = 5000  # frames a second, far below what any subject can do
LARGE = 32768  # bindings from which lists are measured
MOST = 65535  # entries that the daemon can have
GIADDR, RELAY_SIDE, SERVER = "10.1.0.1", "10.2.0.1", "10.2.0.2"


class Subject:
    """Something that forwards. Started anew in every round."""

    def __init__(self, name, bindings=256):
        self.name, self.bindings, self.rounds = name, bindings, []
        self.burst = 256

    def start(self, bench):
        raise NotImplementedError

    def stop(self, bench):
        self.process.stop()

    def traffic(self, bench):
        return ()

    def median(self, value):
        return statistics.median(value(done) for done in self.rounds)


class Loop(Subject):
    def start(self, bench):
        self.process = bench.process("loop", bench.binary("bench_loop"), CLIENT_SIDE, SERVER_SIDE)
        bench.wait_flow("loop")


class Daemon(Subject):
    def __init__(self, name, bindings, *commands):
        super().__init__(name, bindings)
        self.commands = commands

    def start(self, bench):
        bench.switch.start_daemon("--bindings", str(min(self.bindings + 64, MOST)), under=bench.pinned(1))
        self.process = bench.switch.daemon
        for command in (f"interface {CLIENT_SIDE} snooping on", f"interface {CLIENT_SIDE} max-users {MOST} dhcp-rate off", f"interface {SERVER_SIDE} snooping on",
                        f"interface {SERVER_SIDE} trust on", *self.commands):
            bench.switch.ctl(command)
        learned = bench.traffic(*self.traffic(bench), "--leases-only", "--rounds", "1", "--clients", self.bindings)
        bound = len(bench.switch.show("bindings state bound"))
        if bound != self.bindings:
            raise lab.Failure(f"{self.name}: {bound} bindings of {self.bindings}: {learned}")

    def stop(self, bench):
        super().stop(bench)
        bench.switch.ctl("platform release")


class Daemon6(Daemon):
    def __init__(self, name, bindings, *commands):
        # A change of version takes trust away.
        super().__init__(name, bindings, *(f"interface {port} version both" for port in (CLIENT_SIDE, SERVER_SIDE)),
                         f"interface {SERVER_SIDE} trust on", *commands)

    def traffic(self, bench):
        return ("--ipv6",)


class Relay(Subject):
    """ISC's relay agent: clients on one of its networks, the server on the other."""

    def __init__(self, name):
        super().__init__(name)
        self.burst = 64  # its sockets hold fewer frames than the others'

    def start(self, bench):
        bench.switch.ip(f"addr add {GIADDR}/16 dev {CLIENT_SIDE}")
        bench.switch.ip(f"addr add {RELAY_SIDE}/16 dev {SERVER_SIDE}")
        bench.switch.ip(f"neigh replace {SERVER} lladdr {bench.mac(bench.ends, SERVERS)} dev {SERVER_SIDE}")
        # It reports every message; let that cost as little as it can.
        self.process = bench.process("dhcrelay", "sh", "-c", 'exec "$0" "$@" 2>/dev/null', "dhcrelay", "-4", "-d", "--no-pid",
                                     "-id", CLIENT_SIDE, "-iu", SERVER_SIDE, SERVER)
        bench.wait_flow("relay", *self.traffic(bench))

    def stop(self, bench):
        super().stop(bench)
        for port in (CLIENT_SIDE, SERVER_SIDE):
            bench.switch.ip(f"addr flush dev {port}")

    def traffic(self, bench):
        return "--relay", GIADDR, bench.mac(bench.switch, SERVER_SIDE)


class Bench:
    def __init__(self, build, rounds, seconds):
        self.build, self.rounds, self.seconds = os.path.realpath(build), rounds, seconds
        self.two_processors = len(os.sched_getaffinity(0)) > 1
        os.makedirs(lab.RUN, exist_ok=True)
        self.switch, self.ends = lab.Switch("switch", self.build), lab.Host("ends")
        self.switch.configure(f"port {CLIENT_SIDE} access 10", f"port {SERVER_SIDE} access 10")
        for port, end in ((CLIENT_SIDE, CLIENTS), (SERVER_SIDE, SERVERS)):
            self.ends.ip(f"link add {end} type veth peer name {port} netns {self.switch.name}")
            for host, device in ((self.switch, port), (self.ends, end)):
                host.sysctl(f"net/ipv6/conf/{device}/disable_ipv6", 1)
                host.ip(f"link set {device} up")

    def binary(self, name):
        path = f"{self.build}/{name}" if os.path.exists(f"{self.build}/{name}") else f"{self.build}/bench/{name}"
        if not os.path.exists(path):
            raise lab.Failure(f"{self.build} holds no {name}: build first")
        return path

    def pinned(self, processor, *command):
        return ["taskset", "-c", str(processor), *command] if self.two_processors else list(command)

    def process(self, name, *command):
        # The traffic has the first processor, the subject the second.
        return lab.Process(self.switch, name, *self.pinned(1, *command))

    def mac(self, host, device):
        with host.inside():
            return subprocess.run(["ip", "-o", "link", "show", device], check=True, text=True,
                                  capture_output=True).stdout.split("link/ether ")[1].split()[0]

    def traffic(self, *arguments):
        done = self.ends.run(*self.pinned(0, self.binary("bench_traffic"), CLIENTS, SERVERS, *map(str, arguments)))
        return json.loads(done.stdout)

    def wait_flow(self, what, *arguments):
        lab.wait_for(f"traffic through the {what}",
                     lambda: self.traffic("--rounds", 1, "--clients", 1, *arguments)["forwarded"] == 4)

    def measure(self, subject):
        subject.start(self)
        try:
            pid = subject.process.popen.pid
            arguments = ("--clients", subject.bindings, "--seconds", self.seconds, *subject.traffic(self))
            self.traffic(*arguments, "--window", subject.burst)  # new bindings cost the daemon a second's work more
            before = cpu_seconds(pid)
            result = self.traffic(*arguments, "--window", subject.burst, "--bursts", pid)
            result["cpu"] = (cpu_seconds(pid) - before) / max(result["forwarded"], 1) * 1e6
            result["rate"] = result["forwarded"] / result["seconds"] if result["seconds"] else 0
            result["paced"] = self.traffic(*arguments, "--rate", PACE)
            result.update(memory_kib(pid))
            if isinstance(subject, Daemon) and subject.bindings >= LARGE:
                result["lists"] = self.lists(*arguments, "--rate", PACE)
            if not subject.process.running():
                raise lab.Failure(f"{subject.name} ended\n{subject.process.log()}")
            subject.rounds.append(result)
        finally:
            subject.stop(self)

    def lists(self, *paced):
        """Milliseconds of commands, and of the frame that waited longest."""
        def took(*words):
            begin = time.monotonic()
            self.switch.run(self.switch.binary("dhcpsnoopctl"), "show", "bindings", *words)
            return (time.monotonic() - begin) * 1000

        def children():
            used = os.times()
            return (used.children_user + used.children_system) * 1000

        def ask():
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
                client.connect("/run/dhcpsnoop/platform.bindings")
                client.send(b"bindings")
                for file in socket.recv_fds(client, 100, 1)[1]:
                    os.close(file)

        few = self.switch.show("bindings")[0]["address"] + "/29"
        before = children()
        result = {"table": took(), "cpu": children() - before, "json": took("--json"), "few": took(few), "count": took("--count")}
        for name, asked in (("alone", 0), ("asked", 10)):
            with concurrent.futures.ThreadPoolExecutor() as pool:
                traffic = pool.submit(self.traffic, *paced)
                for _ in range(asked):
                    time.sleep(self.seconds / 12)
                    ask()
                result[name] = traffic.result()["max_us"] / 1000
        return result

    def run(self, subjects):
        for number in range(self.rounds):
            for subject in subjects:
                if sys.stderr.isatty():
                    print(f"\r\033[Kround {number + 1}: {subject.name}, {subject.bindings} clients", end="\r", file=sys.stderr)
                self.measure(subject)
        loop = subjects[0]
        for subject in subjects:
            for own, bare in zip(subject.rounds, loop.rounds):
                own["ratio"] = bare["cpu"] / own["cpu"]


def cpu_seconds(pid):
    """What a process of one thread has used so far, by the scheduler's own clock."""
    with open(f"/proc/{pid}/schedstat") as file:
        return int(file.read().split()[0]) / 1e9


def memory_kib(pid):
    with open(f"/proc/{pid}/status") as file:
        fields = dict(line.split(":", 1) for line in file)
    return {"rss": int(fields["VmRSS"].split()[0]), "anonymous": int(fields["RssAnon"].split()[0])}


def table(subjects):
    yield "subject", "bindings", "us/frame", "of loop", "frames/s", "median us", "p99 us", "lost", "RSS KiB", "own KiB"
    for subject in subjects:
        median = subject.median
        yield (subject.name, str(subject.bindings) if isinstance(subject, Daemon) else "-",
               f"{median(lambda r: r['cpu']):.2f}", f"{median(lambda r: r['ratio']):.2f}",
               f"{median(lambda r: r['rate']):,.0f}", f"{median(lambda r: r['paced']['median_us']):.0f}",
               f"{median(lambda r: r['paced']['p99_us']):.0f}",
               str(sum(r["lost"] + r["paced"]["lost"] for r in subject.rounds)),
               f"{median(lambda r: r['rss']):,.0f}", f"{median(lambda r: r['anonymous']):,.0f}")


def lists_table(subjects):
    columns = {"table": "ms", "cpu": "CPU ms", "json": "ms, --json", "few": "ms, a /29", "count": "ms, --count", "alone": "ms, longest frame",
               "asked": "the same, asked"}
    yield "show bindings", *columns.values()
    for subject in subjects:
        if "lists" in subject.rounds[0]:
            yield str(subject.bindings), *(f"{subject.median(lambda r, name=name: r['lists'][name]):.1f}" for name in columns)


def show(rows):
    rows = list(rows)
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) if i == 0 else cell.rjust(width)
                        for i, (cell, width) in enumerate(zip(row, widths))).rstrip())


def smoke(subjects):
    """Only that everything flows: a machine under load may lose some."""
    faults = [f"{subject.name}: {result}" for subject in subjects for result in subject.rounds
              if result["forwarded"] < 100 or result["lost"] > result["forwarded"] / 10]
    if faults:
        sys.exit("\n".join(faults))
    print(f"{len(subjects)} subjects, " + ", ".join(f"{s.name} {s.rounds[0]['cpu']:.2f} us" for s in subjects))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2.0)
    parser.add_argument("--smoke", action="store_true", help="one short round, to see that everything flows")
    options = parser.parse_args()
    if options.smoke:
        options.rounds, options.seconds = 1, 0.5

    isolate.enter(keep=[options.build, ROOT])
    option82 = (f"interface {CLIENT_SIDE} option82 on",)
    options6 = (f"interface {CLIENT_SIDE} option18 on", f"interface {CLIENT_SIDE} option37 on")
    subjects = [Loop("bare loop"), Daemon("dhcpsnoop", 256), Daemon("dhcpsnoop, option 82", 256, *option82),
                Daemon6("dhcpsnoop, DHCPv6", 256), Daemon6("dhcpsnoop, DHCPv6, options 18 and 37", 256, *options6),
                Relay("dhcrelay"), Daemon("dhcpsnoop", 32768), Daemon("dhcpsnoop", MOST)]
    if options.smoke:
        del subjects[-2:]
    try:
        Bench(options.build, options.rounds, options.seconds).run(subjects)
    except lab.Failure as failure:
        sys.exit(f"bench: {failure}")
    if options.smoke:
        smoke(subjects)
    else:
        print(f"{options.rounds} rounds of {options.seconds:g} s")
        show(table(subjects))
        print()
        show(lists_table(subjects))


main()
