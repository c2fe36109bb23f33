"""The rows of the comparison, and how one is measured: all ways in turns, or call by call."""
import contextlib
import dataclasses
import os
import statistics

from . import jobs, places, ways


@dataclasses.dataclass
class Row:
    """One job against its goals. `counted` are two sizes, if any: their difference tells the cost of one more item."""

    key: str
    title: str
    job: type
    size: object
    counted: tuple
    item: str = "item"
    calls: float = None
    wall: float = None  # a ratio
    excess: float = None  # or milliseconds more
    kinds: tuple = ("ext4",)


TREE = (400, 800)
PACKAGE = (200, 2 << 20)
SMALL_PACKAGES = ((300, 16 << 10), (600, 16 << 10))  # too large to be flushed item by item
ROWS = [
    Row("add-tree", "add 10,000 files of 4 KiB", jobs.Add, 10000, TREE, calls=12.2, wall=1.0),
    Row("add-package", "add a package, 200 files to 2 MiB", jobs.AddPackage, PACKAGE, SMALL_PACKAGES, calls=18,
        wall=1.0),
    Row("add-changed", "add a package of 200 files again, 5 of them changed", jobs.AddChanged, (200, 650 << 10), (),
        wall=0.5),
    Row("add-loaded", "add 20 files of 20 KB, others having written 1.5 GiB", jobs.AddLoaded, 20, (), wall=2.0),
    Row("add-loaded-200", "the same with 200 files", jobs.AddLoaded, 200, (), wall=2.0),
    Row("add-file", "add a file of 1 GiB", jobs.AddFile, 1024, (16, 32), item="MiB", wall=1.02),
    Row("add-clone", "add a file of 1 GiB by clone", jobs.AddFile, 1024, (16, 32), item="MiB", calls=0, excess=2,
        kinds=("xfs", "btrfs")),
    Row("add-letter", "add a file of 20 KiB", jobs.AddLetter, 20, (), wall=2.0),
    Row("add-move", "add the 10,000 by moving", jobs.AddByMoving, 10000, TREE, calls=6.5),
    Row("copy-tree", "copy out the 10,000", jobs.CopyOut, 10000, TREE, calls=12.1, wall=1.15),
    Row("copy-package", "copy out the package", jobs.CopyOutPackage, PACKAGE, SMALL_PACKAGES, calls=18, wall=1.15),
    Row("restore-tree", "restore the 10,000 in place", jobs.Restore, 10000, TREE, calls=14.2, wall=1.15),
    Row("remove-tree", "remove the 10,000", jobs.Remove, 10000, TREE, calls=2.2, wall=1.2),
    Row("remove-half", "remove 5,000 of 10,000 generations", jobs.RemoveHalf, 10000, TREE, item="generation",
        wall=1.5),
    Row("query", "query 10,000 generations, every field", jobs.Query, 10000, TREE, item="record", calls=5, wall=1.15),
    Row("list", "list --json of 10,000 generations", jobs.List, 10000, TREE, item="record"),
    Row("keep", "keep 20 KiB, in process, on disk", jobs.Keep, 20, (20, 40), item="add", calls=44, wall=1.1),
    Row("keep-many", "the same among 100,000 generations", jobs.KeepAmongMany, 100000, TREE, item="generation there",
        calls=0, wall=1.1),
    Row("held", "hold the store alone while 1 GiB is added, median", jobs.Held, 1024, ()),
    Row("held-most", "the same, at most", jobs.HeldMost, 1024, ()),
    Row("beside", "list, add, copy, show and remove 20 KiB while 4 GiB are added", jobs.BesideAnAdd, 4096, (),
        wall=1.3),
    Row("ask-many", "query by name among 100,000", jobs.AskAmongMany, 100000, TREE, item="generation there",
        calls=0, wall=1.1),
]
QUIET_AND_LOADED = (1, 10, 50, 100, 200, 250, 300, 1000, 10000)  # a folder has one item more than files
GROWTH = [
    ("files of 4 KiB in a document, added", jobs.Add, (1, 10, 100, 1000, 10000)),
    ("MiB in a file, added", jobs.AddFile, (1, 4, 16, 64, 256, 1024)),
    ("attributes on each of 1,000 files, added", jobs.AddAttributed, (0, 1, 3, 10)),
    ("generations in the store, all queried", jobs.Query, (10, 100, 1000, 10000, 100000)),
    ("generations in the store, 20 KiB kept", jobs.KeepAmongMany, (10, 100, 1000, 10000, 100000)),
    ("files of 20 KB in a folder, added", jobs.AddFlushedEach, QUIET_AND_LOADED),
    ("the same, others having written 1.5 GiB", jobs.AddLoaded, QUIET_AND_LOADED),
]


@contextlib.contextmanager
def opened(job, tools, place, size):
    with places.directory(place) as home:
        yield job(tools, home, size)


def take_turns(job, rounds):
    """Samples of every way, in turns, in an order that changes each round; slow peers sit out after the third."""
    samples = {name: {"wall": [], "cpu": []} for name in job.ways()}
    for name, way in job.ways().items():
        # Not timed: it brings programs, libraries and directories into the cache.
        samples[name]["peak"] = ways.peak_memory(way())
        job.undo()
    for number in range(rounds):
        names = [name for name in samples if number < 3 or name not in job.peers]
        for name in names if number % 2 == 0 else reversed(names):
            steps = job.ways()[name]()
            places.sync_file_system(job.home)
            job.disturb()
            wall, cpu = ways.measure(steps, job.inside, job.statistic)
            samples[name]["wall"].append(wall)
            samples[name]["cpu"].append(cpu)
            job.undo()
    return samples


def calls_of_one_more(row, tools, place, name):
    """The cost of one more item, by system call: from two sizes, so that starting up and an empty job cancel out."""
    totals = []
    for size in row.counted:
        with opened(row.job, tools, place, size) as job:
            os.sync()  # while much of anybody's data waits for a disk, a package is flushed by other calls
            totals.append((ways.count_calls(job.ways()[name]()), job.items))
    (few, fewer_items), (many, more_items) = totals
    return {call: (many[call] - few[call]) / (more_items - fewer_items) for call in many | few}


def measure(row, tools, place, options):
    """One row of the table on one file system."""
    with opened(row.job, tools, place, row.size) as job:
        samples = take_turns(job, options.rounds * 3 if job.inside else options.rounds)
        by_hand = job.by_hand
    for name in samples if row.counted and not options.no_calls else ():
        samples[name]["calls"] = sum(calls_of_one_more(row, tools, place, name).values())
    return {"by hand": by_hand, "ways": samples}


def grow(tools, place, rounds):
    """How long vaultry takes for more and more of what a job is made of: {what: {number: seconds}}."""
    series = {}
    for what, job, sizes in GROWTH:
        for size in sizes:
            with opened(job, tools, place, size) as one:
                walls = []
                for _ in range(rounds + 1):
                    steps = one.ours()
                    places.sync_file_system(place)
                    one.disturb()
                    walls.append(ways.measure(steps, one.inside)[0])
                    one.undo()
            series.setdefault(what, {})[str(size)] = statistics.median(walls[1:])  # the first one warms up
    return series
