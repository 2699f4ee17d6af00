"""Sends the frames that stand on standard input, a line of hexadecimal digits each, in turn and from two processes for so many seconds.

    flood.py DEVICE SECONDS

Prints how many it sent, and the seconds until the last.
"""

import contextlib
import itertools
import os
import socket
import sys
import time

PROCESSES = 2


def flood(device, seconds, frames):
    sent = 0
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as sock:
        sock.bind((device, 0))
        begin = last = time.monotonic()
        for frame in itertools.cycle(frames):
            if (now := time.monotonic()) >= begin + seconds:
                break
            with contextlib.suppress(OSError):  # no room: it is not sent
                sent += sock.send(frame) > 0
                last = now
    return f"{sent} {begin} {last}\n".encode()


def main(device, seconds):
    frames = [bytes.fromhex(line) for line in sys.stdin]
    reader, writer = os.pipe()
    for _ in range(PROCESSES):
        if os.fork() == 0:
            os.nice(19)  # what arrives at a network device takes no processor from others
            os.write(writer, flood(device, float(seconds), frames))
            os._exit(0)
    os.close(writer)
    with os.fdopen(reader) as lines:
        sent, first, last = zip(*(map(float, line.split()) for line in lines))
    print(int(sum(sent)), max(last) - min(first))


main(*sys.argv[1:])
