"""Charts of ratios as SVG text, a panel for each processor: lines over a logarithmic size, or bars.

The scale of ratios is logarithmic, so that 1.2 times as fast is as far from 1 as 1.2 times as slow,
and visible. A chart has its own background, because no text colour has enough contrast on both a
white and a dark page.
"""
import math
from xml.sax.saxutils import escape

WIDTH, MARGIN = 800, 12
PANEL = 260  # the least width of a panel of bars
PAPER, INK, GRID = "#ffffff", "#24292f", "#d0d7de"
COLOURS = ("#0b5fc1", "#b45309", "#1a7f37", "#7c3aed", "#b91c1c", "#0f766e", "#7c5a10", "#57606a")
TICKS = (1 / 16, 1 / 8, 1 / 4, 1 / 2, 0.8, 1, 1.25, 2, 4, 8, 16)
LINE = 17  # from one line of text to the next


def tick_name(tick):
    return f"1/{1 / tick:g}" if tick <= 0.5 else f"{tick:g}"


def text(x, y, content, anchor="start", extra=""):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{INK}" {extra}>'
            f"{escape(str(content))}</text>")


def path(points, colour, width):
    return (f'<path d="M{points}" fill="none" stroke="{colour}" stroke-width="{width}"/>')


class RatioScale:
    """Maps ratios to places from start to end. A ratio beyond the last tick is drawn at that tick.
    """

    def __init__(self, ratios, start, end):
        ratios = list(ratios)
        self.ticks = [t for t in TICKS if 0.4 < t < 2.5
                      or min(ratios) < t * 2 and t < 1 or max(ratios) > t / 2 and t > 1]
        self.start, self.end = start, end

    def __call__(self, ratio):
        first, last = math.log(self.ticks[0]), math.log(self.ticks[-1])
        part = (min(max(math.log(ratio), first), last) - first) / (last - first)
        return self.start + (self.end - self.start) * part


def head(title, direction, series):
    """Returns the parts of the title and of the legend below it, and the y where they end."""
    parts = [text(MARGIN, 22, title, extra='font-size="15" font-weight="bold"'),
             text(MARGIN, 40, f"times as fast as the peer; {direction}: zorvac is faster")]
    x, y = MARGIN, 60
    for name, colour in series.items():
        width = 30 + 6.6 * len(name)
        if x + width > WIDTH - MARGIN and x > MARGIN:
            x, y = MARGIN, y + LINE
        parts.append(f'<rect x="{x}" y="{y - 9}" width="14" height="10" fill="{colour}"/>')
        parts.append(text(x + 19, y, name))
        x += width
    return parts, y + 8


def svg(parts, height, width=WIDTH):
    body = "\n".join(parts)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height:.0f}" '
            f'width="{width:.0f}" height="{height:.0f}" font-family="sans-serif" font-size="12">\n'
            f'<rect width="100%" height="100%" fill="{PAPER}"/>\n{body}\n</svg>\n')


def colours(panels):
    names = dict.fromkeys(name for series in panels.values() for name in series)
    return {name: COLOURS[i % len(COLOURS)] for i, name in enumerate(names)}


def values(panels):
    return [v for series in panels.values() for points in series.values() for v in points.values()]


def size_name(size):
    for unit, name in ((1 << 20, "M"), (1 << 10, "K")):
        if size >= unit and size % unit == 0:
            return f"{size // unit}{name}"
    return str(size)


def lines(title, x_label, panels):
    """Draws {processor: {series: {size: ratio}}}: panels one below the other."""
    styles = colours(panels)
    parts, top = head(title, "upwards", styles)
    sizes = sorted({size for series in panels.values() for points in series.values()
                    for size in points})
    left, right, tall = 44, WIDTH - MARGIN, 190
    first, last = math.log2(sizes[0]), math.log2(sizes[-1])

    def across(size):
        return left + 16 + (right - left - 32) * (math.log2(size) - first) / ((last - first) or 1)
    for processor, series in panels.items():
        top += 22
        height = RatioScale(values(panels), top + tall, top)
        parts.append(text(left, top - 5, f"{processor}, by {x_label} (logarithmic)"))
        for tick in height.ticks:
            parts.append(path(f"{left} {height(tick):.1f}H{right}", INK if tick == 1 else GRID, 1))
            parts.append(text(left - 5, height(tick) + 4, tick_name(tick), "end"))
        labelled = -math.inf
        for size in sizes:
            if across(size) - labelled >= 34:  # closer labels would overlap
                parts.append(text(across(size), top + tall + 15, size_name(size), "middle"))
                labelled = across(size)
        for name, points in series.items():
            track = "L".join(f"{across(s):.1f} {height(v):.1f}" for s, v in sorted(points.items()))
            parts.append(path(track, styles[name], 2))
        top += tall + 20
    return svg(parts, top + 4)


def bars(title, panels):
    """Draws {processor: {series: {row: ratio}}}: rows one below the other, panels side by side.
    Each bar goes from 1 to its ratio, with the figure at its end."""
    styles = colours(panels)
    parts, top = head(title, "to the right", styles)
    rows = {row: [name for name in styles if any(row in series.get(name, ())
                                                 for series in panels.values())]
            for row in dict.fromkeys(r for series in panels.values() for points in series.values()
                                     for r in points)}
    left = MARGIN + 6.8 * max(map(len, rows))
    panel = max((WIDTH - MARGIN - left) / len(panels), PANEL)
    top += 40
    bar = 12
    bottom = top + sum(bar * len(names) + 8 for names in rows.values())
    for p, (processor, series) in enumerate(panels.items()):
        start = left + panel * p + 34
        scale = RatioScale(values(panels), start, start + panel - 68)
        parts.append(text(start, top - 22, processor))
        for tick in scale.ticks:
            parts.append(path(f"{scale(tick):.1f} {top}V{bottom}", INK if tick == 1 else GRID, 1))
            if tick not in (0.8, 1.25) or scale(1.25) - scale(1) > 25:
                parts.append(text(scale(tick), top - 6, tick_name(tick), "middle"))
        y = top + 4
        for row, names in rows.items():
            if p == 0:
                parts.append(text(left + 6, y + bar * len(names) / 2 + 4, row, "end"))
            for name in names:
                if row in (points := series.get(name, {})):
                    low, high = sorted((scale(1), scale(points[row])))
                    parts.append(f'<rect x="{low:.1f}" y="{y}" width="{max(high - low, 1):.1f}" '
                                 f'height="{bar - 2}" fill="{styles[name]}"/>')
                    behind = points[row] < 1
                    parts.append(text(low - 3 if behind else high + 3, y + bar - 3,
                                      f"{points[row]:.2f}", "end" if behind else "start",
                                      'font-size="10"'))
                y += bar
            y += 8
    return svg(parts, bottom + MARGIN, left + panel * len(panels) + MARGIN)
