#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Runs a command on a terminal of its own, and draws what the terminal shows as a moving picture:

    demo_picture.py PICTURE.svg ORIGIN COMMAND...

Each text of the picture appears when the terminal has shown it, and goes when it is overwritten.
The picture plays once and stays as the terminal is at the end, which viewers that do not play see at
once. ORIGIN is put into it, to tell what it was made from. Needs pyte, which is Debian's
python3-pyte: hence the system's own interpreter.
"""
import fcntl
import html
import os
import pty
import select
import struct
import sys
import termios
import time

import pyte

COLUMNS, ROWS = 112, 80
CELL, LINE, EDGE = 8.4, 18, 16  # pixels
LATEST = 120  # seconds: the demo takes a few
COLORS = {"green": "#7ec98f", "red": "#f0857d", "brown": "#e5c07b", "blue": "#7fb4e6",
          "cyan": "#7cc7cf", "magenta": "#d19ad6", "white": "#e6e6e6", "black": "#8a939c"}
PLAIN = "#d7dce1"


def start(command):
    """The terminal's descriptor, and the process that runs on it."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.environ["TERM"] = "xterm-256color"
        os.execvp(command[0], command)
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
    return pid, terminal


def spans(line):
    """A row of the screen as pieces of one style: column, text, colour, whether it is bold."""
    pieces = []
    for column in range(COLUMNS):
        cell = line[column]
        style = (COLORS.get(cell.fg, PLAIN), cell.bold)
        if pieces and pieces[-1][2:] == style:
            pieces[-1] = (*pieces[-1][:1], pieces[-1][1] + cell.data, *style)
        else:
            pieces.append((column, cell.data, *style))
    return tuple(piece for piece in ((c, text.rstrip(), *style) for c, text, *style in pieces) if piece[1])


def record(command):
    """What each row showed, from when to when: (row, spans, begin, end or none)."""
    screen = pyte.Screen(COLUMNS, ROWS)
    stream = pyte.ByteStream(screen)
    pid, terminal = start(command)
    begin = time.monotonic()
    shown, events = {}, []

    def look(now):
        for row in range(ROWS):
            pieces = spans(screen.buffer[row])
            old, since = shown.get(row, ((), 0))
            if pieces != old:
                if old:
                    events.append((row, old, since, now))
                shown[row] = (pieces, now)

    while True:
        readable, _, _ = select.select([terminal], [], [], LATEST)
        if not readable:
            sys.exit("demo_picture: the command does not end")
        try:
            data = os.read(terminal, 65536)
        except OSError:  # the end of a terminal's output
            data = b""
        if not data:
            break
        stream.feed(data)
        # Ten pictures a second are enough for an eye.
        look(round(time.monotonic() - begin, 1))
    if screen.cursor.y == ROWS - 1:
        sys.exit(f"demo_picture: the command prints more than {ROWS} rows")
    _, status = os.waitpid(pid, 0)
    if status != 0:
        sys.exit("demo_picture: the command failed:\n" + "\n".join(screen.display))
    return events + [(row, pieces, since, None) for row, (pieces, since) in shown.items() if pieces]


def draw_piece(column, text, color, bold):
    weight = ' font-weight="bold"' if bold else ""
    return f'<tspan x="{EDGE + column * CELL:.1f}" fill="{color}"{weight}>{html.escape(text)}</tspan>'


def draw(events, origin):
    rows = 1 + max(row for row, *_ in events)
    width, height = COLUMNS * CELL + 2 * EDGE, rows * LINE + 2 * EDGE
    parts = [f'<?xml version="1.0" encoding="UTF-8"?>\n{origin}',
             f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" '
             'font-family="ui-monospace,SFMono-Regular,Menlo,Consolas,DejaVu Sans Mono,monospace" '
             'font-size="14" xml:space="preserve">',
             '<title>The demo of velmora-svcmgr on a terminal</title>',
             f'<rect width="{width:.0f}" height="{height}" rx="8" fill="#1d2227"/>']
    for row, pieces, begin, end in sorted(events, key=lambda event: (event[0], event[2])):
        if end is not None and end <= begin:
            continue
        text = "".join(draw_piece(*piece) for piece in pieces)
        y = EDGE + (row + 0.75) * LINE
        if end is None:
            show = f'<set attributeName="visibility" to="hidden" begin="0s" dur="{begin}s"/>' if begin > 0 else ""
            parts.append(f'<text y="{y:.1f}">{text}{show}</text>')
        else:
            show = f'<set attributeName="visibility" to="visible" begin="{begin}s" dur="{end - begin:.1f}s"/>'
            parts.append(f'<text y="{y:.1f}" visibility="hidden">{text}{show}</text>')
    return "\n".join(parts) + "\n</svg>\n"


def main():
    picture, origin, command = sys.argv[1], sys.argv[2], sys.argv[3:]
    content = draw(record(command), origin)
    with open(picture, "w", encoding="utf-8") as file:
        file.write(content)


if __name__ == "__main__":
    main()
