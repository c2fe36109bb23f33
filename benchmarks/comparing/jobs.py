"""The jobs: each makes its workload, and knows how vaultry does it and how it is done by hand.

A way prepares what one run needs, untimed, and returns its steps. Destinations are fresh in every run and small files
stay until the job ends: a file system may search long for a place among inodes that have just been freed, and the next
way would pay for that.
"""
import functools
import os
import shutil
import statistics
import subprocess
import time

from . import peers, places, workloads

CP = ["cp", "-a", "--reflink=auto"]


class Job:
    """`size` says how much work it is; its calls are divided by `items`."""

    inside = False  # whether its programs measure themselves
    statistic = staticmethod(statistics.median)  # of what they print
    by_hand = "cp -a"  # what vaultry is compared with
    peers = {}  # other programs that do it

    def __init__(self, tools, home, size):
        self.tools, self.home, self.items = tools, home, size
        self.store, self.source, self.target = f"{home}/store", f"{home}/source", f"{home}/target"
        self.turn = 0
        os.mkdir(self.target)
        os.mkdir(self.store)
        self.run("init")
        self.prepare(size)
        places.sync_file_system(home)

    def vaultry(self, *words):
        return [self.tools.command, "--store", self.store, *words]

    def run(self, *words):
        subprocess.run(self.vaultry(*words), check=True, stdout=subprocess.DEVNULL)

    def next(self):
        """A name that no run has used before."""
        self.turn += 1
        return f"run{self.turn:04}"

    def flush(self):
        return functools.partial(places.sync_file_system, self.home)

    def flush_directory(self, path):
        return functools.partial(places.sync_directory, path)

    def ways(self):
        return {"vaultry": self.ours, self.by_hand: self.theirs} | {
            name: functools.partial(way, self) for name, way in self.peers.items()}

    def disturb(self):
        """Before each run, untimed; nothing is flushed after it."""

    def undo(self):
        """After each run."""


class Files(Job):
    """A job on one document, which `make` makes."""

    make = staticmethod(workloads.make_tree)

    def prepare(self, size):
        self.make(self.source, size)
        workloads.read_everything(self.source)
        self.items = workloads.count_items(self.source)


class Add(Files):
    """It lasts until everything is on disk: the library flushes, and so do the others."""

    peers = peers.INSTALLED

    def ours(self):
        return [self.vaultry("add", "--no-share", "--name", self.next(), self.source)]

    def theirs(self):
        return [[*CP, self.source, f"{self.target}/{self.next()}"], self.flush()]


class AddPackage(Add):
    make = staticmethod(workloads.make_package)


class AddAttributed(Add):
    make = staticmethod(workloads.make_attributed_tree)


class AddFlushedEach(Files):
    """By hand, each file is flushed by itself, as programs do that save several."""

    make = staticmethod(workloads.make_letters)
    by_hand = "cp -a, fsync of each"
    how = ["--no-share"]

    def ours(self):
        return [self.vaultry("add", *self.how, "--name", self.next(), self.source)]

    def theirs(self):
        copy = f"{self.target}/{self.next()}"
        return [["cp", "-a", self.source, copy], functools.partial(places.sync_each, copy),
                self.flush_directory(self.target)]


class AddChanged(AddFlushedEach):
    """Five files have changed since the last version, and the others share its room."""

    make = staticmethod(workloads.make_package)
    how = []

    def prepare(self, size):
        super().prepare(size)
        self.run("add", self.source)

    def ours(self):
        workloads.change_some(self.source, self.turn)
        return super().ours()

    def theirs(self):
        workloads.change_some(self.source, self.turn)
        return super().theirs()


class AddLoaded(AddFlushedEach):
    """Somebody else has just written much to the same volume, and nothing of it is on disk yet."""

    def disturb(self):
        workloads.make_file(f"{self.home}/others", 1500 << 20)


