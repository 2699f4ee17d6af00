"""Runs the lab's test files, each in a lab of its own, two at a time. Ends with 'N passed, N failed'.

    tests.py BUILD [file]...
"""

import concurrent.futures
import glob
import os
import re
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))


def run(path, build):
    begin = time.monotonic()
    done = subprocess.run([sys.executable, path, build], text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    ran = re.search(r"^Ran (\d+) test", done.stdout, re.M)
    counts = dict(re.findall(r"(failures|errors|skipped)=(\d+)", done.stdout.rsplit("\n\n", 1)[-1]))
    failed = int(counts.get("failures", 0)) + int(counts.get("errors", 0))
    if not ran or int(ran[1]) == 0 or (done.returncode and not failed):
        failed = max(failed, 1)  # it could not even start, or tested nothing
    return done, max(0, (int(ran[1]) if ran else 0) - failed - int(counts.get("skipped", 0))), failed, \
        int(counts.get("skipped", 0)), time.monotonic() - begin


def main(build, *paths):
    # A shell that runs this in the background has it ignored, and so would be what the tests interrupt.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    # The longest first: it waits for a lease to end while the others work.
    paths = sorted(paths or glob.glob(f"{HERE}/test_*.py"), key=lambda path: ("guard" not in path, path))
    total = [0, 0, 0]
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        for path, result in zip(paths, pool.map(lambda path: run(path, build), paths)):
            done, *counts, seconds = result
            total = [sum(pair) for pair in zip(total, counts)]
            print(f"{os.path.basename(path)}: {counts[0]} passed, {counts[1]} failed, {counts[2]} skipped, {seconds:.1f} s")
            if counts[1] or counts[2]:
                print(done.stdout)
    print(f"{total[0]} passed, {total[1]} failed" + (f", {total[2]} skipped" if total[2] else ""))
    sys.exit(bool(total[1]))


main(*sys.argv[1:])
