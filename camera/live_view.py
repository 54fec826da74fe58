"""The live view of the virtual camera: what it shows, apart from where it is shown.

A frame is a list of lines, a line a list of (text, style) pieces. `to_ansi` puts a frame on a terminal, `to_svg` into a
picture for the documents; both show the same.
"""
from __future__ import annotations

import dataclasses
import datetime
import html

WIDTH = 86
LOG_LINES = 9

Piece = tuple[str, str]
Line = list[Piece]

KEYS = [[("i", "insert"), ("p", "pull"), ("s", "swap"), ("r", "record"), ("f", "fill"), ("w", "slow"), ("q", "quit")],
        [("m", "format"), ("e", "eject"), ("h", "hold busy"), ("v", "protect"), ("d", "delete")]]

# style -> (ANSI sequence, colour in the picture, bold)
STYLES = {
    "": ("", "#d5dce4", False),
    "dim": ("\x1b[2m", "#7b8794", False),
    "bold": ("\x1b[1m", "#ffffff", True),
    "good": ("\x1b[1;32m", "#57d38c", True),
    "warn": ("\x1b[1;33m", "#f2c14e", True),
    "bad": ("\x1b[1;31m", "#ff7b72", True),
    "bar": ("\x1b[34m", "#58a6ff", False),
    "key": ("\x1b[7m", "#f2c14e", True),
}

STATE_STYLE = {"normal": "good", "full": "warn", "formatting": "warn", "fixing": "warn", "ejecting": "warn",
               "eject": "warn", "broken": "bad", "not_exists": "dim", "unknown": "dim"}


@dataclasses.dataclass
class Snapshot:
    """What is known at one moment; None is what is not known (no card, no answer yet)."""

    uptime_s: float = 0.0
    state: str = "unknown"
    access: str = "none"  # "rdwr", "rdonly" or "none", as published
    card: str = ""  # what is in the slot, in words
    slow: bool = False
    held: bool = False  # a program keeps a file of the card open
    total_bytes: int | None = None
    free_bytes: int | None = None
    clips: int | None = None
    oldest: str = ""
    newest: str = ""
    alert: str = ""  # the last one, in words
    doing: str = ""  # what the last key started
    log: list[str] = dataclasses.field(default_factory=list)


def size(count: int) -> str:
    """A number of bytes in binary units."""
    value = float(count)
    for unit in ("B", "KiB", "MiB", "GiB"):
        if value < 1024 or unit == "GiB":
            return f"{value:.0f} {unit}" if unit == "B" else f"{value:.1f} {unit}"
        value /= 1024
    raise AssertionError("unreachable")


def clock(seconds: float) -> str:
    return str(datetime.timedelta(seconds=int(seconds)))


def bar(part: int, whole: int, width: int) -> Line:
    """Used space in full blocks, free space in light ones."""
    used = 0 if whole <= 0 else round((whole - part) * width / whole)
    return [("█" * used, "bar"), ("░" * (width - used), "dim")]


def fit(line: Line, width: int) -> Line:
    """Cuts or pads a line to exactly this many characters."""
    fitted: Line = []
    left = width
    for text, style in line:
        fitted.append((text[:left], style))
        left -= len(fitted[-1][0])
    return fitted + [(" " * left, "")]


def frame(shot: Snapshot) -> list[Line]:
    """The whole view as lines of WIDTH characters."""
    inner = WIDTH - 4
    lines: list[Line] = []

    def boxed(line: Line) -> None:
        lines.append([("│ ", "dim"), *fit(line, inner), (" │", "dim")])

    title = " vesk_sdcard in the virtual camera "
    up = f" up {clock(shot.uptime_s)} "
    lines.append([("╭", "dim"), (title, "bold"), ("─" * (WIDTH - 3 - len(title) - len(up)), "dim"), (up, ""), ("─╮", "dim")])
    slot = shot.card or "empty"
    boxed([("card    ", "dim"), ("● " + shot.state, STATE_STYLE.get(shot.state, "")), (f"   {shot.access}", ""),
           ("   slot: ", "dim"), (slot, ""), ("   slowed down", "warn") if shot.slow else ("", ""),
           ("   held", "warn") if shot.held else ("", "")])
    if shot.total_bytes is not None and shot.free_bytes is not None:
        text = f" {size(shot.free_bytes)} free of {size(shot.total_bytes)}"
        boxed([("space   ", "dim"), *bar(shot.free_bytes, shot.total_bytes, inner - 8 - len(text)), (text, "")])
    else:
        boxed([("space   ", "dim"), ("-", "dim")])
    if shot.clips:
        boxed([("clips   ", "dim"), (str(shot.clips), "bold"), (f"   {shot.oldest} to {shot.newest}", "")])
    else:
        boxed([("clips   ", "dim"), ("-" if shot.clips is None else "0", "dim")])
    boxed([("alert   ", "dim"), (shot.alert or "-", "warn" if shot.alert else "dim")])
    boxed([("doing   ", "dim"), (shot.doing or "-", "" if shot.doing else "dim")])
    lines.append([("├─ log " + "─" * (WIDTH - 8) + "┤", "dim")])
    for text in (shot.log[-LOG_LINES:] + [""] * LOG_LINES)[:LOG_LINES]:
        style = "warn" if "warn" in text[:12] else "bad" if any(word in text[:12] for word in ("err", "crit")) else ""
        boxed([(text, style)])
    lines.append([("╰" + "─" * (WIDTH - 2) + "╯", "dim")])
    for row in KEYS:
        keys: Line = [(" ", "")]
        for key, word in row:
            keys += [(f" {key} ", "key"), (f" {word}  ", "")]
        lines.append(fit(keys, WIDTH))
    return lines


def to_ansi(lines: list[Line], colour: bool = True) -> str:
    """The frame for a terminal, drawn over the previous one."""
    out = ["\x1b[H"]
    for line in lines:
        for text, style in line:
            code = STYLES[style][0] if colour else ""
            out.append(f"{code}{text}\x1b[0m" if code else text)
        out.append("\x1b[K\r\n")
    return "".join(out) + "\x1b[J"


def to_svg(lines: list[Line]) -> str:
    """The frame as a picture."""
    char_w, line_h, margin = 8.43, 19, 16
    width, height = round(WIDTH * char_w + 2 * margin), len(lines) * line_h + 2 * margin
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}" '
           'role="img" aria-label="The live view of the virtual camera">',
           '<style>text { font: 14px ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; white-space: pre; }</style>',
           f'<rect width="{width}" height="{height}" rx="10" fill="#161b22"/>']
    for row, line in enumerate(lines):
        column = 0
        for text, style in line:
            _, colour, bold = STYLES[style]
            if text.strip():
                x, y = margin + column * char_w, margin + row * line_h + 14
                weight = ' font-weight="bold"' if bold else ""
                out.append(f'<text xml:space="preserve" x="{x:.1f}" y="{y}" fill="{colour}" textLength="{len(text) * char_w:.1f}" '
                           f'lengthAdjust="spacingAndGlyphs"{weight}>{html.escape(text)}</text>')
            column += len(text)
    return "\n".join([*out, "</svg>"]) + "\n"
