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
    """The log, and how many passed, failed and were skipped; one that could not even start, or tested nothing, has failed."""
    begin = time.monotonic()
    done = subprocess.run([sys.executable, path, build], text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    counts = dict(re.findall(r"(failures|errors|skipped)=(\d+)", done.stdout.rsplit("\n\n", 1)[-1]))
    skipped, failed = int(counts.pop("skipped", 0)), sum(map(int, counts.values()))
    ran = int((re.search(r"^Ran (\d+) test", done.stdout, re.M) or "00")[1])
    failed = failed or int(done.returncode != 0 or ran == 0)
    print(f"{os.path.basename(path)}: {max(0, ran - failed - skipped)} passed, {failed} failed, {skipped} skipped, {time.monotonic() - begin:.1f} s")
    if failed or skipped:
        print(done.stdout)
    return max(0, ran - failed - skipped), failed, skipped


def main(build, *paths):
    # A shell that runs this in the background has it ignored, and so would be what the tests interrupt.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    paths = paths or sorted(glob.glob(f"{HERE}/test_*.py"), reverse=True)  # the longest first
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        passed, failed, skipped = (sum(column) for column in zip(*pool.map(lambda path: run(path, build), paths)))
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    sys.exit(bool(failed))


main(*sys.argv[1:])
