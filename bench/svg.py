"""Two kinds of plots as SVG: bars and lines, both on logarithmic scales."""
import html
import math

WIDTH = 760
COLORS = ["#c0392b", "#2c7fb8", "#41ab5d", "#f39c12", "#756bb1", "#636363", "#1abc9c", "#e377c2",
          "#8c564b"]
FONT = 'font-family="sans-serif" font-size="12"'


def time_text(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def text(x, y, words, anchor="start", extra=""):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>'
            f'{html.escape(words)}</text>')


def line(x1, y1, x2, y2, color="#ccc", width=1):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{color}" '
            f'stroke-width="{width}"/>')


def document(title, height, parts):
    head = (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
            f'viewBox="0 0 {WIDTH} {height}" {FONT}>')
    frame = ['<rect width="100%" height="100%" fill="white"/>',
             text(10, 20, f"{title} (logarithmic scale)", extra='font-weight="bold"')]
    return "\n".join([head, *frame, *parts, "</svg>"]) + "\n"


class Scale:
    """Maps values to places, by their logarithms, whole powers of ten at both ends."""

    def __init__(self, values, begin, end):
        self.low = math.floor(math.log10(min(values)))
        self.high = max(math.ceil(math.log10(max(values))), self.low + 1)
        self.begin, self.end = begin, end

    def __call__(self, value):
        part = (math.log10(value) - self.low) / (self.high - self.low)
        return self.begin + part * (self.end - self.begin)

    def ticks(self):
        return [10.0 ** power for power in range(self.low, self.high + 1)]


def bars(title, rows):
    """rows: (label, median, least, greatest), shortest first; the whisker is the spread."""
    left, right, step = 190, WIDTH - 90, 26
    bottom = 40 + step * len(rows)
    scale = Scale([row[2] for row in rows] + [row[3] for row in rows], left, right)
    parts = []
    for tick in scale.ticks():
        parts += [line(scale(tick), 35, scale(tick), bottom),
                  text(scale(tick), bottom + 15, time_text(tick), "middle")]
    for number, (label, median, least, greatest) in enumerate(rows):
        y = 40 + step * number
        color = COLORS[0] if label.startswith("Zelvo") else COLORS[1]
        parts += [text(left - 8, y + 14, label, "end"),
                  f'<rect x="{left}" y="{y + 3}" width="{scale(median) - left:.1f}" height="15" '
                  f'fill="{color}"/>',
                  line(scale(least), y + 10.5, scale(greatest), y + 10.5, "#222", 2),
                  text(right + 8, y + 14, time_text(median))]
    return document(title, bottom + 30, parts)


def lines(title, axis, series):
    """series: {label: [(x, y), ...]}; both axes are logarithmic, y is a time."""
    left, right, top, bottom = 70, WIDTH - 200, 40, 340
    points = [point for all_points in series.values() for point in all_points]
    across = Scale([x for x, _ in points], left, right)
    up = Scale([y for _, y in points], bottom, top)
    parts = []
    for tick in up.ticks():
        parts += [line(left, up(tick), right, up(tick)),
                  text(left - 6, up(tick) + 4, time_text(tick), "end")]
    for x in sorted({x for x, _ in points}):
        parts += [line(across(x), top, across(x), bottom, "#eee"),
                  text(across(x), bottom + 16, f"{x:,}", "middle")]
    parts.append(text((left + right) / 2, bottom + 34, axis, "middle"))
    for number, (label, all_points) in enumerate(series.items()):
        color = COLORS[number % len(COLORS)]
        path = " ".join(f"{across(x):.1f},{up(y):.1f}" for x, y in all_points)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{color}" stroke-width="2"/>')
        parts += [f'<circle cx="{across(x):.1f}" cy="{up(y):.1f}" r="3" fill="{color}"/>'
                  for x, y in all_points]
        y = top + 8 + 20 * number
        parts += [line(right + 15, y - 4, right + 35, y - 4, color, 3),
                  text(right + 42, y, label)]
    return document(title, bottom + 45, parts)
