"""Whether an item costs more system calls than it did: counts are exact, so they may fail a check; times never do."""
import concurrent.futures
import json
import os
import pathlib
import re

from . import contest, places, ways

FIGURES = pathlib.Path(__file__).parent.parent / "calls.txt"
HEAD = """\
# System calls that one more item costs vaultry; ./check fails when one grows beyond its figure.
# docs/performance.md tells more. Written by benchmarks/compare --calls --write.
"""
ORDINARY = 64099  # no account has it, and none is needed
OLDEST = (6, 6)  # without fchmodat2 the C library makes several calls instead


def require_kernel():
    release = os.uname().release
    if tuple(map(int, re.findall(r"\d+", release)[:2])) < OLDEST:
        raise places.Absent(f"Linux {release} lacks calls that the figures were counted with")


def read_figures():
    lines = [line.split() for line in FIGURES.read_text(encoding="utf-8").splitlines() if line[:1] not in ("#", "")]
    kinds = lines[0][1:]
    return {key: {kind: float(figure) for kind, figure in zip(kinds, figures) if figure != "-"}
            for key, *figures in lines[1:]}


def write_figures(figures):
    lines = [f"{'row':14}" + "".join(f"{kind:>9}" for kind in KINDS)]
    for key, row in figures.items():
        lines.append(f"{key:14}" + "".join(f"{row[kind]:9.2f}" if kind in row else f"{'-':>9}" for kind in KINDS))
    FIGURES.write_text(HEAD + "\n".join(lines) + "\n", encoding="utf-8")


def become_ordinary():
    """Root may do more and so needs fewer calls. Where no file system can be mounted, the user is mostly not root."""
    if os.geteuid() == 0:
        os.setgroups([])
        os.setgid(ORDINARY)
        os.setuid(ORDINARY)


def count(kind, rows, tools, directory):
    """{row: calls by name}, for vaultry only."""
    ways.require_tracing()
    require_kernel()
    with places.mounted("ext4", directory, 1 << 30) if kind == "ext4" else places.in_memory() as place:
        return {row.key: contest.calls_of_one_more(row, tools, place, "vaultry")
                for row in rows if row.kinds == ("ext4",) and row.counted}


def count_as_ordinary(*what):
    with concurrent.futures.ProcessPoolExecutor(1, initializer=become_ordinary) as pool:
        return pool.submit(count, *what).result()


KINDS = {"ext4": count, "tmpfs": count_as_ordinary}


def grown(key, calls, figure):
    """Whether a row costs more than it may; prints the calls that make the difference."""
    now = sum(calls.values())
    if round(now, 2) <= figure:
        return False
    print(f"   FAILED {key}: {now:.2f} calls an item, and {figure:.2f} is the figure")
    most_first = sorted(calls.items(), key=lambda call: -call[1])
    print("      " + ", ".join(f"{name} {each:.2f}" for name, each in most_first if each))
    return True


def take(rows, tools, options):
    """Writes the present counts as the figures of these rows."""
    figures = read_figures()
    for kind, how in KINDS.items():
        for key, calls in how(kind, rows, tools, options.directory).items():
            figures.setdefault(key, {})[kind] = sum(calls.values())
    write_figures(figures)


def compare(rows, tools, options):
    """Runs on ext4 as root, else on tmpfs as an ordinary user: how many rows passed and failed, or why none did."""
    figures, skips = read_figures(), []
    for kind, how in KINDS.items():
        try:
            counted = how(kind, rows, tools, options.directory)
        except places.Absent as absent:
            skips.append((f"system calls per item on {kind}", str(absent)))
            continue
        failed = sum(grown(key, calls, figures[key][kind]) for key, calls in counted.items())
        return {"passed": len(counted) - failed, "failed": failed, "skips": []}
    return {"passed": 0, "failed": 0, "skips": skips}


def check(rows, tools, options):
    """For ./check: an exit status, and a line in its list of results if it wants one."""
    print("\n== system calls per item", flush=True)
    if options.write:
        take(rows, tools, options)
        return 0
    record = compare(rows, tools, options)
    for name, why in record["skips"]:
        print(f"   SKIPPED: {name}: {why}")
    print("   {passed} rows within their figures, {failed} beyond".format(**record))
    if not options.sum:
        return 1 if record["failed"] else 0
    with options.sum.open("a", encoding="utf-8") as file:
        file.write(json.dumps(record) + "\n")
    return 0  # ./check gets the failures from the list; another status tells it that nothing was counted
