"""Charts as SVG text: lines over a logarithmic size, and groups of bars.

The colours keep their contrast on a white and on a dark page, and text and axes are a grey between;
the background is the page's. Ours are drawn first and thicker.
"""
import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 760, 380
LEFT, RIGHT, TOP, BOTTOM = 62, 170, 34, 52
INK, GRID = "#808080", "#80808040"
OURS = ("#2f81f7", "#1f9d8f", "#8957e5", "#5aa9e6", "#b07aff")
PEERS = ("#e0823d", "#d1504b", "#b59a1d", "#c0569b", "#8c8c5a")


def colours(series):
    """Returns {name: (colour, line width)}."""
    ours = [s for s in series if s.startswith("zorvac")]
    peers = [s for s in series if not s.startswith("zorvac")]
    return ({s: (OURS[i % len(OURS)], 2.4) for i, s in enumerate(ours)} |
            {s: (PEERS[i % len(PEERS)], 1.5) for i, s in enumerate(peers)})


def decades(lowest, highest):
    """Returns the powers of ten from the one below the lowest to the one above the highest."""
    exponents = range(math.floor(math.log10(lowest)), math.ceil(math.log10(highest)) + 1)
    return [10.0 ** e for e in exponents]


def steps(highest):
    """Returns round values from 0 to just above the highest: at most six steps."""
    raw = highest / 5
    unit = 10.0 ** math.floor(math.log10(raw))
    step = next(unit * m for m in (1, 2, 2.5, 5, 10) if unit * m >= raw)
    return [step * i for i in range(math.ceil(highest / step) + 1)]


def text(x, y, content, anchor="middle", extra=""):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>'
            f"{escape(str(content))}</text>")


def size_name(size):
    for unit, name in ((1 << 20, "M"), (1 << 10, "K")):
        if size >= unit and size % unit == 0:
            return f"{size // unit}{name}"
    return str(size)


def frame(title, y_label, x_label, ticks):
    """Returns the parts that all charts have, and the function from values to heights, which is
    logarithmic where the ticks do not begin at 0."""
    bottom, right = HEIGHT - BOTTOM, WIDTH - RIGHT

    def height(value):
        part = (math.log(value / ticks[0]) / math.log(ticks[-1] / ticks[0]) if ticks[0] > 0
                else value / ticks[-1])
        return bottom - (bottom - TOP) * part
    parts = [text(LEFT, 18, title, "start", 'font-size="14" font-weight="bold"'),
             text((LEFT + right) / 2, HEIGHT - 8, x_label),
             text(0, 0, y_label,
                  extra=f'transform="translate(14 {(TOP + bottom) / 2}) rotate(-90)"')]
    for tick in ticks:
        parts.append(f'<path d="M{LEFT} {height(tick):.1f}H{right}" stroke="{GRID}"/>')
        parts.append(text(LEFT - 6, height(tick) + 4, f"{tick:g}", "end"))
    return parts, height


def legend(parts, styles):
    for i, (name, (colour, width)) in enumerate(styles.items()):
        y = TOP + 8 + 18 * i
        x = WIDTH - RIGHT + 14
        parts.append(f'<path d="M{x} {y}h20" stroke="{colour}" stroke-width="{width}"/>')
        parts.append(text(x + 26, y + 4, name, "start"))


def svg(parts):
    body = "\n".join(parts)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
            f'width="{WIDTH}" height="{HEIGHT}" font-family="sans-serif" font-size="11" '
            f'fill="{INK}">\n'
            f"{body}\n</svg>\n")


def lines(title, x_label, y_label, series, limits, ratio_scale):
    """Draws {contender: {size: value}}, sizes on a logarithmic axis, and {limit: value} across. On
    a ratio scale equal ratios of values are equal distances."""
    sizes = sorted({size for points in series.values() for size in points})
    values = [v for points in series.values() for v in points.values()] + list(limits.values())
    ticks = decades(min(values), max(values)) if ratio_scale else steps(max(values))
    parts, height = frame(title, y_label, f"{x_label} (logarithmic)", ticks)
    first, last = math.log2(sizes[0]), math.log2(sizes[-1])
    right, bottom = WIDTH - RIGHT, HEIGHT - BOTTOM

    def across(size):
        return LEFT + (right - LEFT) * (math.log2(size) - first) / ((last - first) or 1)
    labelled = -math.inf
    for size in sizes:
        x = across(size)
        parts.append(f'<path d="M{x:.1f} {TOP}V{bottom}" stroke="{GRID}"/>')
        if x - labelled >= 26:  # labels closer than this run into each other
            parts.append(text(x, bottom + 16, size_name(size)))
            labelled = x
    for name, value in limits.items():
        parts.append(text(LEFT + 4, height(value) - 4, name, "start"))
        parts.append(f'<path d="M{LEFT} {height(value):.1f}H{right}" stroke="{INK}" '
                     'stroke-width="1.5" stroke-dasharray="5 4"/>')
    styles = colours(series)
    for name, points in reversed(series.items()):
        colour, width = styles[name]
        path = "L".join(f"{across(s):.1f} {height(v):.1f}" for s, v in sorted(points.items()))
        parts.append(f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="{width}"/>')
        if len(points) == 1:
            (s, v), = points.items()
            parts.append(f'<circle cx="{across(s):.1f}" cy="{height(v):.1f}" r="3" '
                         f'fill="{colour}"/>')
    legend(parts, styles)
    return svg(parts)


def bars(title, y_label, series):
    """Draws {contender: {row: value}} as one group of bars a row."""
    rows = list(dict.fromkeys(row for points in series.values() for row in points))
    highest = max(v for points in series.values() for v in points.values())
    parts, height = frame(title, y_label, "", steps(highest))
    bottom = HEIGHT - BOTTOM
    group = (WIDTH - RIGHT - LEFT) / len(rows)
    bar = group * 0.8 / len(series)
    styles = colours(series)
    two_lines = len(rows) > 6  # of names, or they run into each other
    for r, row in enumerate(rows):
        left = LEFT + group * (r + 0.1)
        parts.append(text(left + group * 0.4, bottom + 14 + 13 * (r % 2 if two_lines else 0), row))
        for s, (name, points) in enumerate(series.items()):
            if row in points:
                y = height(points[row])
                parts.append(f'<rect x="{left + bar * s:.1f}" y="{y:.1f}" width="{bar * 0.9:.1f}" '
                             f'height="{bottom - y:.1f}" fill="{styles[name][0]}"/>')
    legend(parts, styles)
    return svg(parts)
