"""Draws two pictures of docs/chain.md from a demo project whose master begins with an EQ.

usage: chain.py PROJECT BEFORE AFTER OUT
  PROJECT  holds master-eq.csv, the true response, and chain.json, what verdel-chain found
  BEFORE, AFTER  what render_stages wrote for the taps as they came, and as they were heard
"""

import csv
import json
import math
import pathlib
import statistics
import sys

from curves import BOTTOM, COLOURS, EDGE, GRID, LEFT, PLOT, TOP, svg
from plots import line, text
from sound import power_spectrum, read_channel

LOW_HZ, HIGH_HZ = 20.0, 20000.0
MARKS_HZ = (20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000)
TRUE, FOUND, SHADE = COLOURS[3], COLOURS[1], "#c9dcea"
HEIGHT = 260
COMPARED_HZ = (40.0, 9000.0)  # where the music is loud enough to say what the EQ did
FRAME = 4096  # samples


class Axes:
    """A frame with frequency across and decibels up, on which curves are drawn."""

    def __init__(self, low, high, step):
        self.low, self.high = low, high
        self.parts = []
        for hz in MARKS_HZ:
            name = f"{hz // 1000} kHz" if hz >= 1000 else f"{hz} Hz"
            self.parts.append(line(self.x(hz), TOP, self.x(hz), TOP + HEIGHT, GRID))
            anchor = "end" if hz == MARKS_HZ[-1] else "middle"
            self.parts.append(text(self.x(hz), TOP + HEIGHT + 18, name, anchor))
        for decibels in range(low, high + 1, step):
            style = EDGE if decibels == 0 else GRID
            self.parts.append(line(LEFT, self.y(decibels), LEFT + PLOT, self.y(decibels), style))
            self.parts.append(text(LEFT - 10, self.y(decibels) + 4, f"{decibels} dB", "end"))

    def x(self, hz):
        return LEFT + math.log(hz / LOW_HZ) / math.log(HIGH_HZ / LOW_HZ) * PLOT

    def y(self, decibels):
        clipped = min(max(decibels, self.low), self.high)
        return TOP + (self.high - clipped) / (self.high - self.low) * HEIGHT

    def points(self, curve):
        return " ".join(f"{self.x(hz):.1f},{self.y(db):.1f}" for hz, db in curve
                        if LOW_HZ <= hz <= HIGH_HZ)

    def shade(self, lower, upper):
        edge = f"{self.points(upper)} {self.points(reversed(lower))}"
        self.parts.insert(0, f'<polygon points="{edge}" fill="{SHADE}"/>')

    def curve(self, curve, name, colour, dashes=""):
        dashed = f' stroke-dasharray="{dashes}"' if dashes else ""
        self.parts.append(f'<polyline points="{self.points(curve)}" fill="none" '
                          f'stroke="{colour}" stroke-width="2"{dashed}/>')
        row = TOP + 18 + 18 * sum("polyline" in part for part in self.parts)
        self.parts.append(line(LEFT + 14, row - 22, LEFT + 40, row - 22,
                               f'stroke="{colour}" stroke-width="2"{dashed}'))
        self.parts.append(text(LEFT + 48, row - 18, name, "start"))

    def write(self, path):
        path.write_text(svg(TOP + HEIGHT + BOTTOM, self.parts), encoding="utf-8")


def interpolated(curve, hz):
    for (low, one), (high, other) in zip(curve, curve[1:]):
        if low <= hz <= high:
            return one + (other - one) * math.log(hz / low) / math.log(high / low)
    return curve[0][1] if hz < curve[0][0] else curve[-1][1]


def draw_response(project, path):
    """The EQ that was found on the one that was there. Its level is the gain's affair: the true one
    is moved up or down until both agree in the middle. Returns their largest difference there."""
    with open(project / "master-eq.csv", newline="", encoding="utf-8") as file:
        true = [(float(row["hz"]), float(row["db"])) for row in csv.DictReader(file)]
    curve = json.loads((project / "chain.json").read_text(encoding="utf-8"))["curve"]
    if not curve["used"]:
        raise SystemExit(f"no EQ was found in {project}: {curve['why_not']}")
    found = list(zip(curve["hz"], curve["curves"][0]["db"]))
    doubt = curve["curves"][0]["uncertainty_db"]

    compared = [(hz, db) for hz, db in found if COMPARED_HZ[0] <= hz <= COMPARED_HZ[1]]
    level = statistics.median(db - interpolated(true, hz) for hz, db in compared)
    true = [(hz, db + level) for hz, db in true]
    axes = Axes(-12, 9, 3)
    axes.shade([(hz, db - by) for (hz, db), by in zip(found, doubt)],
               [(hz, db + by) for (hz, db), by in zip(found, doubt)])
    axes.curve(true, "the EQ of the master", TRUE)
    axes.curve(found, "what was found, and how sure it is", FOUND, "6 4")
    axes.write(path)
    return max(abs(db - interpolated(true, hz)) for hz, db in compared)


def third_octaves(samples, rate):
    """Power in dB in each third of an octave, mean over the song."""
    centres = range(FRAME // 2, len(samples) - FRAME // 2, FRAME)
    mean = [sum(bins) / len(centres)
            for bins in zip(*(power_spectrum(samples, centre, FRAME) for centre in centres))]
    bands = []
    for third in range(6, 31):
        hz = 1000.0 * 2.0 ** ((third - 18) / 3)
        first, last = (round(hz * edge * FRAME / rate) for edge in (2 ** (-1 / 6), 2 ** (1 / 6)))
        bands.append((hz, 10 * math.log10(sum(mean[first:max(last, first + 1)]) + 1e-12)))
    return bands


def draw_left(before, after, path):
    """What the taps do not explain of the mix, before and after the chain was heard."""
    axes = Axes(-70, -10, 10)
    for stages, name, title, colour in ((before, "mix", "the mix", COLOURS[0]),
                                        (before, "residual", "left before", TRUE),
                                        (after, "residual", "left after", FOUND)):
        axes.curve(third_octaves(*read_channel(stages / f"{name}.wav")), title, colour)
    axes.write(path)


def main(project, before, after, out):
    out.mkdir(parents=True, exist_ok=True)
    difference = draw_response(project, out / "response.svg")
    draw_left(before, after, out / "left.svg")
    print(f"found EQ: at most {difference:.2f} dB from the true one from {COMPARED_HZ[0]:g} to "
          f"{COMPARED_HZ[1]:g} Hz")


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__.strip())
    main(*map(pathlib.Path, sys.argv[1:]))
