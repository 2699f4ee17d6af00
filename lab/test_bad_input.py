"""What the client and the daemon say to what they cannot do: the message, where it goes, the exit status, nothing changed."""

import contextlib
import labtest
import os
import socket
import struct

from lab import RUN, SOCKET, SWITCH_CONF

NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--inh-caps=-all")

# claim, arguments, exit status, part of the message
REFUSED = (
    ("unknown port", "interface swp99 snooping on", 2, "swp99"),
    ("unknown setting", "interface swp1 colour on", 2, "colour"),
    ("value out of range", "interface swp1 max-users 65536", 2, "65535"),
    ("word for a switch", "interface swp1 trust maybe", 2, "on|off"),
    ("no command", "", 2, "help"),
    ("unknown command", "frobnicate", 2, "frobnicate"),
    ("faulty template", "interface swp1 circuit-id template %sx", 2, "template"),
    ("setting that needs another", "interface swp1 circuit-id text door", 1, "option82 on"),
    ("interface without snooping", "interface br0 trust on", 1, "snooping on"),
)

# claim, line 2 of the file, part of the message behind "FILE:2: "
BAD_CONF = (
    ("unknown word", "prot swp1 access 10", "'prot'"),
    ("VLAN out of range", "port swp1 access 4095", "4095"),
    ("no VLAN", "port swp1 access", "expected"),
    ("port twice", "port swp0 access 10", "already"),
    ("range backwards", "port swp1 trunk 20-10", "backwards"),
    ("role", "role captain", "expected"),
    ("bytes that are no text", "port swp1 \x01\x7f", "expected"),
)


class BadInput(labtest.LabTest):
    def test_client(self):
        before = self.ctl("show interfaces")
        for claim, words, status, text in REFUSED:
            with self.subTest(claim):
                done = self.lab.ctl(*words.split(), check=False)
                self.assertEqual((done.returncode, done.stdout), (status, ""), done.stderr)
                self.assertIn(text, done.stderr)
        self.assertEqual(self.ctl("show interfaces"), before)

    def test_no_daemon(self):
        self.lab.stop_daemon()
        for claim, prepare in (("socket left behind", lambda: None), ("no socket", lambda: os.unlink(SOCKET))):
            with self.subTest(claim):
                prepare()
                done = self.lab.ctl("show", "bindings", check=False)
                self.assertEqual((done.returncode, done.stdout), (3, ""))
                self.assertIn(SOCKET, done.stderr)

    def test_client_not_root(self):
        done = self.lab.switch.run(*NOBODY, self.lab.binary("dhcpsnoopctl"), "show", "bindings", check=False)
        self.assertEqual((done.returncode, done.stdout), (3, ""))
        self.assertIn("root", done.stderr)

    def test_requests(self):
        """Requests that no client of ours sends: each gets an answer or an end of the connection, and the next one is served."""
        for claim, request, answer in (
            ("length 0", struct.pack("=I", 0), 26),
            ("too short to be a request", struct.pack("=I", 3) + b"abc", 4),
            ("longer than any", struct.pack("=I", 1521) + bytes(1521), 0),
            ("length of 4 GiB", struct.pack("=I", 0xFFFFFFFF) + bytes(100), 0),
            ("nothing", b"", 0),
            ("half a length", b"\0\0", 0),
            ("less than announced", struct.pack("=I", 100) + bytes(50), 0),
        ):
            with self.subTest(claim), socket.socket(socket.AF_UNIX) as client:
                client.settimeout(20)
                client.connect(SOCKET)
                client.sendall(request)
                client.shutdown(socket.SHUT_WR)
                reply = b""
                try:
                    while chunk := client.recv(4096):
                        reply += chunk
                except ConnectionResetError:
                    pass
                self.assertEqual(len(reply), answer, reply)
                self.ctl("show interfaces")

    def test_stalling_client(self):
        """A connection that sends nothing does not hold the daemon."""
        with socket.socket(socket.AF_UNIX) as idle:
            idle.connect(SOCKET)
            self.ctl("show interfaces")


class BadStart(labtest.LabTest):
    def start_daemon(self):
        """Each test starts it itself."""

    def ends(self, *command, conf):
        """The daemon's exit status and what it printed."""
        done = self.lab.switch.run(*command, self.lab.binary("dhcpsnoop"), check=False, timeout=20,
                                   env={**os.environ, "DHCPSNOOP_SWITCH_CONF": conf})
        return done.returncode, done.stdout + done.stderr

    def test_switch_conf(self):
        path = f"{RUN}/bad.conf"
        with contextlib.suppress(FileNotFoundError):
            os.unlink(SOCKET)
        for claim, line, text in BAD_CONF:
            with self.subTest(claim):
                with open(path, "w") as conf:
                    conf.write(f"port swp0 access 1\n{line}\n")
                status, printed = self.ends(conf=path)
                self.assertEqual(status, os.EX_CONFIG)
                self.assertIn(f"{path}:2: ", printed)
                self.assertIn(text, printed.split(f"{path}:2: ")[1].splitlines()[0])
                self.assertFalse(os.path.exists(SOCKET))

    def test_unreadable_conf(self):
        status, printed = self.ends(conf=RUN)  # a directory
        self.assertNotEqual(status, 0)
        self.assertIn(RUN, printed)

    def test_command_socket_taken(self):
        """A daemon that cannot serve ends, or nobody would start it again."""
        with contextlib.suppress(FileNotFoundError):
            os.unlink(SOCKET)
        os.mkdir(SOCKET)
        try:
            status, printed = self.ends(conf=SWITCH_CONF)
        finally:
            os.rmdir(SOCKET)
        self.assertEqual(status, 1)
        self.assertRegex(printed, "Bind cmd_socket failed!\\s*: Address already in use\n.*start-up failed, the daemon ends")

    def test_not_root(self):
        status, printed = self.ends(*NOBODY, conf="/nonexistent")
        self.assertNotEqual(status, 0)
        self.assertIn("CAP_NET_RAW", printed)


labtest.main()
