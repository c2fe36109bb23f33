"""Where the jobs run: directories on file systems of several kinds."""
import contextlib
import ctypes
import os
import shutil
import subprocess
import tempfile

LIBC = ctypes.CDLL(None, use_errno=True)
NAMES = {"ext2/ext3": "ext4"}  # stat(1) does not tell the three apart
# Otherwise the kernel goes on making the file system during the measurement.
MAKE = {"ext4": ["-E", "lazy_itable_init=0,lazy_journal_init=0"]}


class Absent(Exception):
    """Something is not available here; the words say what and why."""


def kind_of(path):
    name = subprocess.run(["stat", "-f", "-c", "%T", path], capture_output=True, text=True, check=True).stdout.strip()
    return NAMES.get(name, name)


def sync_file_system(path):
    descriptor = os.open(path, os.O_RDONLY)
    try:
        if LIBC.syncfs(descriptor) != 0:
            raise OSError(ctypes.get_errno(), "syncfs")
    finally:
        os.close(descriptor)


def sync_file(path):
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


sync_directory = sync_file


def sync_each(directory):
    """Flushes each file by itself, then the directories."""
    for folder, _, names in os.walk(directory, topdown=False):
        for name in names:
            sync_file(f"{folder}/{name}")
        sync_directory(folder)


@contextlib.contextmanager
def directory(parent):
    """One of our own below `parent`, removed in the end whatever is in it."""
    path = tempfile.mkdtemp(prefix="vaultry-compare-", dir=parent)
    try:
        yield path
    finally:
        subprocess.run(["chmod", "-R", "u+rwx", path], check=False)
        shutil.rmtree(path)


@contextlib.contextmanager
def mounted(kind, parent, size):
    """A new file system of `kind`, in a sparse image below `parent`."""
    if os.geteuid() != 0:
        raise Absent("only root can mount one")
    if not shutil.which(f"mkfs.{kind}"):
        raise Absent(f"there is no mkfs.{kind}")
    with directory(parent) as home:
        image, point = f"{home}/image", f"{home}/{kind}"
        os.mkdir(point)
        with open(image, "wb") as file:
            file.truncate(size)
        for words in (["mkfs." + kind, "-q", *MAKE.get(kind, []), image], ["mount", "-o", "loop", image, point]):
            if subprocess.run(words, capture_output=True).returncode != 0:
                raise Absent(" ".join(words[:1]) + " failed")
        try:
            yield point
        finally:
            subprocess.run(["umount", point], check=True)


@contextlib.contextmanager
def in_memory():
    """A directory on tmpfs, if there is one that keeps attributes."""
    if not os.path.isdir("/dev/shm") or kind_of("/dev/shm") != "tmpfs":
        raise Absent("/dev/shm is no tmpfs")
    with directory("/dev/shm") as home:
        try:
            os.setxattr(home, "user.probe", b"")
            os.removexattr(home, "user.probe")
        except OSError as error:
            raise Absent("it keeps no attributes before Linux 6.6") from error
        yield home
