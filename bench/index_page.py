"""How the measurements of the clip index are shown: tables and a plot, natively and in the camera alike."""
from __future__ import annotations

import math

COLUMNS = [
    ("open_us", "open and first get, ms", 1e-3, 2),
    ("get_us", "get, median, µs", 1, 3),
    ("get_99_us", "get, 99th percentile, µs", 1, 3),
    ("walk_us", "ordered walk, µs a clip", 1, 4),
    ("append_us", "append, median, µs", 1, 2),
    ("append_99_us", "append, 99th percentile, µs", 1, 2),
    ("drop_us", "delete the oldest, µs", 1, 2),
    ("compact_us", "compact, ms", 1e-3, 1),
    ("bytes_per_clip", "bytes a clip", 1, 2),
    ("memory_kib", "resident after a walk, KiB", 1, 0),
]
COMPARED = [("get_us", "get, median"), ("walk_us", "ordered walk"), ("append_us", "append, median")]
PLOTTED = [("open_us", "open and first get"), ("get_us", "get, median"), ("walk_us", "ordered walk, a clip"), ("append_us", "append, median")]
OTHERS = ("SQLite WAL", "LMDB", "listing")
COLOURS = {"clip index": "#0b6e4f", "SQLite WAL": "#8a5a00", "LMDB": "#3a5fb0", "listing": "#888888"}


def markdown(head: list[str], rows: list[list[str]]) -> str:
    return "\n".join("| " + " | ".join(row) + " |" for row in [head, ["---"] * len(head), *rows])


def promises(rows: list[dict]) -> str:
    """What an append is worth, for each engine."""
    return markdown(["engine", "what is appended or deleted is"], [[name, words] for name, words in
                                                                  {row["engine"]: row["durability"] for row in rows}.items()])


def table(rows: list[dict], size: int) -> str:
    """All that was measured with so many clips."""
    chosen = [row for row in rows if row["clips"] == size]
    return markdown([f"{size:,} clips", *(row["engine"] for row in chosen)],
                    [[name, *(f"{row[key] * scale:,.{digits}f}" for row in chosen)] for key, name, scale, digits in COLUMNS])


def against(rows: list[dict]) -> str:
    """How many times slower the others are."""
    lines = []
    for key, name in COMPARED:
        for size in sorted({row["clips"] for row in rows}):
            by_name = {row["engine"]: row for row in rows if row["clips"] == size}
            own = by_name["clip index"][key]
            lines.append([name, f"{size:,}", *(f"{by_name[other][key] / own:,.1f}" if other in by_name else "" for other in OTHERS)])
    return markdown(["times slower than the clip index", "clips", *OTHERS], lines)


def memory_per_clip(rows: list[dict]) -> str:
    """What a clip takes of memory, without what an empty index takes."""
    own = sorted((row["clips"], row["memory_kib"]) for row in rows if row["engine"] == "clip index")
    (few, little), (many, much) = own[0], own[-1]
    return (f"From {few:,} to {many:,} clips the clip index's memory grows by {(much - little) * 1024 / (many - few):.1f} bytes a clip; "
            "the rest is the program's own.")


def plot(rows: list[dict]) -> str:
    """Four panels, one for each question, with a logarithmic bar for each engine at the largest size given."""
    size = max(row["clips"] for row in rows)
    chosen = [row for row in rows if row["clips"] == size]
    width, panel, bar = 760, 128, 22
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{panel * len(PLOTTED) + 40}" '
           f'font-family="sans-serif" font-size="13">',
           f'<rect width="100%" height="100%" fill="#ffffff"/><text x="16" y="24" font-size="15">{size:,} clips; '
           "each step of the scale is ten times longer</text>"]
    for number, (key, name) in enumerate(PLOTTED):
        top = 40 + number * panel
        values = [max(row[key], 1e-4) for row in chosen]
        low = math.floor(math.log10(min(values)))
        high = math.ceil(math.log10(max(values)) + 1e-9)
        scale = (width - 330) / max(1, high - low + 0.3)
        out.append(f'<text x="16" y="{top + 14}" font-weight="bold">{name}</text>')
        for step in range(low, high + 1):
            x = 130 + (step - low + 0.3) * scale
            out.append(f'<line x1="{x:.1f}" y1="{top + 20}" x2="{x:.1f}" y2="{top + 20 + bar * len(chosen)}" stroke="#dddddd"/>')
        for line, (row, value) in enumerate(zip(chosen, values)):
            y = top + 20 + line * bar
            length = (math.log10(value) - low + 0.3) * scale
            words = f"{value:,.4g} µs" if value < 1e3 else f"{value / 1e3:,.4g} ms" if value < 1e6 else f"{value / 1e6:,.4g} s"
            out.append(f'<text x="122" y="{y + 15}" text-anchor="end">{row["engine"]}</text>'
                       f'<rect x="130" y="{y + 3}" width="{length:.1f}" height="{bar - 6}" fill="{COLOURS[row["engine"]]}"/>'
                       f'<text x="{136 + length:.1f}" y="{y + 15}">{words}</text>')
    return "\n".join([*out, "</svg>"]) + "\n"
