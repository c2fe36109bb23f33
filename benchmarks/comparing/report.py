"""The results for people: a line for each row, the tables of docs/performance.md, and the picture beside them."""
import statistics

from . import picture
from .picture import duration

NOT_BY_HAND = ("rsync", "ostree", "restic", "git", "borg")


def median(samples, what="wall"):
    return statistics.median(samples[what])


def ratio(got, name="vaultry", what="wall"):
    """Against the same job by hand."""
    return median(got["ways"][name], what) / max(median(got["ways"][got["by hand"]], what), 1e-9)


def line(row, kind, got):
    each = "; ".join(f"{name} {duration(median(way))}, {way['peak'] / 1024:.1f} MiB"
                     + (f", {way['calls']:.2f} calls" if "calls" in way else "") for name, way in got["ways"].items())
    return f"{row.key} on {kind}: {ratio(got):.2f} (cpu {ratio(got, what='cpu'):.2f}): {each}"


def against(figure, goal, unit=""):
    """A figure beside its goal; in bold if it misses that."""
    text = f"{figure:.2f}".rstrip("0").rstrip(".") + unit
    if goal is None:
        return text
    return f"**{text}** of {goal:g}{unit}" if figure > goal else f"{text} of {goal:g}{unit}"


def calls_cell(row, ways, name):
    if "calls" not in ways[name]:
        return "-"
    return against(ways[name]["calls"], row.calls if name == "vaultry" else None)


def wall_cell(row, got):
    if row.excess is not None:
        ours, theirs = (median(got["ways"][name]) for name in ("vaultry", got["by hand"]))
        return against((ours - theirs) * 1e3, row.excess, " ms more")
    return against(ratio(got), row.wall)


def goals_table(rows, results):
    lines = ["| work | calls | by hand | wall | vaultry | by hand | cpu | peak memory |", "|---" * 8 + "|"]
    for row in rows:
        for kind, got in results.get(row.key, {}).items():
            ways, title = got["ways"], row.title + (f", {kind}" if kind != "ext4" else "")
            cells = [f"{title} (against `{got['by hand']}`)",
                     calls_cell(row, ways, "vaultry") + ("" if row.item == "item" else f" per {row.item}"),
                     calls_cell(row, ways, got["by hand"]), wall_cell(row, got), duration(median(ways["vaultry"])),
                     duration(median(ways[got["by hand"]])), f"{ratio(got, what='cpu'):.2f}",
                     f"{ways['vaultry']['peak'] / 1024:.1f} MiB"]
            lines.append("| " + " | ".join(cells) + " |")
    return lines


def peer_cell(got, name):
    if name not in got["ways"]:
        return "-"
    calls = got["ways"][name].get("calls")
    return f"{ratio(got, name):.2f}" + (f" ({calls:.1f})" if calls is not None else "")


def peers_table(rows, results):
    names = ("vaultry", *NOT_BY_HAND)
    lines = ["| work | " + " | ".join(names) + " |", "|---" * (len(names) + 1) + "|"]
    for row in rows:
        got = results.get(row.key, {}).get("ext4")
        if got and any(name in got["ways"] for name in NOT_BY_HAND):
            lines.append(f"| {row.title} | " + " | ".join(peer_cell(got, name) for name in names) + " |")
    return lines


def growth_table(growth):
    lines = ["| of what, and for what | " + "how many: how long |", "|---|---|"]
    for what, series in growth.items():
        cells = [f"{int(number):,}: {duration(seconds)}" for number, seconds in series.items()]
        lines.append(f"| {what} | " + "; ".join(cells) + " |")
    return lines


def write(rows, results, docs):
    """Puts the tables between the marks that the page has for each, and draws the picture."""
    page = docs / "performance.md"
    text = page.read_text(encoding="utf-8")
    for name, lines in (("goals", goals_table(rows, results["rows"])), ("peers", peers_table(rows, results["rows"])),
                        ("growth", growth_table(results["growth"]))):
        start = text.index(f"<!-- {name} -->\n") + len(f"<!-- {name} -->\n")
        text = text[:start] + "\n".join(lines) + "\n" + text[text.index("<!-- end -->", start):]
    page.write_text(text, encoding="utf-8")
    bars = [(row.title + (f", {kind}" if kind != "ext4" else ""), row.wall,
             {name: ratio(got, name) for name in ("vaultry", *NOT_BY_HAND) if name in got["ways"]})
            for row in rows for kind, got in results["rows"].get(row.key, {}).items()]
    (docs / "performance.svg").write_text(picture.draw(bars, results["growth"]), encoding="utf-8")