class AddFile(Add):
    """One file; its calls are counted by the MiB."""

    def prepare(self, size):
        os.mkdir(self.source)
        self.source += "/film"
        workloads.make_file(self.source, size << 20)
        workloads.read_everything(self.source)
        self.items = size

    def undo(self):
        """Many runs of this would fill the disk."""
        subprocess.run(["rm", "-rf", self.target], check=True)
        os.mkdir(self.target)
        kept = [name for name in os.listdir(self.store) if not name.startswith(".")]
        if kept:
            self.run("remove", *kept)


class AddLetter(AddFlushedEach):
    """One small file, with the command."""

    by_hand = "cp, 2 fsync"

    def prepare(self, size):
        workloads.make_file(self.source, size << 10)

    def theirs(self):
        copy = f"{self.target}/{self.next()}"
        return [["cp", self.source, copy], functools.partial(places.sync_file, copy), self.flush_directory(self.target)]


class AddByMoving(Files):
    by_hand = "mv, chmod -R a-w"

    def document(self):
        path = f"{self.home}/{self.next()}"
        subprocess.run([*CP, self.source, path], check=True)
        return path

    def ours(self):
        document = self.document()
        return [self.vaultry("add", "--move", "--name", os.path.basename(document), document)]

    def theirs(self):
        document = self.document()
        moved = f"{self.target}/{os.path.basename(document)}"
        return [functools.partial(os.rename, document, moved), ["chmod", "-R", "a-w", moved], self.flush()]


class CopyOut(Files):
    def prepare(self, size):
        super().prepare(size)
        self.run("add", "--name", "generation", self.source)

    def ours(self):
        return [self.vaultry("copy", "generation", f"{self.target}/{self.next()}")]

    def theirs(self):
        # By hand, too, the copy is made from the store: the same data, on the same disk, equally cached.
        return [[*CP, f"{self.store}/generation", f"{self.target}/{self.next()}"]]


class CopyOutPackage(CopyOut):
    make = staticmethod(workloads.make_package)


class Restore(CopyOut):
    by_hand = "cp -a, mv, mv, rm -r"

    def prepare(self, size):
        super().prepare(size)
        self.document = f"{self.home}/document"
        subprocess.run([*CP, self.source, self.document], check=True)

    def ours(self):
        return [self.vaultry("restore", "--replace", "--no-backup", "generation", self.document)]

    def theirs(self):
        new, old = f"{self.home}/new", f"{self.home}/old"
        return [[*CP, self.source, new], self.flush(), functools.partial(os.rename, self.document, old),
                functools.partial(os.rename, new, self.document), self.flush_directory(self.home), ["rm", "-rf", old]]


class Remove(Files):
    by_hand = "rm -rf"

    def ours(self):
        name = self.next()
        self.run("add", "--name", name, self.source)
        return [self.vaultry("remove", name)]

    def theirs(self):
        path = f"{self.target}/{self.next()}"
        subprocess.run([*CP, self.source, path], check=True)
        return [["rm", "-rf", path], self.flush_directory(self.target)]


class Generations(Job):
    """A job on a store of `size` generations."""

    def prepare(self, size):
        workloads.fill_store(self.store, 0, size)


class RemoveHalf(Generations):
    by_hand = "rm"

    def prepare(self, size):
        super().prepare(size)
        self.items = size // 2
        self.names = [workloads.generation_name(number) for number in range(0, size, 2)]

    def ours(self):
        if self.turn:
            workloads.fill_store(self.store, 0, 2 * len(self.names))
        self.next()
        return [self.vaultry("remove", *self.names)]

    def theirs(self):
        folder = f"{self.target}/{self.next()}"
        os.mkdir(folder)
        workloads.fill_store(folder, 0, 2 * len(self.names))
        os.chmod(folder, 0o755)
        return [["rm", "-f", *(f"{folder}/{name}" for name in self.names)], self.flush_directory(folder)]


class List(Generations):
    by_hand = "readdir, 3 getxattr"

    def ours(self):
        return [self.vaultry("list", "--json")]

    def theirs(self):
        return [[self.tools.inside, "query-floor", self.store, "1"]]


