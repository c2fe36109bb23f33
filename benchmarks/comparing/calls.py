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
OLDEST = (6, 6)  # without fchmodat2 the C library needs several calls in its place


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
    kinds = ["ext4", "tmpfs"]
    lines = [f"{'row':14}" + "".join(f"{kind:>9}" for kind in kinds)]
    for key, row in figures.items():
        lines.append(f"{key:14}" + "".join(f"{row[kind]:9.2f}" if kind in row else f"{'-':>9}" for kind in kinds))
    FIGURES.write_text(HEAD + "\n".join(lines) + "\n", encoding="utf-8")


def become_ordinary():
    """Root, who may do more, needs fewer calls; where no file system can be mounted there is mostly no root."""
    if os.geteuid() == 0:
        os.setgroups([])
        os.setgid(ORDINARY)
        os.setuid(ORDINARY)


def count(kind, rows, tools, directory):
    """{row: calls by name}, of vaultry alone."""
    ways.require_tracing()
    require_kernel()
    with places.mounted("ext4", directory, 1 << 30) if kind == "ext4" else places.in_memory() as place:
        return {row.key: contest.calls_of_one_more(row, tools, place, "vaultry")
                for row in rows if row.kinds == ("ext4",)}


def count_as_ordinary(*what):
    with concurrent.futures.ProcessPoolExecutor(1, initializer=become_ordinary) as pool:
        return pool.submit(count, *what).result()


def grown(key, calls, figure):
    """Whether a row costs more than it may; says by which calls."""
    now = sum(calls.values())
    if round(now, 2) <= figure:
        return False
    print(f"   FAILED {key}: {now:.2f} calls an item, and {figure:.2f} is the figure")
    most_first = sorted(calls.items(), key=lambda call: -call[1])
    print("      " + ", ".join(f"{name} {each:.2f}" for name, each in most_first if each))
    return True


def check(rows, tools, options):
    """On ext4 as root; else, or when figures are to be written, on tmpfs as an ordinary user."""
    print("\n== system calls per item", flush=True)
    figures = {} if options.write else read_figures()
    passed, failed, skips = 0, 0, []
    for kind in ("ext4", "tmpfs"):
        try:
            counted = (count if kind == "ext4" else count_as_ordinary)(kind, rows, tools, options.directory)
        except places.Absent as absent:
            skips.append((f"system calls per item on {kind}", str(absent)))
            continue
        for key, calls in counted.items():
            if options.write:
                figures.setdefault(key, {})[kind] = sum(calls.values())
            elif grown(key, calls, figures[key][kind]):
                failed += 1
            else:
                passed += 1
        if not options.write:
            break
    if options.write:
        write_figures(figures)
    for name, why in skips if not passed and not failed else ():
        print(f"   SKIPPED: {name}: {why}")
    print(f"   {passed} rows within their figures, {failed} beyond")
    if options.sum:
        record = {"passed": passed, "failed": failed, "skips": skips if passed + failed == 0 else []}
        with options.sum.open("a", encoding="utf-8") as file:
            file.write(json.dumps(record) + "\n")
    return 1 if failed else 0
