"""How a way of doing a job is run and measured.

A way is a list of steps: an argument list is a program, a callable is done in this process (a flush, a rename), so that
doing it by hand does not pay for a program. Those that measure themselves print the nanoseconds of every turn.
"""
import collections
import os
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from .places import Absent

# The allocator decides when it asks for more memory, and that would make exact counts inexact.
NOT_COUNTED = {"total", "brk", "mmap", "munmap", "mremap", "madvise"}


def spawn(words, **more):
    # Without close_fds, Python makes a child without copying this process.
    return subprocess.run(words, check=True, close_fds=False, stdin=subprocess.DEVNULL, **more)


def quietly(words):
    spawn(words, stdout=subprocess.DEVNULL)


def measure(steps, inside, statistic=statistics.median):
    """Elapsed seconds, and seconds of processor time; `inside` if the program measures itself. Of what that prints, the
    statistic counts."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    if inside:
        (words,) = steps
        output = spawn(words, stdout=subprocess.PIPE, text=True).stdout
        wall = statistic(list(map(int, output.split()))) / 1e9
    else:
        for step in steps:
            step() if callable(step) else quietly(step)
        wall = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return wall, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def peak_memory(steps):
    """KiB that the largest program had resident. A child of ours would begin with our memory, so time(1) starts it."""
    with tempfile.NamedTemporaryFile(mode="r") as report:
        peaks = []
        for step in steps:
            if callable(step):
                step()
                continue
            quietly(["/usr/bin/time", "-q", "-f", "%M", "-o", report.name, *step])
            report.seek(0)
            peaks.append(int(report.read()))
    return max(peaks, default=0)


def count_calls(steps):
    """System calls by name, including children and threads; the calls of a callable are not counted."""
    calls = collections.Counter()
    with tempfile.NamedTemporaryFile(mode="r") as report:
        for step in steps:
            if callable(step):
                step()
                continue
            quietly(["strace", "-f", "-qq", "-c", "-U", "name,calls", "-o", report.name, *step])
            report.seek(0)
            for line in report.read().splitlines():
                name, *count = line.split()
                if len(count) == 1 and count[0].isdigit() and name not in NOT_COUNTED:
                    calls[name] += int(count[0])
    return calls


def require_programs():
    missing = [package for package, path in (("time", "/usr/bin/time"), ("strace", "/usr/bin/strace"))
               if not os.path.exists(path)]
    if missing:
        sys.exit("install these first: " + " ".join(missing))


def require_tracing():
    if not shutil.which("strace"):
        raise Absent("there is no strace")
    if subprocess.run(["strace", "-qq", "-c", "-o", os.devnull, "true"], capture_output=True).returncode != 0:
        raise Absent("tracing is not allowed here")
