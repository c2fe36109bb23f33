"""The documents and stores of the jobs, with the same bytes, names and sizes in every run, on every machine."""
import os
import plistlib
import random
import struct
from datetime import datetime, timedelta

PREFIX = "user.com.corvane.vaultry."


def make_file(path, size):
    # Not zeros, and not repeating within a block, so that no file system can store them in less space.
    block = random.Random(1).randbytes(1 << 20)
    with open(path, "r+b" if os.path.exists(path) else "wb") as file:
        for start in range(0, size, len(block)):
            file.write((start.to_bytes(16, "little") + block[16:])[: size - start])


def make_tree(path, files):
    """Files of 4 KiB, a hundred to a folder."""
    generator = random.Random(2)
    for number in range(files):
        if number % 100 == 0:
            folder = f"{path}/folder{number // 100:03}"
            os.makedirs(folder)
        with open(f"{folder}/file{number:05}", "wb") as file:
            file.write(generator.randbytes(4096))


def make_letters(path, files):
    """A folder of files of 20 KB."""
    generator = random.Random(4)
    os.mkdir(path)
    for number in range(files):
        with open(f"{path}/letter{number:05}", "wb") as file:
            file.write(generator.randbytes(20000))


def access_list(user):
    """An access-control list in the kernel's form: the rights of the mode, and one more user who may read."""
    entries = [(0x01, 6, -1), (0x02, 4, user), (0x04, 4, -1), (0x10, 4, -1), (0x20, 4, -1)]
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHi", *entry) for entry in entries)


def make_package(path, size):
    """A document package: attributes everywhere, some access-control lists, holes and second names."""
    files, largest = size
    generator = random.Random(3)
    for number in range(files):
        folder = f"{path}/part{number // 20:02}"
        os.makedirs(folder, exist_ok=True)
        name = f"{folder}/element{number:03}"
        length = largest * (number % 20 + 1) ** 2 // 400
        with open(name, "wb") as file:
            file.write(generator.randbytes(length))
            if number % 10 == 3:  # data, a hole, data
                file.seek(length * 4)
                file.write(b"the end")
        if number % 4 == 0:
            os.setxattr(name, "system.posix_acl_access", access_list(12345))
        if number % 20 == 7:
            os.link(name, name + ".again")
    for folder, _, names in os.walk(path):
        for item in [folder] + [f"{folder}/{name}" for name in names if not name.endswith(".again")]:
            for attribute in range(3):
                os.setxattr(item, f"user.example.attribute{attribute}", b"%d of three" % attribute)


def change_some(path, turn):
    """Other bytes in five of the package's files."""
    generator = random.Random(turn)
    for number in range(5):
        place = 20 * ((turn + number) % 10) + (turn + 4 * number) % 20
        with open(f"{path}/part{place // 20:02}/element{place:03}", "r+b") as file:
            file.write(generator.randbytes(4096))


def make_attributed_tree(path, attributes):
    """A thousand small files, each with that many attributes."""
    make_tree(path, 1000)
    for folder, _, names in os.walk(path):
        for name in names:
            for number in range(attributes):
                os.setxattr(f"{folder}/{name}", f"user.example.attribute{number}", b"a value of 20 bytes.")


def count_items(path):
    return 1 + sum(len(folders) + len(files) for _, folders, files in os.walk(path))


def read_everything(path):
    """Brings it into the cache, so that no program has to read it first."""
    for name in [path] if os.path.isfile(path) else [f"{d}/{f}" for d, _, files in os.walk(path) for f in files]:
        with open(name, "rb") as file:
            while file.read(1 << 20):
                pass


def generation_name(number):
    return f"Report {number:06}.txt"


def fill_store(store, first, count):
    """Generations of 1 KiB, written straight into a store: adding each would wait for the disk, and we want 100,000."""
    os.chmod(store, 0o755)
    for number in range(first, first + count):
        path = f"{store}/{generation_name(number)}"
        kept = datetime(2026, 1, 1) + timedelta(minutes=number)
        info = {"vaultry.document": b"/home/ann/Documents/Report.txt", "vaultry.time": kept}
        with open(path, "wb") as file:
            file.write(b"x" * 1024)
        os.setxattr(path, PREFIX + "orig_perms_v1", b"\x04")
        os.setxattr(path, PREFIX + "info", plistlib.dumps(info, fmt=plistlib.FMT_BINARY))
        os.setxattr(path, PREFIX + "origdisplayname", b"Report.txt")
        if number % 10 == 0:
            os.setxattr(path, PREFIX + "gen_options", struct.pack("<Q", 4))
        os.chmod(path, 0o444)
    os.chmod(store, 0o555)
