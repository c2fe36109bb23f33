#!/usr/bin/python3
"""A volume with the weaknesses of distributed ones.

    faulty_volume.py BACKING MOUNTPOINT [quota=BYTES] [sizeless] [lost=CALL,…]

Shows BACKING. Data reaches it when the writing descriptor is flushed or closed, and only that descriptor is told that
there is no room; a flush of the whole volume reaches nobody. Access lists can be read but are not listed. If sizeless,
every file reports a size of 0 bytes. The lost calls are done, but report a failure.
"""
import errno
import os
import signal
import stat
import sys

import fuse

fuse.fuse_python_api = (0, 2)
BACKING, PLACE = os.path.abspath(sys.argv[1]), sys.argv[2]
OPTIONS = dict(word.partition("=")[::2] for word in sys.argv[3:])
QUOTA = int(OPTIONS.get("quota", sys.maxsize))


def real(path):
    return BACKING + path


def used():
    return sum(os.lstat(f"{folder}/{name}").st_size for folder, _, names in os.walk(BACKING) for name in names)


class Handle:
    def __init__(self, path, flags, *mode):
        self.pending, self.direct_io = [], True
        self.fd = os.open(real(path), flags & ~os.O_APPEND, *mode)

    def read(self, length, offset):
        return os.pread(self.fd, length, offset)

    def write(self, data, offset):
        self.pending.append((offset, data))
        return len(data)

    def flush(self):
        pending, self.pending = self.pending, []
        if used() + sum(len(data) for _, data in pending) > QUOTA:
            return -errno.EDQUOT
        for offset, data in pending:
            os.pwrite(self.fd, data, offset)
        return 0

    def fsync(self, _):
        return self.flush()

    def ftruncate(self, length):
        os.ftruncate(self.fd, length)

    def release(self, _):
        os.close(self.fd)


class Volume(fuse.Fuse):
    file_class = Handle

    def fsinit(self):
        signal.alarm(300)  # the process that mounted it may be gone

    def getattr(self, path):
        found = os.lstat(real(path))
        shown = fuse.Stat(**{name: getattr(found, name) for name in dir(found) if name.startswith("st_")})
        if "sizeless" in OPTIONS and stat.S_ISREG(found.st_mode):
            shown.st_size = 0
        return shown

    def readdir(self, path, _):
        return [fuse.Direntry(name, ino=1) for name in [".", ".."] + os.listdir(real(path))]

    def getxattr(self, path, name, size):
        value = os.getxattr(real(path), name, follow_symlinks=False)
        return os.fsdecode(value) if size else len(value)

    def setxattr(self, path, name, value, flags):
        os.setxattr(real(path), name, value.encode(), flags, follow_symlinks=False)  # the binding takes only text

    def removexattr(self, path, name):
        os.removexattr(real(path), name, follow_symlinks=False)

    def listxattr(self, path, size):
        names = [name for name in os.listxattr(real(path), follow_symlinks=False) if not name.startswith("system.")]
        return names if size else sum(len(name) + 1 for name in names)

    def utimens(self, path, access, change):
        times = [time.tv_sec * 10**9 + time.tv_nsec for time in (access, change)]
        os.utime(real(path), ns=tuple(times), follow_symlinks=False)


def pass_on(call):
    def done(_, *words):
        call(*[real(word) if isinstance(word, str) else word for word in words])
        return -errno.EIO if call.__name__ in OPTIONS.get("lost", "").split(",") else 0
    return done


for name in "chmod", "link", "mkdir", "rename", "rmdir", "truncate", "unlink":
    setattr(Volume, name, pass_on(getattr(os, name)))
Volume.chown = pass_on(os.lchown)
os.umask(0)
volume = Volume(dash_s_do="setsingle")
volume.parse([PLACE, "-s", "-o", "hard_remove,use_ino,entry_timeout=0,attr_timeout=0"])
volume.main()
