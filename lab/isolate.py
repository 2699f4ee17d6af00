"""Puts the running process into mount, network, process, host-name and IPC namespaces of its own.

Everything the lab makes (network namespaces, links, pinned maps, the daemon's socket in /tmp, processes) exists only in
there. The kernel takes all of it back when the first process inside ends, however it ends, so an interrupted or killed
lab leaves nothing behind and labs that run at the same time never meet.
"""

import ctypes
import os
import signal
import subprocess
import sys

CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWIPC = 0x00020000, 0x04000000, 0x08000000
CLONE_NEWPID, CLONE_NEWNET = 0x20000000, 0x40000000
PR_SET_PDEATHSIG = 1
HIDDEN = ("/run", "/tmp")  # replaced by an empty tmpfs

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result < 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def enter(keep=()):
    """Returns in a child that is process 1 of the new namespaces; the caller waits for it and ends with its status.

    `keep` names directories that must stay visible although they lie below a hidden one (the build, the sources).
    Gives the child's process id as it is known outside.
    """
    sys.stdout.flush()
    check(libc.unshare(CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWPID | CLONE_NEWNET), "unshare")
    child = os.fork()
    if child:
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # a terminal sends it to the child as well
        for number in (signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda *_: os.kill(child, signal.SIGTERM))
        _, status = os.waitpid(child, 0)
        os._exit(os.WEXITSTATUS(status) if os.WIFEXITED(status) else 128 + os.WTERMSIG(status))
    check(libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL), "prctl")
    outside = int(os.readlink("/proc/self"))  # this /proc is still the caller's
    # Process 1 ignores a signal that it does not handle.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    hide([os.path.realpath(path) for path in keep])
    return outside


def hide(keep):
    mount("--make-rprivate", "/")
    saved = [(path, os.open(path, os.O_PATH | os.O_DIRECTORY)) for path in sorted(keep)
             if path.startswith(tuple(directory + "/" for directory in HIDDEN))]
    for directory in HIDDEN:
        mount("-t", "tmpfs", "-o", "mode=1777" if directory == "/tmp" else "mode=755", "tmpfs", directory)
    for path, directory in saved:
        os.makedirs(path, exist_ok=True)
        mount("-c", "--bind", f"/proc/self/fd/{directory}", path, pass_fds=(directory,))
        os.close(directory)
    mount("-t", "proc", "proc", "/proc")
    mount("-t", "bpf", "bpf", "/sys/fs/bpf")


def mount(*arguments, **options):
    subprocess.run(["mount", "-n", *arguments], check=True, **options)
