"""Draws the figures of a measurement as SVG: a line of dots for each piece of work, on a log scale."""

import math
from xml.sax.saxutils import escape

WIDTH = 960
LEFT = 330
RIGHT = 140
TOP = 112
ROW_HEIGHT = 64
LANE_HEIGHT = 9
DOT = 5
INK = "#22313f"
FAINT = "#5f6f7c"
GRID = "#e3e8ec"
COLOURS = {"ours": "#0b7285", "lftp": "#e8871e", "rclone": "#7048a8", "wget": "#5c940d", "ncftp": "#c2255c"}
TICKS = [0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000]


def text(x, y, words, size=14, colour=INK, anchor="start", weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" fill="{colour}" text-anchor="{anchor}" '
            f'font-weight="{weight}">{escape(words)}</text>')


def line(x1, y1, x2, y2, colour, width=1.0):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"/>')


def dot(x, y, colour, radius=DOT):
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{colour}"/>'


def in_two(words):
    """A long label breaks at the comma or blank nearest its middle."""
    if len(words) <= 40:
        return [words]
    breaks = [i for i, c in enumerate(words) if c == " "]
    middle = min(breaks, key=lambda i: abs(i - len(words) / 2) - (6 if words[i - 1] == "," else 0))
    return [words[:middle], words[middle + 1:]]


def short(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def picture(result, names, ratio, footnote):
    rows = result["rows"]
    clients = [client for client in result["clients"] if client in COLOURS]
    values = [value for row in rows.values() for client in clients
              if (value := ratio(row, client, "wall")) is not None]
    low, high = min([0.8, *values]) * 0.9, max([4.0, *values]) * 1.15
    bottom = TOP + ROW_HEIGHT * len(rows)
    height = bottom + 62

    def across(value):
        share = (math.log(value) - math.log(low)) / (math.log(high) - math.log(low))
        return LEFT + share * (WIDTH - LEFT - RIGHT)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             f'viewBox="0 0 {WIDTH} {height}" font-family="Noto Sans, DejaVu Sans, Arial, sans-serif" '
             f'role="img">',
             '<title>Time of each client as a multiple of the bare client\'s</title>',
             f'<rect width="{WIDTH}" height="{height}" fill="#ffffff"/>',
             text(24, 36, "Time on the clock, one connection", 20, weight="bold"),
             text(24, 58, "A bare socket client that does the same work takes 1. Left is faster; log scale.",
                  13, FAINT)]

    x = 24.0
    for client in clients:
        label = "Kelpwharf" if client == "ours" else names[client]
        parts += [dot(x + 6, 83, COLOURS[client], 7 if client == "ours" else DOT),
                  text(x + 18, 88, label, 13, weight="bold" if client == "ours" else "normal")]
        x += 42 + 8 * len(label)
    parts += [line(x + 6, 76, x + 6, 91, INK, 2), text(x + 14, 88, "target for Kelpwharf", 13)]
    parts.append(text(WIDTH - 24, 88, "Kelpwharf (target)", 13, FAINT, "end"))

    for index in range(0, len(rows), 2):
        parts.append(f'<rect x="0" y="{TOP + index * ROW_HEIGHT}" width="{WIDTH}" height="{ROW_HEIGHT}" '
                     f'fill="#f6f8fa"/>')
    for tick in TICKS:
        if low <= tick <= high:
            is_bare = tick == 1
            parts += [line(across(tick), TOP, across(tick), bottom, FAINT if is_bare else GRID,
                           1.5 if is_bare else 1),
                      text(across(tick), bottom + 20, f"{tick:g}×", 13, INK if is_bare else FAINT, "middle")]

    for index, (name, row) in enumerate(rows.items()):
        middle = TOP + (index + 0.5) * ROW_HEIGHT
        label = in_two(f"{name}. {row['work']}")
        for i, words in enumerate(label):
            parts.append(text(24, middle + 5 + 18 * (i - (len(label) - 1) / 2), words))
        target = row["targets"]["wall"]
        if target and low <= target <= high:
            parts.append(line(across(target), middle - 22, across(target), middle + 22, INK, 2))
        for lane, client in enumerate(clients):
            value = ratio(row, client, "wall")
            if value is not None:
                y = middle + LANE_HEIGHT * (lane - (len(clients) - 1) / 2)
                parts.append(dot(across(value), y, COLOURS[client], 7 if client == "ours" else DOT))
        ours = ratio(row, "ours", "wall")
        words = "failed" if ours is None else short(ours)
        parts.append(text(WIDTH - 24, middle + 5, f"{words} ({target:.2f})", 14, COLOURS["ours"], "end",
                          "bold"))

    parts.append(text(24, height - 14, footnote, 12, FAINT))
    return "\n".join([*parts, "</svg>"]) + "\n"
