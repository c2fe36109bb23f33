"""The picture of docs/performance.md: the time of each job against doing it by hand, and how cost grows.

Plain SVG: the same figures give the same bytes.
"""
import math
from xml.sax.saxutils import escape

WIDTH, LEFT, RIGHT = 900, 290, 30
ROW, TOP = 24, 78
LEAST, MOST = 0.25, 64  # ratios shown
COLOURS = {"vaultry": "#0b6e4f", "rsync": "#4477aa", "ostree": "#aa3377", "restic": "#cc7722", "git": "#777777",
           "borg": "#bb3333"}
CHART, PER_LINE = 270, 3


def duration(seconds):
    for least, factor, unit in ((1, 1, "s"), (1e-3, 1e3, "ms")):
        if seconds >= least:
            return f"{seconds * factor:.3g} {unit}"
    return f"{seconds * 1e6:.3g} µs"


def text(x, y, words, anchor="start", size=12, colour="#222"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" fill="{colour}">'
            f"{escape(words)}</text>")


def stroke(x1, y1, x2, y2, colour="#ccc", width=1, more=""):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"{more}/>')


def dot(x, y, colour, radius=4, words=""):
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{colour}"><title>{escape(words)}</title></circle>'


def between(value, least, most, start, end):
    """Where a value lies on a logarithmic axis."""
    share = (math.log(value) - math.log(least)) / (math.log(most) - math.log(least))
    return start + (end - start) * min(max(share, 0), 1)


def place(ratio):
    return between(ratio, LEAST, MOST, LEFT, WIDTH - RIGHT)


def ratios(rows):
    """A line for each job, with a dot for each program; further left is faster."""
    bottom = TOP + ROW * len(rows)
    shapes = [text(20, 28, "Time, against doing it by hand (cp -a and the like)", size=16),
              text(20, TOP - 12, "further left is faster", colour="#777")]
    used = [name for name in COLOURS if any(name in dots for _, _, dots in rows)]
    for number, name in enumerate(used):
        shapes += [dot(LEFT + 80 * number, 46, COLOURS[name], 6 if name == "vaultry" else 4),
                   text(LEFT + 10 + 80 * number, 50, name)]
    shapes += [stroke(WIDTH - 118, 40, WIDTH - 118, 52, "#0b6e4f", 2), text(WIDTH - 110, 50, "goal")]
    for tick in (0.25, 0.5, 1, 2, 4, 8, 16, 32, 64):
        shapes += [stroke(place(tick), TOP - 6, place(tick), bottom, "#444" if tick == 1 else "#ddd"),
                   text(place(tick), TOP - 12, f"{tick:g}", "middle", 11, "#777")]
    for number, (title, goal, dots) in enumerate(rows):
        y = TOP + ROW * number + ROW / 2
        shapes.append(text(LEFT - 12, y + 4, title, "end"))
        if goal:
            shapes.append(stroke(place(goal), y - 8, place(goal), y + 8, "#0b6e4f", 2))
        for name in reversed(list(dots)):  # ours on top
            shapes.append(dot(place(dots[name]), y, COLOURS[name], 6 if name == "vaultry" else 4,
                              f"{name}: {dots[name]:.2f}"))
    return shapes, bottom


def chart(title, series, x, y):
    """Cost over number, both logarithmic: a curve that rises like the dashed line is in proportion."""
    points = [(max(int(number), 0.5), seconds * 1e3) for number, seconds in series.items()]
    left, right, bottom, top = x + 44, x + CHART - 20, y + 150, y + 26
    numbers, costs = zip(*points)
    low, high = 10 ** math.floor(math.log10(min(costs))), 10 ** math.ceil(math.log10(max(costs)))

    def at(number, cost):
        return between(number, min(numbers), max(numbers), left, right), between(cost, low, high, bottom, top)
    shapes = [text(x + 6, y + 12, title), stroke(left, bottom, right, bottom, "#888"),
              stroke(left, bottom, left, top, "#888")]
    decade = low
    while decade <= high * 1.001:
        shapes += [stroke(left, at(1, decade)[1], right, at(1, decade)[1], "#eee"),
                   text(left - 4, at(1, decade)[1] + 4, f"{decade:g}", "end", 10, "#777")]
        decade *= 10
    more = math.log10(numbers[-1] / numbers[0]) - math.log10(high / costs[0])  # beyond the top of the chart
    end = numbers[-1] / 10 ** max(more, 0)
    shapes.append(stroke(*at(*points[0]), *at(end, costs[0] * end / numbers[0]), "#aaa", 1,
                         ' stroke-dasharray="4 4"'))
    path = " ".join(f"{px:.1f},{py:.1f}" for px, py in (at(*point) for point in points))
    shapes.append(f'<polyline points="{path}" fill="none" stroke="#0b6e4f" stroke-width="2"/>')
    for (number, cost), anchor in ((points[0], "start"), (points[-1], "end")):
        shapes.append(text(at(number, cost)[0], at(number, cost)[1] - 8, duration(cost / 1e3), anchor, 10))
    for (number, cost), name in zip(points, series):
        px, py = at(number, cost)
        shapes += [dot(px, py, "#0b6e4f", 3, f"{name}: {duration(cost / 1e3)}"),
                   text(px, bottom + 14, short(int(name)), "middle", 10, "#777")]
    return shapes


def short(number):
    return f"{number // 1000}k" if number >= 10000 else str(number)


def draw(rows, growth):
    shapes, bottom = ratios(rows)
    height = bottom + 30
    if growth:
        shapes.append(text(20, bottom + 44, "How vaultry's time grows (both scales logarithmic)", size=16))
        for number, (title, series) in enumerate(growth.items()):
            shapes += chart(title, series, 20 + CHART * (number % PER_LINE) + 15 * (number % PER_LINE),
                            bottom + 66 + 190 * (number // PER_LINE))
        height = bottom + 66 + 190 * math.ceil(len(growth) / PER_LINE) + 10
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height:.0f}" width="{WIDTH}" '
            f'height="{height:.0f}" font-family="sans-serif">\n<rect width="100%" height="100%" fill="white"/>\n'
            + "\n".join(shapes) + "\n</svg>\n")