class Query(List):
    """All records with every field, in a process that has the store open."""

    inside = True
    turns = "1"

    def ours(self):
        return [[self.tools.inside, "query", self.store, self.turns]]

    def theirs(self):
        return [[self.tools.inside, "query-floor", self.store, self.turns]]


class Keep(Job):
    """One document of 20 KiB after the other, in one process, each on disk when the call returns."""

    inside = True
    by_hand = "write, rename, 2 fsync"

    def prepare(self, size):
        workloads.make_file(self.source, 20 << 10)
        self.batch = size

    def keep(self, how, directory):
        first, self.turn = self.turn, self.turn + self.batch
        return [[self.tools.inside, how, directory, self.source, str(first), str(self.batch)]]

    def ours(self):
        return self.keep("keep", self.store)

    def theirs(self):
        return self.keep("keep-floor", self.target)


class AmongMany(Job):
    """The same with many generations in the store as with ten."""

    inside = True
    by_hand = "among 10"
    batch = 20

    def prepare(self, size):
        workloads.make_file(self.source, 20 << 10)
        self.few = f"{self.home}/few"
        shutil.copytree(self.store, self.few)
        workloads.fill_store(self.few, 0, 10)
        workloads.fill_store(self.store, 0, size)

    def ours(self):
        return self.work(self.store)

    def theirs(self):
        return self.work(self.few)


class KeepAmongMany(AmongMany):
    def work(self, store):
        first, self.turn = self.turn, self.turn + self.batch
        return [[self.tools.inside, "keep", store, self.source, str(first), str(self.batch)]]


class AskAmongMany(AmongMany):
    def work(self, store):
        return [[self.tools.inside, "ask", store, workloads.generation_name(7), str(self.batch)]]


class Held(Job):
    """How long an add has the store alone, whatever is added."""

    inside = True
    by_hand = "adding 20 KiB"
    batch = 3

    def prepare(self, size):
        workloads.make_file(self.source, size << 20)
        self.small = f"{self.home}/small"
        workloads.make_file(self.small, 20 << 10)

    def add(self, document):
        first, self.turn = self.turn, self.turn + self.batch
        return [[self.tools.inside, "held", self.store, document, str(first), str(self.batch)]]

    def ours(self):
        return self.add(self.source)

    def theirs(self):
        return self.add(self.small)

    def undo(self):
        kept = [name for name in os.listdir(self.store) if not name.startswith(".")]
        self.run("remove", *kept)


class HeldMost(Held):
    statistic = max


class BesideAnAdd(Job):
    """What others do in a store while somebody adds a large file to it, or to another store on the same disk."""

    by_hand = "to another store"

    def prepare(self, size):
        workloads.make_file(self.source, size << 20)
        self.small, self.beside = f"{self.home}/small", None
        workloads.make_file(self.small, 20 << 10)
        self.run("add", "--name", "kept", self.small)
        self.other = f"{self.home}/other"
        subprocess.run([self.tools.command, "--store", self.other, "init"], check=True, stdout=subprocess.DEVNULL)

    def others(self):
        name = self.next()
        return [self.vaultry("list"), self.vaultry("add", "--name", name, self.small),
                self.vaultry("copy", name, f"{self.target}/{name}"), self.vaultry("show", name),
                self.vaultry("remove", name)]

    def ours(self):
        self.large_to = self.store
        return self.others()

    def theirs(self):
        self.large_to = self.other
        return self.others()

    def disturb(self):
        self.beside = subprocess.Popen([self.tools.command, "--store", self.large_to, "add", "--name", "large",
                                        self.source], stdout=subprocess.DEVNULL)
        time.sleep(0.3)

    def undo(self):
        if self.beside is None:
            return
        if self.beside.wait() != 0:
            raise RuntimeError("the large file was not kept")
        self.beside = None
        subprocess.run([self.tools.command, "--store", self.large_to, "remove", "large"], check=True)
